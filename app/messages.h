// What MessageQ does with each message in the running program.
#pragma once

#include "app/MessageQ.h"

extern const MessageDuties applicationDuties;

// The objects of which the process has one each, in the order in which they are built; they go in the reverse
// order.
#include "app/messages.h"

MessageQ messageQ(applicationDuties);

// ConClientApp, the console front end: the commands, and what the console shows.
#pragma once

#include "console/Servant.h"

// Thread: as Servant.
class ConClientApp : public Servant {
  public:
    ConClientApp();
};

extern ConClientApp conClientApp;

// ConClientApp, the console front end: the commands, and what the console shows.
#pragma once

#include <atomic>

#include "app/SearchResults.h"
#include "console/KeptList.h"
#include "console/Servant.h"
#include "download/Download.h"
#include "i4min/memory/relaxed.h"
#include "peer/Upload.h"

class Collection;

// Thread: as Servant; CLUI fills the lists from any.
class ConClientApp : public Servant {
  public:
    ConClientApp();

    Relaxed<u32> serverFiles;  // as the server told last, 0 when not connected
    Relaxed<u32> serverUsers;
    KeptList<Download> downloads{LockRank::uiList};
    KeptList<Upload> uploads{LockRank::uiList};
    SearchResults results;
    // A user interface that offers collections sets it; the console has no command that does.
    std::atomic<Collection*> selectedCollection{nullptr};
    Relaxed<i32> testNumber;  // what `test #` stored
};

extern ConClientApp conClientApp;

// ConClientApp, the console front end: the commands, and what the console shows.
#pragma once

#include <atomic>

#include "console/KeptList.h"
#include "console/Servant.h"
#include "download/Download.h"
#include "engine/Commands.h"
#include "engine/SearchResults.h"
#include "i4min/memory/relaxed.h"
#include "peer/Upload.h"

class Collection;
class Engine;

// Thread: as Servant, attach() and detach() before and after all commands; CLUI fills the lists from any.
class ConClientApp : public Servant, public Commands {
  public:
    ConClientApp();

    // The engine that the commands act on, between the two calls. detach() also lets go of what the lists
    // keep.
    void attach(Engine& engine);
    void detach();
    Engine& engine() const { return *engine_; }

    void dispatch(const char* line) override { Servant::dispatch(line); }
    void quit() override { Servant::quit(); }

    Relaxed<u32> serverFiles;  // as the server told last, 0 when not connected
    Relaxed<u32> serverUsers;
    KeptList<Download> downloads{LockRank::uiList};
    KeptList<Upload> uploads{LockRank::uiList};
    SearchResults results;
    // A user interface that offers collections sets it; the console has no command that does.
    std::atomic<Collection*> selectedCollection{nullptr};
    Relaxed<i32> testNumber;  // what `test #` stored

  private:
    Engine* engine_ = nullptr;
};

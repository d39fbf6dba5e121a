// ConClientApp: the console, its commands and the lists that they show.
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

// Runs the commands against an engine and keeps the downloads, uploads and results that the views number.
// Thread: as Servant; attach() runs before all commands, detach() after them. CLUI changes the lists on any
// thread.
// Borrows: the engine, between attach() and detach().
class ConClientApp : public Servant, public Commands {
  public:
    ConClientApp();

    // Sets the engine that the commands use. detach() also releases the objects in the lists.
    void attach(Engine& engine);
    void detach();
    Engine& engine() const { return *engine_; }

    void dispatch(const char* line) override { Servant::dispatch(line); }
    void quit() override { Servant::quit(); }

    Relaxed<u32> serverFiles;  // as last reported by the server; 0 if not connected
    Relaxed<u32> serverUsers;
    KeptList<Download> downloads{LockRank::uiList};
    KeptList<Upload> uploads{LockRank::uiList};
    SearchResults results;
    // For a user interface that offers collections; no console command sets it.
    std::atomic<Collection*> selectedCollection{nullptr};
    Relaxed<i32> testNumber;  // stored by `test #`

  private:
    Engine* engine_ = nullptr;
};

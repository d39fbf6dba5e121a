// ConClientApp: the console, its commands and the lists that they show.
#pragma once

#include <memory>

#include "console/KeptList.h"
#include "console/Servant.h"
#include "download/Download.h"
#include "engine/Commands.h"
#include "engine/SearchResults.h"
#include "i4min/memory/mutex.h"
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
    // The collection whose members are offered; null while there is none.
    void selectCollection(std::shared_ptr<Collection> collection) EXCLUDES(selectionLock_);
    std::shared_ptr<Collection> selectedCollection() const EXCLUDES(selectionLock_);

    void dispatch(const char* line) override { Servant::dispatch(line); }
    void quit() override { Servant::quit(); }

    Relaxed<u32> serverFiles;  // as last reported by the server; 0 if not connected
    Relaxed<u32> serverUsers;
    KeptList<Download> downloads{LockRank::uiList};
    KeptList<Upload> uploads{LockRank::uiList};
    SearchResults results;
    Relaxed<i32> testNumber;  // what `test #` stored

  private:
    Engine* engine_ = nullptr;
    mutable i4_mutex selectionLock_{LockRank::leaf};
    std::shared_ptr<Collection> selected_ GUARDED_BY(selectionLock_);
};

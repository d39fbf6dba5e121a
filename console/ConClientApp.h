// ConClientApp, the console front end: the commands, and what the console shows.
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

// Thread: as Servant, attach() and detach() before and after all commands; CLUI fills the lists from any.
class ConClientApp : public Servant, public Commands {
  public:
    ConClientApp();

    // The engine that the commands act on, between the two calls. detach() also lets go of what the lists
    // keep.
    void attach(Engine& engine);
    void detach();
    Engine& engine() const { return *engine_; }
    // The collection whose members are offered; null while there is none.
    void selectCollection(std::shared_ptr<Collection> collection) EXCLUDES(selectionLock_);
    std::shared_ptr<Collection> selectedCollection() const EXCLUDES(selectionLock_);

    void dispatch(const char* line) override { Servant::dispatch(line); }
    void quit() override { Servant::quit(); }

    Relaxed<u32> serverFiles;  // as the server told last, 0 when not connected
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

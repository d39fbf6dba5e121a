#include "console/ConClientApp.h"

#include <utility>

#include "console/commands.h"
#include "download/Collection.h"
#include "engine/Engine.h"

ConClientApp::ConClientApp() { addCommands(*this); }

void ConClientApp::attach(Engine& engine) {
    engine_ = &engine;
    speakThrough(engine.ui, engine.stringTable);
}

void ConClientApp::detach() {
    downloads.dropAll();
    uploads.dropAll();
    selectCollection(nullptr);
    engine_ = nullptr;
}

void ConClientApp::selectCollection(std::shared_ptr<Collection> collection) {
    const i4_lock guard(selectionLock_);
    selected_.swap(collection);
}

std::shared_ptr<Collection> ConClientApp::selectedCollection() const {
    const i4_lock guard(selectionLock_);
    return selected_;
}

#include "console/ConClientApp.h"

#include "console/commands.h"
#include "engine/Engine.h"

ConClientApp::ConClientApp() { addCommands(*this); }

void ConClientApp::attach(Engine& engine) {
    engine_ = &engine;
    speakThrough(engine.ui, engine.stringTable);
}

void ConClientApp::detach() {
    downloads.dropAll();
    uploads.dropAll();
    engine_ = nullptr;
}

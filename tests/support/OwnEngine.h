// An engine of a test's own.
#pragma once

#include "host/PosixHost.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/EngineParts.h"
#include "tests/support/files.h"

// What it says is kept, unless it speaks through another interface. Its files lie in a directory that goes
// with it. It has read nothing and runs no thread yet.
struct EngineAlone {
    explicit EngineAlone(CoreUIInterface* ui = nullptr)
        : engine(host.host, directory.path().c_str(), ui ? *ui : log) {}
    EngineAlone(const EngineAlone&) = delete;
    EngineAlone& operator=(const EngineAlone&) = delete;

    PosixHost host;
    TemporaryDirectory directory;
    CapturedLog log;
    Engine engine;
};

struct OwnEngine : EngineAlone, EngineParts {
    explicit OwnEngine(CoreUIInterface* ui = nullptr) : EngineAlone(ui), EngineParts(engine) {}
};

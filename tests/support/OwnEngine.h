// An engine for one test.
#pragma once

#include "host/PosixHost.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/EngineParts.h"
#include "tests/support/files.h"

// An engine in its own temporary directory. Its output is captured, unless the test passes another interface.
// It has read no file and runs no thread yet.
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

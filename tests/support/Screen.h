// The console of this process, with its output captured.
#pragma once

#include <unistd.h>

#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>

#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "engine/Engine.h"
#include "host/PosixHost.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/EngineParts.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

// An engine whose events reach the console's lists. Changes the process's directory to the engine's, and
// makes the settings of a first run there. Thread: one.
class Screen : public CapturedLog {
  public:
    // If `relative`, file names are relative to the engine's directory.
    enum class Names { absolute, relative };
    explicit Screen(Names names = Names::absolute)
        : engine(host_.host, names == Names::absolute ? home_.path().c_str() : "", *this) {
        console.attach(engine);
        if (::chdir(home_.path().c_str()) != 0) throw std::runtime_error("chdir");
        Preferences& preferences = engine.preferences;
        preferences.load();
        preferences.setIncoming(home("incoming").c_str());
        preferences.setTemp(home("first").c_str());
        preferences.setTemp(home("temp").c_str());
    }
    ~Screen() override { console.detach(); }
    // Sets the results of a search, as from a server.
    void showResults(std::initializer_list<FileMeta*> files) {
        auto list = std::make_unique<FileList>();
        for (FileMeta* file : files) list->add(file);
        lists_.setResults(list.release(), 0);
    }
    // What the line prints at once.
    std::string type(const std::string& line) {
        take();
        console.dispatch(line.c_str());
        return take();
    }
    // What the posted messages print.
    std::string handled() {
        while (engine.messageQ.process()) continue;
        return take();
    }
    // Both, in this order.
    std::string answer(const std::string& line) {
        const std::string atOnce = type(line);
        return atOnce + handled();
    }

    CLUI& shown() { return lists_; }

    void downloadAdded(Download* download) override { lists_.downloadAdded(download); }
    void downloadRemoved(Download* download) override { lists_.downloadRemoved(download); }
    void uploadAdded(Upload* upload) override { lists_.uploadAdded(upload); }
    void uploadRemoved(Upload* upload) override { lists_.uploadRemoved(upload); }

  private:
    std::string home(const std::string& name) const {
        const std::string directory = engine.preferences.workDir.c_str();
        return directory.empty() ? name : directory + "/" + name;
    }

    PosixHost host_;
    TemporaryDirectory home_;

  public:
    ConClientApp console;

  private:
    CLUI lists_{console};

  public:
    Engine engine;
};

// For fixtures: the screen, and the parts of its engine.
struct OwnScreenAlone {
    explicit OwnScreenAlone(Screen::Names names) : screen_(names) {}
    Screen screen_;
};
struct OwnScreen : OwnScreenAlone, EngineParts {
    explicit OwnScreen(Screen::Names names = Screen::Names::absolute)
        : OwnScreenAlone(names), EngineParts(screen_.engine) {}
};

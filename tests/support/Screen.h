// The console of this very process: commands go to conClientApp, and what they print is kept.
#pragma once

#include <unistd.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "download/DLPool.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

// The engine's events reach the console's lists. The first one moves the process into a directory of its own
// and makes the settings of a first run there. Thread: one.
class Screen : public CapturedLog {
  public:
    Screen() {
        static const TemporaryDirectory& home = *new TemporaryDirectory;
        static bool first = true;
        if (first && ::chdir(home.path().c_str()) == 0) {
            preferences.workDir = home.path().c_str();
            preferences.hasDownloads = [] { return dlPool.count() > 0; };
            preferences.load();
            preferences.setIncoming(home.file("incoming").c_str());
            preferences.setTemp(home.file("first").c_str());
            preferences.setTemp(home.file("temp").c_str());
            first = false;
        }
    }
    // The results of a search, which may be a server's.
    void showResults(std::initializer_list<FileMeta*> files) {
        auto list = std::make_unique<FileList>();
        for (FileMeta* file : files) list->add(file);
        console_.setResults(list.release(), 0);
    }
    // What the line prints at once.
    std::string type(const std::string& line) {
        take();
        conClientApp.dispatch(line.c_str());
        return take();
    }
    // What the messages that were posted print.
    std::string handled() {
        while (messageQ.process()) continue;
        return take();
    }
    // Both, in their order.
    std::string answer(const std::string& line) {
        const std::string atOnce = type(line);
        return atOnce + handled();
    }

    void downloadAdded(Download* download) override { console_.downloadAdded(download); }
    void downloadRemoved(Download* download) override { console_.downloadRemoved(download); }
    void uploadAdded(Upload* upload) override { console_.uploadAdded(upload); }
    void uploadRemoved(Upload* upload) override { console_.uploadRemoved(upload); }

  private:
    CLUI console_;
};

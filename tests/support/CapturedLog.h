// The text that the engine tells its user, kept for a test to look at.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "app/UIInterface.h"

// While one lives, theLog and theUI point at it. Thread: any.
class CapturedLog : public CoreUIInterface {
  public:
    CapturedLog() {
        theLog = this;
        theUI = this;
    }
    ~CapturedLog() override {
        theLog = oldLog_;
        theUI = oldUI_;
    }

    void printLine(const char* format, ...) override PRINTF_LIKE {
        va_list list;
        va_start(list, format);
        append(format, list, "\n");
        va_end(list);
    }
    void print(const char* format, ...) override PRINTF_LIKE {
        va_list list;
        va_start(list, format);
        append(format, list, "");
        va_end(list);
    }
    void printVerbose(const char* format, ...) override PRINTF_LIKE {
        if (!verbose) return;
        va_list list;
        va_start(list, format);
        append(format, list, "");
        va_end(list);
    }

    // What was printed since the last call.
    std::string take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(text_, {});
    }

  private:
    void append(const char* format, va_list list, const char* end) {
        char text[4096];
        std::vsnprintf(text, sizeof text, format, list);
        std::lock_guard<std::mutex> lock(mutex_);
        text_ += text;
        text_ += end;
    }

    UIInterface* const oldLog_ = theLog.get();
    CoreUIInterface* const oldUI_ = theUI.get();
    std::mutex mutex_;
    std::string text_;
};

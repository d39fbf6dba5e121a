// Captures the text that the engine prints.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "engine/CoreUIInterface.h"

// Collects all text in memory. Thread: any.
class CapturedLog : public CoreUIInterface {
  public:
    void say(Text kind, const char* format, va_list list) override {
        char text[4096];
        std::vsnprintf(text, sizeof text, format, list);
        std::lock_guard<std::mutex> lock(mutex_);
        text_ += text;
        if (kind == Text::line) text_ += "\n";
    }

    // What was printed since the last take().
    std::string text() {
        std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }
    std::string take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(text_, {});
    }

  private:
    std::mutex mutex_;
    std::string text_;
};

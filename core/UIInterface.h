// UIInterface, through which the engine prints.
#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstddef>

#include "i4min/file/log.h"
#include "i4min/memory/LLsafe.h"
#include "i4min/memory/annotations.h"
#include "i4min/memory/types.h"

class Clock;

// Prints text. Thread: any, at the same time. printLine adds a newline to whatever the text holds, so that a
// text that ends in a newline leaves an empty line behind it. Control characters but newline and tab are
// printed as '?'.
class UIInterface : public i4_log {
  public:
    // The clock counts the minutes of mayComplain(); without one, all time is one minute.
    explicit UIInterface(const Clock* clock = nullptr) : clock_(clock) {}
    UIInterface(const UIInterface&) = delete;
    UIInterface& operator=(const UIInterface&) = delete;
    virtual ~UIInterface();
    void printLine(const char* format, ...) PRINTF_LIKE(2, 3);
    void print(const char* format, ...) PRINTF_LIKE(2, 3);  // without newline
    void printVerbose(const char* format, ...)
        PRINTF_LIKE(2, 3);  // without newline, and only in verbose mode
    // Without newline. Nothing is held back, so this is what print() does.
    void printFlush(const char* format, ...) PRINTF_LIKE(2, 3);

    void tell(Tone tone, const char* text) override;
    virtual bool isVerbose() const { return verbose_.load(std::memory_order_relaxed); }
    virtual void setVerbose(bool verbose) { verbose_.store(verbose, std::memory_order_relaxed); }

    // For a text that strangers can cause at any rate: false where enough of its kind were printed in this
    // minute. So a log stays small over months, and nobody's texts take the place of another's.
    enum class Complaint {
        brokenTag,
        peerOutOfDate,
        serverOutOfDate,
        serverMessage,
        datagram,
        upload,
        kinds
    };
    bool mayComplain(Complaint kind);

    // What the four operations above print, which of them it was, and in verbose mode only what is for it.
    enum class Text { line, plain, verbose, flush };
    virtual void say(Text kind, const char* format, va_list list) PRINTF_LIKE(3, 0);

  private:
    struct Budget {
        std::atomic<u32> minute{0};
        std::atomic<u32> spent{0};  // in that minute
    };
    const Clock* const clock_;
    std::atomic<bool> verbose_{false};
    std::array<Budget, static_cast<std::size_t>(Complaint::kinds)> budgets_;
};

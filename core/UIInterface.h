// UIInterface: the interface through which the engine prints.
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
    // The clock counts the minutes for mayComplain(). Without one, all time counts as one minute.
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

    // Limits texts that strangers can cause at any rate: returns false if enough of this kind were printed in
    // this minute. Keeps the log small, and one stranger's texts from hiding other texts.
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

    // What the four functions above print and which of them was called. printVerbose() calls it in verbose
    // mode only.
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

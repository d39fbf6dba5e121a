// EventLog, one line for each event on standard output, which holds up nobody when it isn't read.
#pragma once

#include <cstdarg>

#include "i4min/memory/annotations.h"

// Thread: one.
class EventLog {
  public:
    enum class Level { quiet, info, debug };

    explicit EventLog(Level level) : level_(level) {}
    virtual ~EventLog() = default;

    // The start, the end, and what the operator has to act on: always told.
    void always(const char* format, ...) PRINTF_LIKE(2, 3);
    void info(const char* format, ...) PRINTF_LIKE(2, 3);
    void debug(const char* format, ...) PRINTF_LIKE(2, 3);

  protected:
    // A line without its newline. Control characters in it are strangers' and become question marks.
    virtual void write(const char* line);

  private:
    void tell(const char* format, va_list list) PRINTF_LIKE(2, 0);

    const Level level_;
};

// i4_err, the one exception type, and the error channel through which it is raised.
//
// Only a failed stream read, a failed string write and an out-of-memory raise; everything else reports by
// return value. Code that parses a stream catches i4_err at the level of its record or connection.
#pragma once

#include "i4min/memory/annotations.h"
#include "i4min/string/string.h"

class i4_file;

// The text of a failure. A plain value; it is thrown by the default error handler alone.
class i4_err {
  public:
    explicit i4_err(const char* message) : message_(message) {}
    const char* message() const { return message_.c_str(); }

  private:
    i4_string message_;
};

// Runs an action that reads or writes a stream. Returns its result, or false if it raised.
template <class Action>
[[nodiscard]] bool i4_attempt(Action action) {
    try {
        return action();
    } catch (const i4_err&) {
        return false;
    }
}

using i4_debug_hook = void (*)(const i4_string& text);
// The result is what the caller of i4_error or i4_warning gets; the default error handler throws i4_err.
using i4_error_handler = int (*)(const char* text);

// Each returns the handler that was in force. Null puts the default back.
i4_debug_hook i4_set_debug_hook(i4_debug_hook hook);
i4_error_handler i4_set_warning_handler(i4_error_handler handler);
i4_error_handler i4_set_error_handler(i4_error_handler handler);

// Stores the source file (the build's path without its extension) and line of this thread's last error. A
// null file changes nothing.
void i4_set_file_line(const char* file, int line);
// Null and 0 where this thread has stored nothing. The text stays valid until the thread stores another.
void i4_get_file_line(const char*& file, int& line);

// The second step of i4_error and i4_warning: formats at most 499 characters and calls the handler.
class i4_report {
  public:
    enum class Kind { error, warning };
    explicit i4_report(Kind kind) : kind_(kind) {}
    int operator()(const char* format, ...) const PRINTF_LIKE(2, 3);

  private:
    const Kind kind_;
};

// Two steps, so that every call names its own source position: i4_error()("read_8 error").
i4_report i4_error(const char* file = __builtin_FILE(), int line = __builtin_LINE());
i4_report i4_warning(const char* file = __builtin_FILE(), int line = __builtin_LINE());

// Formats into a string of any length and hands it to the debug hook.
void i4_debug(const char* format, ...) PRINTF_LIKE(1, 2);
// Formats straight onto i4_debug_stream; returns the characters written, 0 where no stream is set.
u32 i4_debug_printf(const char* format, ...) PRINTF_LIKE(1, 2);

// The process's terminal stream, from before main on.
extern i4_file* i4_debug_stream;

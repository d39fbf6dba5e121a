#include "index/EventLog.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "i4min/file/output.h"

void EventLog::always(const char* format, ...) {
    va_list list;
    va_start(list, format);
    tell(format, list);
    va_end(list);
}

void EventLog::info(const char* format, ...) {
    if (level_ < Level::info) return;
    va_list list;
    va_start(list, format);
    tell(format, list);
    va_end(list);
}

void EventLog::debug(const char* format, ...) {
    if (level_ < Level::debug) return;
    va_list list;
    va_start(list, format);
    tell(format, list);
    va_end(list);
}

void EventLog::tell(const char* format, va_list list) {
    char line[512];
    std::vsnprintf(line, sizeof line, format, list);
    for (char* c = line; *c; ++c) {
        if (static_cast<unsigned char>(*c) < ' ' || *c == 0x7F) *c = '?';
    }
    write(line);
}

void EventLog::write(const char* line) {
    i4_standard_output().write(STDOUT_FILENO, std::string(line) + "\n");
}

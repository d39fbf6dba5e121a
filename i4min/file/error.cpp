#include "i4min/memory/error.h"

#include <string>
#include <utility>

#include "i4min/file/file.h"

namespace {

i4_debug_file_class debugFile;

// What this thread's last error said about its place in the source.
struct SourcePosition {
    std::string file;
    int line = 0;
};
thread_local SourcePosition position;

void printDebug(const i4_string& text) { i4_debug_printf("%s", orEmpty(text)); }

int printWarning(const char* text) {
    const char* file = nullptr;
    int line = 0;
    i4_get_file_line(file, line);
    if (file) {
        i4_debug_printf("Warning (%s:%d) : %s\n", file, line, text);
    } else {
        i4_debug_printf("Warning %s\n", text);
    }
    return 0;
}

int throwError(const char* text) { throw i4_err(text); }

i4_debug_hook debugHook = printDebug;
i4_error_handler warningHandler = printWarning;
i4_error_handler errorHandler = throwError;

std::string withoutExtension(const char* file) {
    std::string path(file);
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.resize(dot);
    return path;
}

}  // namespace

constinit i4_file* i4_debug_stream = &debugFile;

i4_debug_hook i4_set_debug_hook(i4_debug_hook hook) {
    return std::exchange(debugHook, hook ? hook : printDebug);
}

i4_error_handler i4_set_warning_handler(i4_error_handler handler) {
    return std::exchange(warningHandler, handler ? handler : printWarning);
}

i4_error_handler i4_set_error_handler(i4_error_handler handler) {
    return std::exchange(errorHandler, handler ? handler : throwError);
}

void i4_set_file_line(const char* file, int line) {
    if (!file) return;
    position.file = file;
    position.line = line;
}

void i4_get_file_line(const char*& file, int& line) {
    file = position.file.empty() ? nullptr : position.file.c_str();
    line = position.line;
}

i4_report i4_error(const char* file, int line) {
    i4_set_file_line(withoutExtension(file).c_str(), line);
    return i4_report(i4_report::Kind::error);
}

i4_report i4_warning(const char* file, int line) {
    i4_set_file_line(withoutExtension(file).c_str(), line);
    return i4_report(i4_report::Kind::warning);
}

int i4_report::operator()(const char* format, ...) const {
    char text[500];
    va_list list;
    va_start(list, format);
    i4_vsnprintf(text, sizeof text, format, list);
    va_end(list);
    return kind_ == Kind::error ? errorHandler(text) : warningHandler(text);
}

void i4_debug(const char* format, ...) {
    i4_owned_ram_file out;
    va_list list;
    va_start(list, format);
    out.vprintf(format, list);
    va_end(list);
    out.write_8(0);
    debugHook(i4_string(reinterpret_cast<const char*>(out.buffer())));
}

namespace {

// Gathers a formatted text, so that it reaches the stream in one write and lines of different threads don't
// mix.
u32 printAtOnce(i4_file& stream, const char* format, va_list list) {
    i4_owned_ram_file out;
    out.vprintf(format, list);
    i4_replace_controls(reinterpret_cast<char*>(out.buffer()), out.size());
    if (out.size() > 0) stream.write({out.buffer(), out.size()});
    return out.size();
}

}  // namespace

u32 i4_debug_printf(const char* format, ...) {
    if (!i4_debug_stream) return 0;
    va_list list;
    va_start(list, format);
    const u32 written = printAtOnce(*i4_debug_stream, format, list);
    va_end(list);
    return written;
}

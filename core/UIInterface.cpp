#include "core/UIInterface.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "i4min/file/output.h"
#include "i4min/string/string.h"
#include "i4min/threads/Clock.h"

namespace {

constexpr u32 mostComplaints = 60;  // of one kind per minute

// Replaces control characters, since printed names and messages may come from strangers who want to control
// the terminal. Writes the whole text at once, so that lines of different threads don't mix.
void write(const char* format, va_list list, const char* end) {
    char* text = nullptr;
    const int length = ::vasprintf(&text, format, list);
    if (length < 0) return;
    const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
    i4_replace_controls(text, static_cast<std::size_t>(length));
    i4_standard_output().write(STDOUT_FILENO, std::string(text, static_cast<std::size_t>(length)) + end);
}

}  // namespace

UIInterface::~UIInterface() = default;

#define SAY(kind, format)    \
    va_list list;            \
    va_start(list, format);  \
    say(kind, format, list); \
    va_end(list)

void UIInterface::printLine(const char* format, ...) { SAY(Text::line, format); }
void UIInterface::print(const char* format, ...) { SAY(Text::plain, format); }
void UIInterface::printFlush(const char* format, ...) { SAY(Text::flush, format); }

void UIInterface::printVerbose(const char* format, ...) {
    if (!isVerbose()) return;
    SAY(Text::verbose, format);
}

#undef SAY

void UIInterface::tell(Tone tone, const char* text) {
    switch (tone) {
        case Tone::plain:
            return print("%s", text);
        case Tone::verbose:
            return printVerbose("%s", text);
        case Tone::damage:
            if (mayComplain(Complaint::brokenTag)) print("%s", text);
            return;
    }
}

void UIInterface::say(Text kind, const char* format, va_list list) {
    write(format, list, kind == Text::line ? "\n" : "");
}

// Concurrent calls at the start of a new minute may miscount by a few.
bool UIInterface::mayComplain(Complaint kind) {
    Budget& budget = budgets_[static_cast<std::size_t>(kind)];
    const u32 minute = clock_ ? clock_->ticks() / 60'000 : 0;
    if (budget.minute.exchange(minute) != minute) budget.spent = 0;
    return budget.spent < mostComplaints && budget.spent++ < mostComplaints;
}

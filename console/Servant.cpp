#include "console/Servant.h"

#include <unistd.h>

#include <cstring>

#include "core/UIInterface.h"
#include "i4min/file/output.h"

namespace {

constexpr std::size_t lineSize = 255;   // a line and its terminator
constexpr std::size_t answerSize = 82;  // an answer to confirm() and its terminator
constexpr std::size_t argumentSize = 256;
constexpr u32 roomWait = 200;  // ms between checks whether another thread has ended the client

}  // namespace

const char* Tokens::next() {
    rest_ += std::strspn(rest_, consoleSeparators);
    if (!*rest_) return nullptr;
    const char* token = rest_;
    rest_ += std::strcspn(rest_, consoleSeparators);
    if (*rest_) *rest_++ = 0;
    return token;
}

Tokens argumentsOf(char* line) {
    Tokens tokens(line);
    tokens.next();
    return tokens;
}

const char* restOfLine(const char* line) {
    char word[argumentSize];
    const i32 end = i4_strtok(line, consoleSeparators, 0, word, sizeof word);
    if (end < 1 || !line[end + 1]) return nullptr;
    return line + end + 1;
}

Servant::Servant() : prompt("> "), input_(STDIN_FILENO) { consoleThread_.bind(); }

void Servant::speakThrough(UIInterface& log, const StringTable& strings) {
    log_ = &log;
    strings_ = &strings;
}

void Servant::addCommand(const char* name, ServantCommand::Handler handler) {
    own(std::make_unique<ServantCommand>(ServantCommand{name, handler}));
}

void Servant::run() {
    consoleThread_.check();
    i4_output& output = i4_standard_output();
    output.write(STDOUT_FILENO, prompt.c_str());
    // Answers are never dropped, so the next line waits while too many are unread.
    while (running && !output.hasRoom(roomWait)) continue;
    char line[lineSize];
    if (input_.readLine(line, sizeof line)) {
        dispatch(line);
    } else {
        quit();
    }
}

void Servant::dispatch(const char* line) {
    i4_string whole(line);
    i4_string pieces(line);
    Tokens tokens(&pieces[0]);
    if (const char* word = tokens.next()) {
        for (Cursor c; ServantCommand* command = next(c);) {
            if (command->name == word) {
                command->handler(*this, &whole[0]);
                return;
            }
        }
    }
    unknownCommand(whole.c_str());
}

void Servant::unknownCommand(const char*) { log_->printLine("Unrecognized command. type ? for help\n"); }

bool Servant::confirm(const char* question) {
    if (!consoleThread_.isHere()) return true;
    log_->printLine("%s?(y or n): ", question);
    char answer[answerSize];
    if (!input_.readLine(answer, sizeof answer)) return false;
    return answer[0] == 'y' || answer[0] == 'Y';
}

void Servant::quit() {
    running = 0;
    input_.end();
}

void Servant::waitForQuit() { input_.waitForEnd(); }

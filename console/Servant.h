// Servant: a small command interpreter with named commands, a prompt and a read loop.
#pragma once

#include <string>
#include <vector>

#include "console/ConsoleInput.h"
#include "i4min/memory/LL.h"
#include "i4min/memory/relaxed.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/ThreadBound.h"

class Meta;
class MetaList;
class Servant;
class StringTable;
class UIInterface;

// Commas and quotes separate arguments just as blanks do; quoting is not supported.
inline constexpr char consoleSeparators[] = " ,\t\n\"";

// A command: its name and its handler.
// A plain value, constant after construction.
struct ServantCommand {
    // The line is the handler's own copy and includes the command word. The handler may change it.
    using Handler = void (*)(Servant& servant, char* line);

    i4_string name;  // compared exactly
    Handler handler;
};

// Splits a line into tokens at the console's separators. Keeps its own position, so that several threads can
// run commands.
// Thread: one. Borrows: the line, which it changes.
class Tokens {
  public:
    explicit Tokens(char* line) : rest_(line) {}
    const char* next();  // null at the end

  private:
    char* rest_;
};

// The tokens after the command word.
Tokens argumentsOf(char* line);

// Returns the rest of a command's line after the separator that ends the command word, exactly as typed; for
// names with blanks. Null if there is none.
const char* restOfLine(const char* line);

// Owns its commands; the list of them is constant after construction.
// Thread: run(), and what else waits for the user, on the console's thread, which is the one that made it;
// dispatch() and quit() on any, also at the same time.
class Servant : public OwnLL<ServantCommand> {
  public:
    Servant();
    // What it prints goes to `log`, and no command runs before this. Both outlive the commands.
    void speakThrough(UIInterface& log, const StringTable& strings);
    UIInterface& log() const { return *log_; }
    virtual void unknownCommand(const char* line);

    void addCommand(const char* name, ServantCommand::Handler handler);
    // Runs one turn: prompt, read, dispatch. The end of the input quits, as `q` does once confirmed.
    void run();
    // Runs one command line, which is not changed.
    void dispatch(const char* line);
    // Asks on the console. Returns true if the answer begins with y or Y. On any other thread it returns true
    // at once: the command came from a controller, whose user isn't at the console.
    bool confirm(const char* question);
    // Ends the loop: sets `running` to 0 and ends the wait for the next line.
    void quit();
    // Waits for quit() without reading input, for a process without a console.
    void waitForQuit();

    // Tables of records. The columns are the tags of the record that printHeader() was called with.
    using Keys = std::vector<std::string>;
    void printHeader(const Meta* record, Keys& keys);
    void printRow(const Meta* record, const Keys& keys, u32 index);
    void printList(MetaList* list);

    i4_string prompt;
    Relaxed<u8> running{1};

  private:
    UIInterface* log_ = nullptr;
    const StringTable* strings_ = nullptr;
    ConsoleInput input_;
    ThreadBound consoleThread_;
};

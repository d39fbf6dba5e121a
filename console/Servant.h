// Servant, a small command interpreter: named commands, a prompt, and one turn of reading and dispatching.
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

// A comma separates arguments just as a blank does, and a quote is no quoting: it is a separator.
inline constexpr char consoleSeparators[] = " ,\t\n\"";

struct ServantCommand {
    // The line is the handler's own copy, command word included; it may cut it up.
    using Handler = void (*)(Servant& servant, char* line);

    i4_string name;  // compared exactly
    Handler handler;
};

// Cuts a line into tokens at the console's separators. Keeps its state itself: commands run on several
// threads.
class Tokens {
  public:
    explicit Tokens(char* line) : rest_(line) {}
    const char* next();  // null when none is left

  private:
    char* rest_;
};

// The tokens behind the command word.
Tokens argumentsOf(char* line);

// The rest of a command's line behind the one separator that ends the command word, exactly as typed: for
// names that may hold blanks. Null where there is none.
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
    // One turn: prompt, line, dispatch. The end of the input ends the loop as a confirmed `q` does.
    void run();
    // Runs one command line. The line is not changed.
    void dispatch(const char* line);
    // Asks on the console; true if the answer begins with y or Y. On another thread than the console's it is
    // true at once: whoever sent the command from elsewhere meant it, and isn't at the console to answer.
    bool confirm(const char* question);
    // Ends the loop: `running` becomes 0, and a wait for the user's next line ends.
    void quit();
    // Waits for quit() without reading, for a process without a console.
    void waitForQuit();

    // Tables of records. The columns are the tags of the record that the header was printed from.
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

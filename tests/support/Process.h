// A program under test: runs in a directory, gets input through a pseudo-terminal or a pipe, and its output
// is read.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/files.h"

// Owns: its process, which the destructor kills. Thread: one.
class Process {
  public:
    enum class Input { terminal, pipe };

    // Starts `program` in `directory`. Input::terminal connects all three standard descriptors to a
    // pseudo-terminal without echo. Input::pipe connects standard input to a pipe, and output and error to
    // another one.
    Process(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& directory, Input input = Input::terminal);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    void type(const std::string& line);  // adds a newline
    void closeInput();
    // Waits until `text` appears after what was awaited before. Returns false after the time limit or at the
    // end of the output.
    bool waitFor(const std::string& text, std::chrono::milliseconds limit = patience);
    // Reads what is available and returns all output so far, with CR LF as LF.
    const std::string& output();
    // Waits for the process to end. Returns its exit status, the negative number of the signal that ended it,
    // or -1000 after the time limit.
    int wait(std::chrono::milliseconds limit = patience);
    void signal(int number);
    pid_t pid() const { return pid_; }

  private:
    bool readMore(std::chrono::milliseconds limit);

    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    bool terminal_;
    std::string output_;
    std::size_t awaited_ = 0;
};

// The path of a program in this test's build folder.
std::string programPath(const std::string& name);

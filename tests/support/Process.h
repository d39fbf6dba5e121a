// A program under test: started in a directory, typed to through a pseudo-terminal, its output awaited.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/files.h"

// Owns its process: the destructor kills it. Thread: one.
class Process {
  public:
    enum class Input { terminal, pipe };

    // Starts `program` in `directory`. With Input::terminal all three standard descriptors are a
    // pseudo-terminal without echo; with Input::pipe standard input is a pipe, and output and error go to
    // another one.
    Process(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& directory, Input input = Input::terminal);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    void type(const std::string& line);  // and a newline
    void closeInput();
    // Waits until `text` appears behind what was awaited before. False when the time ran out or the output
    // ended.
    bool waitFor(const std::string& text, std::chrono::milliseconds limit = patience);
    // Takes in what there is to read and returns all output so far, CR LF as LF.
    const std::string& output();
    // Waits for the end of the process. The exit status, minus the signal that ended it, or -1000 when time
    // ran out.
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

// The path of a program in the build folder in which this test was built.
std::string programPath(const std::string& name);

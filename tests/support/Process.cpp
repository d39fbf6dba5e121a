#include "tests/support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

void runProgram(const std::string& program, const std::vector<std::string>& arguments,
                const std::string& directory) {
    if (::chdir(directory.c_str()) != 0) ::_exit(126);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

struct Pipe {
    int read;
    int write;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    return {ends[0], ends[1]};
}

}  // namespace

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& directory, Input input)
    : terminal_(input == Input::terminal) {
    if (terminal_) {
        int master = -1;
        int slave = -1;
        termios settings{};
        ::cfmakeraw(&settings);
        settings.c_lflag |= ICANON;
        settings.c_cc[VEOF] = 4;
        settings.c_cflag |= CREAD;
        if (::openpty(&master, &slave, nullptr, &settings, nullptr) != 0) throw std::runtime_error("openpty");
        ::fcntl(master, F_SETFD, FD_CLOEXEC);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::login_tty(slave);
            runProgram(program, arguments, directory);
        }
        ::close(slave);
        in_ = out_ = master;
    } else {
        const Pipe toChild = makePipe();
        const Pipe fromChild = makePipe();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(toChild.read, STDIN_FILENO);
            ::dup2(fromChild.write, STDOUT_FILENO);
            ::dup2(fromChild.write, STDERR_FILENO);
            runProgram(program, arguments, directory);
        }
        ::close(toChild.read);
        ::close(fromChild.write);
        in_ = toChild.write;
        out_ = fromChild.read;
    }
}

Process::~Process() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    closeInput();
    if (out_ >= 0) ::close(out_);
}

void Process::type(const std::string& line) {
    const std::string bytes = line + "\n";
    if (::write(in_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("the program takes no input");
    }
}

void Process::closeInput() {
    if (terminal_) {
        constexpr char endOfInput = 4;
        if (pid_ > 0 && ::write(in_, &endOfInput, 1) != 1)
            throw std::runtime_error("the program takes no input");
    } else if (in_ >= 0) {
        ::close(in_);
        in_ = -1;
    }
}

bool Process::readMore(std::chrono::milliseconds limit) {
    pollfd ready{out_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(std::max<std::int64_t>(0, limit.count()))) <= 0) return false;
    char bytes[65536];
    const ssize_t got = ::read(out_, bytes, sizeof bytes);
    if (got <= 0) return false;
    for (const char* c = bytes; c < bytes + got; ++c) {
        if (*c != '\r') output_ += *c;
    }
    return true;
}

bool Process::waitFor(const std::string& text, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        const std::size_t at = output_.find(text, awaited_);
        if (at != std::string::npos) {
            awaited_ = at + text.size();
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !readMore(left)) return false;
    }
}

const std::string& Process::output() {
    while (readMore(std::chrono::milliseconds(0))) continue;
    return output_;
}

int Process::wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        readMore(std::chrono::milliseconds(10));
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            output();
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        if (Clock::now() > deadline) return -1000;
    }
}

void Process::signal(int number) { ::kill(pid_, number); }

std::string programPath(const std::string& name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

// A private network of real processes on loopback: an index server, and clients in their own directories.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"

// The time limit of a transfer, which sanitizers and a busy machine slow down.
inline constexpr std::chrono::seconds transferPatience{150};

// tarnwick-index on a port that the system chose. Owns: the process.
class IndexServerProcess {
  public:
    explicit IndexServerProcess(const std::vector<std::string>& options = {});
    // Counts how often `text` occurs in the server's output so far. said() waits until it occurs `count`
    // times.
    int count(const std::string& text);
    bool said(const std::string& text, int times = 1);
    int stop();  // stops it as its operator would; returns the exit status
    const std::string& port() const { return port_; }
    u_int portNumber() const { return static_cast<u_int>(std::stoul(port_)); }

  private:
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
    std::string port_;
};

// A client with its own directory, name and port. It can be started and killed repeatedly. Owns: the process.
class Client {
  public:
    Client(const std::string& name, const IndexServerProcess& index);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();  // fails the test if a sanitizer or the lock order check has complained

    void launch(const std::vector<std::string>& arguments);
    // Starts it and waits for the banner and the shared files.
    void start(const std::vector<std::string>& arguments = {});
    void kill();  // like a crash
    void quit();  // like a user
    void logOn();
    // Types a line and waits for `answer`, a text that only this line causes.
    bool type(const std::string& line, const std::string& answer);
    // Types a line and returns the output up to and including `last`.
    std::string view(const std::string& line, const std::string& last);
    // Shares `folder` and waits until the index server has listed its files.
    void share(const std::string& folder, IndexServerProcess& index);
    // The output of `vr` after a search.
    std::string search(const std::string& text);
    // Searches until exactly one file is found, and downloads it.
    void findAndDownload(const std::string& text);
    u_int transferredKB();  // of the first download
    // True if the file arrives in time with these bytes.
    bool hasFinished(const std::string& name, const std::string& bytes,
                     std::chrono::seconds limit = transferPatience);

    Process& console() { return *process_; }
    std::string file(const std::string& name) const { return home_.file(name); }
    const std::string& doorPort() const { return doorPort_; }

  private:
    void run(const std::vector<std::string>& arguments, Process::Input input);

    const std::string name_;
    const std::string serverPort_;
    const std::string doorPort_;
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
};

// A TCP port for a program that binds it with SO_REUSEADDR. This process stays bound to it without listening,
// so that the system assigns it to nobody else.
int freePort();

// A private network of real processes on loopback: an index server and clients in directories of their own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"

// The limit for a transfer, which a sanitizer and a busy machine make slow.
inline constexpr std::chrono::seconds transferPatience{150};

// tarnwick-index on a port that the system chose.
class IndexServerProcess {
  public:
    explicit IndexServerProcess(const std::vector<std::string>& options = {});
    // In how many places `text` stands of what the server has said from its start on; said() waits until it
    // is in so many.
    int count(const std::string& text);
    bool said(const std::string& text, int times = 1);
    int stop();  // as its operator does; the exit status
    const std::string& port() const { return port_; }
    u_int portNumber() const { return static_cast<u_int>(std::stoul(port_)); }

  private:
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
    std::string port_;
};

// One client, with a directory, a name and a door port of its own. It may be started and killed several
// times.
class Client {
  public:
    Client(const std::string& name, const IndexServerProcess& index);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();  // a complaint of a sanitizer or of the lock order fails the test

    void launch(const std::vector<std::string>& arguments);
    // Launches it and waits for the banner and the shared files.
    void start(const std::vector<std::string>& arguments = {});
    void kill();  // as a crash does
    void quit();  // as a user does
    void logOn();
    // Types a line and waits for `answer`, which must be something that only this line brings.
    bool type(const std::string& line, const std::string& answer);
    // The answer to a line, up to and with `last`.
    std::string view(const std::string& line, const std::string& last);
    // Shares what `folder` holds and waits until the index server has heard of it.
    void share(const std::string& folder, IndexServerProcess& index);
    // What `vr` shows after a search.
    std::string search(const std::string& text);
    // Searches until the text brings exactly one file, and downloads that.
    void findAndDownload(const std::string& text);
    u_int transferredKB();  // of the first download
    // The file arrives in time, with these bytes.
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
// so the system gives it to nobody who takes any port, be it for another door or for a call.
int freePort();

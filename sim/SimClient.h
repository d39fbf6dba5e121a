// SimClient: a complete client on a simulated machine.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/Engine.h"
#include "sim/SimHost.h"

// Records what the engine reports to its user: text and search results.
// Thread: the simulation's. Owns: the results.
class SimScreen : public CoreUIInterface {
  public:
    ~SimScreen() override;
    void say(Text kind, const char* format, va_list list) override;
    void setResults(FileList* list, u8 more) override;
    void connected(const char*) override { ++connects; }
    void downloadRemoved(Download* download) override;

    std::function<void(const std::string& line)> onLine;  // called with each line
    std::string text;
    void addResult(std::unique_ptr<FileMeta> file) override;

    std::vector<std::unique_ptr<FileMeta>> results;
    int added = 0;  // results that came one by one, from other servers
    std::function<void(const MD4Hash& hash, const std::string& path)> onFinished;
    std::vector<MD4Hash> finished;  // downloads that the engine reported as finished
    int connects = 0;
};

// An engine on a simulated host. Constructing it starts the client, destroying it shuts the client down.
// Thread: the simulation's. Owns: the host and the engine. Borrows: the machine and the disk.
class SimClient {
  public:
    static constexpr const char* home = "/home";  // working directory

    SimClient(Simulation& simulation, SimMachine& machine, SimDisk& disk);
    SimClient(const SimClient&) = delete;
    SimClient& operator=(const SimClient&) = delete;
    ~SimClient();

    // Actions of the user.
    void connect(u32 serverAddress, u16 port = 4661);
    void share(const std::string& directory);
    void search(const std::string& words, const char* type = nullptr);
    void extendSearch();  // extends the last search to the next server
    void download(const FileMeta& file);
    void limitUp(f32 kilobytes);

    // Sets a function to call after each turn of the engine.
    void afterTurn(std::function<void()> check) { host_.scheduler.afterTurn = std::move(check); }

    bool isOnline();
    Ref<Download> find(const MD4Hash& hash);
    bool hasFinished(const MD4Hash& hash) const;
    u32 address() const { return host_.machine.address(); }
    SimMachine& machine() { return host_.machine; }
    SimDisk& disk() { return host_.disk; }

    SimScreen screen;

  private:
    SimHost host_;

  public:
    Engine engine;
};

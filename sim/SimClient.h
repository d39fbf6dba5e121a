// SimClient, a whole client on a simulated machine.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/Engine.h"
#include "sim/SimHost.h"

// What the engine tells its user: the text, and the search results.
class SimScreen : public CoreUIInterface {
  public:
    ~SimScreen() override;
    void say(Text kind, const char* format, va_list list) override;
    void setResults(FileList* list, u8 more) override;
    void connected(const char*) override { ++connects; }
    void downloadRemoved(Download* download) override;

    std::function<void(const std::string& line)> onLine;  // each line, as it is said
    std::string text;
    void addResult(std::unique_ptr<FileMeta> file) override;

    std::vector<std::unique_ptr<FileMeta>> results;
    int added = 0;  // results that came one by one, from other servers
    std::function<void(const MD4Hash& hash, const std::string& path)> onFinished;
    std::vector<MD4Hash> finished;  // downloads that the engine calls whole
    int connects = 0;
};

// Started when it is made. Thread: the simulation's.
class SimClient {
  public:
    static constexpr const char* home = "/home";  // its working directory

    SimClient(Simulation& simulation, SimMachine& machine, SimDisk& disk);
    SimClient(const SimClient&) = delete;
    SimClient& operator=(const SimClient&) = delete;
    ~SimClient();

    // What the user does.
    void connect(u32 serverAddress, u16 port = 4661);
    void share(const std::string& directory);
    void search(const std::string& words, const char* type = nullptr);
    void extendSearch();  // the last one, to the next server
    void download(const FileMeta& file);
    void limitUp(f32 kilobytes);

    // Runs behind each turn of the engine.
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

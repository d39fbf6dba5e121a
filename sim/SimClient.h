// SimClient, a whole client on a simulated machine.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/Engine.h"
#include "sim/SimHost.h"

// What the engine tells its user: the text, and the search results.
class SimScreen final : public CoreUIInterface {
  public:
    ~SimScreen() override;
    void say(Text kind, const char* format, va_list list) override;
    void setResults(FileList* list, u8 more) override;
    void connected(const char*) override { ++connects; }
    void downloadRemoved(Download* download) override;

    std::string text;
    std::vector<std::unique_ptr<FileMeta>> results;
    std::vector<MD4Hash> ended;  // downloads that left the pool
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
    void search(const std::string& words);
    void download(const FileMeta& file);
    void limitUp(f32 kilobytes);

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

// Scene: a scripted simulation of several machines in virtual time.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/Picture.h"
#include "sim/SimClient.h"
#include "sim/SimIndex.h"
#include "sim/SimOpponent.h"

class Scene;

// Raised if a scene fails.
// The text has the seed and the end of the log.
struct SceneFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A machine with a client. The client can be killed and restarted; the disk stays.
// Thread: the simulation's. Owns: the client and the disk. Borrows: the scene and the machine.
class SceneClient {
  public:
    SceneClient(Scene& scene, std::string itsName, SimMachine& itsMachine);
    SceneClient(const SceneClient&) = delete;
    SceneClient& operator=(const SceneClient&) = delete;
    ~SceneClient();

    SimClient* operator->() const { return client_.get(); }
    bool runs() const { return client_ != nullptr; }
    bool isOn(SimIndex& index) const;  // is logged on there
    void leave();                      // shuts the client down in order
    void kill();                       // power failure
    void comeBack();                   // restarts and logs on again

    const std::string name;
    SimMachine& machine;
    SimDisk disk;
    f32 limitUp = 0;  // KB/s; 0 for none

  private:
    friend class Scene;
    void start();
    void check();
    void checkRate();

    Scene& scene_;
    std::unique_ptr<SimClient> client_;
    i64 rateSince_ = 0;
    u64 givenBefore_ = 0;
};

// The network, an index server, clients and opponents. Checks what must always hold after each turn of a
// client, and raises a SceneFailure if it doesn't.
// Thread: one. Owns: all machines, clients and files.
class Scene {
  public:
    explicit Scene(u64 seed);
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene();

    // Starts a client and logs it on. `limitUp` is in KB/s, 0 for none.
    SceneClient& arrive(const std::string& name, f32 limitUp = 0, const Link& link = {},
                        SimRouter* router = nullptr);
    // Starts `count` clients whose names are numbered from 1.
    std::vector<SceneClient*> arrive(int count, const std::string& name, f32 limitUp = 0,
                                     const Link& link = {});
    // Makes a file from the scene's seed and the file's name.
    const SimFileOffer& makeFile(const std::string& name, u64 bytes);
    // Puts the file on the client's disk and waits until the index server lists it.
    void share(SceneClient& client, const SimFileOffer& file);
    // Downloads the file, as a user would who found it in search results.
    void fetch(SceneClient& client, const SimFileOffer& file);
    // Starts an opponent of a kind in `opponentKinds`, which offers the file.
    SimOpponent& oppose(const std::string& kind, const SimFileOffer& file, const Link& link = {});

    // Runs until `holds` returns true. Fails if that takes longer than `seconds`.
    void until(const std::string& what, const std::function<bool()>& holds, double seconds = 60);
    void untilAllHave(const std::vector<SceneClient*>& clients, const SimFileOffer& file, double seconds);
    void run(double seconds) { world.runFor(static_cast<i64>(seconds * 1000)); }
    void require(bool holds, const std::string& what);
    // Writes a line to the log.
    void tell(const std::string& line);
    void tell(const SceneClient& client, const std::string& what);

    double now() const;  // seconds
    const std::string& log() const { return log_; }
    u64 given(const SceneClient& client) const { return given_.at(client.machine.address()); }  // bytes
    u64 taken(const SceneClient& client) const { return taken_.at(client.machine.address()); }  // bytes
    u64 seed() const { return seed_; }
    bool has(const SceneClient& client, const SimFileOffer& file) const;
    // The time in seconds when its download was reported as finished; below 0 if it wasn't.
    double finishedAt(const SceneClient& client, const SimFileOffer& file) const;

    Simulation world;
    SimNetwork network;
    // Adds an index server. The scene has to tell clients of it.
    SimIndex& addIndex();
    SimIndex& index() { return *indexes_[0]; }  // where clients log on
    Picture picture;

  private:
    friend class SceneClient;
    u32 nextAddress();
    void finished(SceneClient& client, const MD4Hash& hash, const std::string& path);

    std::vector<std::unique_ptr<SimIndex>> indexes_;
    std::map<std::string, SimFileOffer> files_;
    const u64 seed_;
    std::map<u32, u64> given_;
    std::map<u32, u64> taken_;
    std::map<std::pair<const SceneClient*, std::string>, double> finished_;
    std::vector<std::unique_ptr<SceneClient>> clients_;
    std::vector<std::unique_ptr<SimDisk>> opponentDisks_;
    std::vector<std::unique_ptr<SimHost>> opponentHosts_;
    std::vector<std::unique_ptr<SimOpponent>> opponents_;
    u32 machines_ = 0;
    std::string log_;
};

// Scene, a story of several machines in virtual time.
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

// Why a scene didn't go as it should; the text has the seed and the end of the log.
struct SceneFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A machine with a client, which may be killed and come back: its disk stays.
class SceneClient {
  public:
    SceneClient(Scene& scene, std::string itsName, SimMachine& itsMachine);
    SceneClient(const SceneClient&) = delete;
    SceneClient& operator=(const SceneClient&) = delete;
    ~SceneClient();

    SimClient* operator->() const { return client_.get(); }
    bool runs() const { return client_ != nullptr; }
    bool isOn(SimIndex& index) const;  // has logged on there
    void leave();                      // the client ends as its user would have it
    void kill();                       // the power goes
    void comeBack();                   // logs on again

    const std::string name;
    SimMachine& machine;
    SimDisk disk;
    f32 limitUp = 0;  // KB/s, 0 for none

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

// The network, an index server, and who comes. What has to be true at any time is checked behind each turn of
// a client; a scene that goes wrong raises a SceneFailure. Thread: one.
class Scene {
  public:
    explicit Scene(u64 seed);
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene();

    // A client comes and logs on. `limitUp` is in KB/s, 0 for none.
    SceneClient& arrive(const std::string& name, f32 limitUp = 0, const Link& link = {},
                        SimRouter* router = nullptr);
    // As many, their names numbered from 1.
    std::vector<SceneClient*> arrive(int count, const std::string& name, f32 limitUp = 0,
                                     const Link& link = {});
    // A file that the seed of the scene and its name make.
    const SimFileOffer& makeFile(const std::string& name, u64 bytes);
    // The client has the file, and the index server knows so.
    void share(SceneClient& client, const SimFileOffer& file);
    // As the user who has seen it among the results of a search.
    void fetch(SceneClient& client, const SimFileOffer& file);
    // One of `opponentKinds` comes and offers the file.
    SimOpponent& oppose(const std::string& kind, const SimFileOffer& file, const Link& link = {});

    // Goes on until that holds; a scene in which it doesn't within so many seconds fails.
    void until(const std::string& what, const std::function<bool()>& holds, double seconds = 60);
    void untilAllHave(const std::vector<SceneClient*>& clients, const SimFileOffer& file, double seconds);
    void run(double seconds) { world.runFor(static_cast<i64>(seconds * 1000)); }
    void require(bool holds, const std::string& what);
    // A line of the log.
    void tell(const std::string& line);
    void tell(const SceneClient& client, const std::string& what);

    double now() const;  // seconds
    const std::string& log() const { return log_; }
    u64 given(const SceneClient& client) const { return given_.at(client.machine.address()); }  // bytes
    bool has(const SceneClient& client, const SimFileOffer& file) const;
    // When a download of it was called finished, in seconds; below 0 for not at all.
    double finishedAt(const SceneClient& client, const SimFileOffer& file) const;

    Simulation world;
    SimNetwork network;
    // A further index server; clients are told of it by the scene.
    SimIndex& addIndex();
    SimIndex& index() { return *indexes_[0]; }  // that clients log on to
    Picture picture;

  private:
    friend class SceneClient;
    u32 nextAddress();
    void finished(SceneClient& client, const MD4Hash& hash, const std::string& path);

    std::vector<std::unique_ptr<SimIndex>> indexes_;
    std::map<std::string, SimFileOffer> files_;
    std::map<u32, u64> given_;
    std::map<std::pair<const SceneClient*, std::string>, double> finished_;
    std::vector<std::unique_ptr<SceneClient>> clients_;
    std::vector<std::unique_ptr<SimDisk>> opponentDisks_;
    std::vector<std::unique_ptr<SimHost>> opponentHosts_;
    std::vector<std::unique_ptr<SimOpponent>> opponents_;
    u32 machines_ = 0;
    std::string log_;
};

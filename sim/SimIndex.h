// SimIndex: an index server on a simulated machine.
#pragma once

#include "index/IndexServer.h"
#include "sim/SimHost.h"

// Runs the real index server and discards its log.
// Thread: the simulation's. Owns: its disk, host and server. Borrows: the machine.
class SimIndex {
  public:
    static constexpr u16 port = 4661;

    SimIndex(Simulation& simulation, SimMachine& machine, IndexIdentity identity = {},
             IndexLimits limits = {})
        : disk_(simulation),
          host_(simulation, machine, disk_),
          server(host_.host, std::move(identity), limits, log_) {
        server.listen(0, port);
        server.start();
    }
    u32 address() const { return host_.machine.address(); }
    SimMachine& machine() { return host_.machine; }

  private:
    struct Silence final : EventLog {
        Silence() : EventLog(Level::quiet) {}
        void write(const char*) override {}
    };
    SimDisk disk_;
    SimHost host_;
    Silence log_;

  public:
    IndexServer server;
};

// Endpoint: a socket without a fixed remote side: a listener or a UDP socket.
#pragma once

#include "transport/Connection.h"

// What listeners and UDP sockets share: joining the pool and the frame of a turn.
// Thread: as Connection, but turns don't hold lock_, since no packet is received.
class Endpoint : public Connection {
  public:
    // Runs one turn(). An i4_err ends that turn only and is reported in verbose mode.
    void doTask(SocketPool* pool) override;
    bool isReady() override;
    // The bound port, also if any free one was requested; 0 before, and while the system has assigned none.
    u32 localPort() const { return localPort_; }

  protected:
    Endpoint(SocketPool& pool, const char* name);  // `name` is a literal, for verbose mode
    // Takes the socket and joins the pool. The owner calls it once, after construction.
    void join(std::unique_ptr<i4_socket> made);
    // True if the events in `lastEvents_` need a turn.
    virtual bool takesTurn() = 0;
    virtual void turn() = 0;
    virtual void turnEnded();  // called even if turn() raised; by default nothing
    bool isWatched() const override { return false; }

  private:
    const char* const name_;
    Relaxed<u32> localPort_;
};

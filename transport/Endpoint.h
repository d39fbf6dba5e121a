// Endpoint, a socket of our own making that has no other side: one that listens, or one for datagrams.
#pragma once

#include "transport/Connection.h"

// What doors and datagrams share: the way into the pool, and the frame around a turn.
// Thread: as Connection, except that no turn holds its lock: nothing is received into a packet.
class Endpoint : public Connection {
  public:
    // One turn(). What it raises costs the rest of that turn only, and is told in verbose mode.
    void doTask(SocketPool* pool) override;
    bool isReady() override;
    // The one that was opened, also where any was asked for; 0 before, and while the system has given none.
    u32 localPort() const { return localPort_; }

  protected:
    Endpoint(SocketPool& pool, const char* name);  // the name, for verbose mode, is a literal
    // Takes the socket and joins the pool. Once, by the owner of the finished object.
    void join(std::unique_ptr<i4_socket> made);
    // Whether what the poll reported, in `lastEvents_`, is for a turn.
    virtual bool takesTurn() = 0;
    virtual void turn() = 0;
    virtual void turnEnded();  // by a raise as well; nothing by default
    bool isWatched() const override { return false; }

  private:
    const char* const name_;
    Relaxed<u32> localPort_;
};

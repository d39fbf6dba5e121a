// SimOpponent: a machine that speaks the client protocol by a script, honest or hostile.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "i4min/threads/linux/Thread.h"
#include "index/FrameReader.h"
#include "protocol/PeerProtocol.h"
#include "sim/SimHost.h"

// A file as it is published. The hashes match its content.
// A plain value.
struct SimFileOffer {
    std::string name;
    Synthetic content;
    MD4Hash hash;
    std::vector<MD4Hash> parts;
};

// One connection of an opponent.
// Thread: the simulation's. Owns: its socket. A SimOpponent owns it.
class SimTalk {
  public:
    enum class Kind { fromClient, toClient, toIndex };
    SimTalk(std::unique_ptr<i4_socket> socket, Kind kind) : kind_(kind), socket_(std::move(socket)) {}

    void say(u8 opcode, const Bytes& body = {});
    void sendRaw(const Bytes& bytes) { toSend_.insert(toSend_.end(), bytes.begin(), bytes.end()); }
    void hangUp() { ended_ = true; }
    bool hasToSend() const { return !toSend_.empty(); }

  private:
    friend class SimOpponent;
    bool flush();
    bool receive();

    const Kind kind_;
    std::unique_ptr<i4_socket> socket_;
    FrameReader frames_;
    Bytes toSend_;
    std::vector<std::pair<u32, u32>> asked_;        // ranges of the last request that are still to be sent
    std::array<std::pair<u32, u32>, 3> sent_ = {};  // the newest first
    u32 watched_ = 0;                               // what the set is asked about
    bool isUp_ = false;                             // the connection stands
    bool ended_ = false;
};

// Offers a file and answers everyone who wants it. This base class is honest, grants each peer a slot at once
// and has the whole file. Hostile ones override an answer; they are in sim/opponents.cpp.
// Thread: the simulation's. Owns: its sockets. Borrows: its host, which outlives it.
class SimOpponent : public Thread {
  public:
    static constexpr u16 port = 4662;

    SimOpponent(SimHost& host, SimFileOffer offer);
    ~SimOpponent() override;

    // Logs on to an index server and publishes the file.
    void logOn(u32 serverAddress, u16 serverPort = 4661);
    // Connects to a client and sends a hello.
    void visit(u32 address, u16 clientPort = port);
    u32 address() const { return host_.machine.address(); }

    Rest run() override;
    i4_socket_set* restingSet() const override { return set_.get(); }

  protected:
    // Called when a client has connected to it, or it has connected to a client.
    virtual void opened(SimTalk& talk);
    virtual void sayHello(SimTalk& talk);  // to a client that it visits
    virtual void gotHello(SimTalk& talk);
    virtual void askedStatus(SimTalk& talk);
    virtual void askedHashSet(SimTalk& talk);
    virtual void askedSlot(SimTalk& talk);
    virtual void askedRange(SimTalk& talk, u32 start, u32 end);
    virtual void heard(SimTalk& talk, u8 opcode);  // called for any other message
    virtual void eachSecond(SimTalk& talk);

    void sendHashSet(SimTalk& talk, const std::vector<MD4Hash>& parts);
    // Sends the file's bytes in [start, end), or the given bytes in one packet with that range.
    void sendData(SimTalk& talk, u32 start, u32 end);
    void sendData(SimTalk& talk, u32 start, u32 end, const Bytes& bytes);
    Bytes aboutFile() const;  // the file's hash, as a body
    Bytes bytesOf(u32 start, u32 end) const;
    Bytes garbage(std::size_t count);

    SimHost& host_;
    const SimFileOffer offer_;

  private:
    void call(u32 toAddress, u16 toPort, SimTalk::Kind kind);
    void watch(SimTalk& talk);
    void serve(SimTalk& talk);
    void sayFirst(SimTalk& talk);
    void handle(SimTalk& talk, u8 opcode, ByteReader body);
    Bytes identity() const;

    const std::unique_ptr<i4_socket_set> set_;
    const std::unique_ptr<i4_socket> door_;
    std::vector<std::unique_ptr<SimTalk>> talks_;
    i64 nextSecond_ = 0;
};

// A kind of hostile opponent; each class is described in sim/opponents.cpp.
// Constant.
struct SimOpponentKind {
    const char* name;
    std::unique_ptr<SimOpponent> (*make)(SimHost& host, const SimFileOffer& offer);
};
extern const SimOpponentKind opponentKinds[];
extern const std::size_t opponentKindCount;

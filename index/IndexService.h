// IndexService, what an index server does: logs clients on, takes in their files, answers. No sockets.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "index/EventLog.h"
#include "index/FileIndex.h"
#include "index/IndexLimits.h"
#include "index/IndexSession.h"
#include "protocol/ServerProtocol.h"

struct IndexIdentity {
    std::string name = "tarnwick-index";
    std::string description;
    std::string message;
    std::vector<NetAddress> peerServers;  // at most 255
    u32 maxClients = 2000;
};

// What the service wants of the network.
class IndexNetwork {
  public:
    virtual ~IndexNetwork() = default;
    // Calls the client's door and then tells doorTested(), never within this call.
    virtual void testDoor(const IndexSession& session) = 0;
    virtual void sendDatagram(const NetAddress& to, ByteSpan bytes) = 0;
};

// Thread: one. Owns: the sessions and the index. Borrows: network and log. All times are milliseconds of a
// clock that doesn't go back, and come from the caller.
//
// Order of a client's life: opened, packet (log-on), doorTested, packet..., closed. Each packet gets its
// answers appended to the session's output, at once or by step().
class IndexService {
  public:
    // `seed` is one that strangers can't guess.
    IndexService(IndexIdentity identity, IndexLimits limits, IndexNetwork& network, EventLog& log, u64 seed);

    // Null where the server is full; `refusal` then holds a packet for the caller to send.
    IndexSession* opened(const NetAddress& address, const NetAddress& own, u64 now, Bytes& refusal);
    void closed(IndexSession& session);
    // A whole body, opcode first. Whoever sends what can't be read is put into the phase `closing`.
    void packet(IndexSession& session, Bytes body, u64 now);
    void doorTested(ClientNumber number, bool reachable);
    // A whole datagram, marker first.
    void datagram(const NetAddress& from, ByteSpan bytes, u64 now);

    // Does one slice of what is under way, some milliseconds of work. The sessions it touched are in
    // touched(). False if nothing could be done now.
    bool step(u64 now);
    // Statuses, and clients that log on or take their answers too slowly. Once a second or so.
    void tick(u64 now);
    // When step() will have something to do: 0 for now, ~0 for not before something arrives.
    u64 nextStep() const;

    // Sessions whose output or phase has changed since the last call.
    std::vector<IndexSession*> takeTouched();
    bool hasTouched() const { return !touched_.empty(); }
    IndexSession* find(ClientNumber number);
    u32 users() const { return online_; }
    const FileIndex& index() const { return index_; }
    const IndexLimits& limits() const { return limits_; }

  private:
    struct DatagramSearch {
        NetAddress to;
        std::unique_ptr<SearchRun> run;
        u32 sent = 0;
        u64 notBefore = 0;
    };

    void logOn(IndexSession& session, ByteReader& in);
    void request(IndexSession& session, u8 opcode, Bytes body, u64 now);
    void startSearch(IndexSession& session, ByteSpan tree, u64 now);
    void startJob(IndexSession& session, std::unique_ptr<IndexJob> job);
    void sendServerList(IndexSession& session);
    void sendSources(IndexSession& session, const MD4Hash& hash);
    void callback(IndexSession& session, u32 id);
    void sendStatus(IndexSession& session);
    void sendIdentity(IndexSession& session);
    // A u8 count and the sources, for a client of that number and ID.
    void writeSources(Bytes& out, const MD4Hash& hash, ClientNumber asker, bool lowAsker) const;
    IndexSession* findLowId(u32 id);
    u32 newLowId();

    // True once the job is done.
    bool stepPublish(IndexSession& session, IndexJob& job);
    bool stepSearch(IndexSession& session, IndexJob& job);
    void stepDatagramSearch(DatagramSearch& search, u64 now);
    // Whether so many datagrams of that address are taken; counts this one.
    bool admits(const NetAddress& from, bool search, u64 now);
    void startDatagramSearch(const NetAddress& to, ByteSpan tree, u64 now);

    // Begins a packet in the session's output; finish() sets its length, or drops the session that reads too
    // slowly.
    ByteWriter begin(IndexSession& session, u8 opcode);
    void finish(IndexSession& session);
    void drop(IndexSession& session, const char* why);
    void touch(IndexSession& session);

    const IndexIdentity identity_;
    const IndexLimits limits_;
    IndexNetwork& network_;
    EventLog& log_;

    FileIndex index_;
    std::unordered_map<ClientNumber, std::unique_ptr<IndexSession>> sessions_;
    ClientNumber lastNumber_ = 0;
    std::map<u32, ClientNumber> lowIds_;
    u32 lastLowId_ = 0;
    u32 online_ = 0;
    u32 sourcesTurn_ = 0;

    std::deque<ClientNumber> jobs_;  // sessions with a job, next one first
    std::deque<DatagramSearch> datagramSearches_;
    struct Sender {
        RateLimit searches;
        RateLimit others;
    };
    std::unordered_map<u32, Sender> senders_;  // of datagrams, by address
    std::vector<ClientNumber> touched_;
    std::size_t packetStart_ = 0;

    u64 statusAt_ = 0;  // ms, when statuses were last sent to all
    u32 toldUsers_ = 0;
    u32 toldFiles_ = 0;
};

// Peer: a TCP connection to another client, incoming or outgoing.
#pragma once

#include <memory>
#include <optional>

#include "i4min/memory/LLsafe.h"
#include "i4min/memory/relaxed.h"
#include "meta/BoolArray.h"
#include "meta/MD4Hash.h"
#include "meta/UserMeta.h"
#include "peer/PeerNeeds.h"
#include "transport/Connection.h"

// Each message is handed to the PeerListener; a Peer itself answers what is asked of our files, and remembers
// who is on the other side. peer/Peer.cpp has the table of the messages.
// Thread: handlers on the socket pool's; the sending operations on any.
class Peer : public Connection {
  public:
    // An outgoing connection, and an accepted one.
    Peer(SocketPool& pool, const PeerNeeds& needs, u32 toId, u16 toPort);
    Peer(SocketPool& pool, const PeerNeeds& needs, std::unique_ptr<i4_socket> accepted);
    ~Peer() override;

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override;
    Ref<Connection> spawn(std::unique_ptr<i4_socket> accepted) override;
    void connected() override;  // hello, and joins `peers`
    void connectFailed() override;
    i4_string getText() override { return userName(); }

    // Requests; each queues one packet.
    void requestParts(const MD4Hash& file, const u32 (&starts)[3], const u32 (&ends)[3]);
    void noSuchFile(const MD4Hash& file);
    void stopUpload(const MD4Hash& file);
    void askSharedFiles();
    void sendIdentity();
    bool sendMessage(const char* text);  // sends nothing and returns false if the text exceeds 65,534 bytes
    // Sends nothing and returns false for a file of at most one part: a source of it has it all.
    bool askFileStatus(const MD4Hash& file, u32 fileSize);
    void askHashSet(const MD4Hash& file);
    void requestSlot();
    void grantSlot();
    void releaseSlot();
    void endSlot();
    void askFileName(const MD4Hash& file);

    // The other side has said hello or, where we called, answered ours. Thread: any.
    bool isKnown() const { return isKnown_ != 0; }
    // We called it, and it answered: it is where it says. Thread: any.
    bool hasAnswered() const { return isKnown() && calledByUs_; }
    // Who is on the other side, as the hello told. Thread: any.
    void copyUser(UserMeta& out) const EXCLUDES(userLock_);
    bool sameUser(const UserMeta& user) const EXCLUDES(userLock_);
    i4_string userName() const EXCLUDES(userLock_);
    MD4Hash userHash() const EXCLUDES(userLock_);

    // The time of the last activity, in microseconds of the clock.
    Relaxed<i64> aliveAt;
    void showLife();
    i64 idleMs() const;

  protected:
    void gone() override;
    u32 bodyLimit() const override;
    u32 queueLimit() const override;
    bool awaitsFirst() const override;  // true until the other side has identified itself
    const OpcodeTable* opcodes() const override;

  private:
    void joinPeers();
    bool readUser(i4_file& stream);
    void introduce(PeerListener::Met how);
    void setIdentity(u32 id);
    struct Table;  // maps each opcode to its handler
    void gotOutOfDate();
    void gotHashSet(i4_file& stream);
    bool gotHello(i4_file& stream);
    bool gotHelloAnswer(i4_file& stream);
    bool gotNewIdentity(i4_file& stream);
    bool gotSharedFiles(i4_file& stream);
    bool gotChatMessage(i4_file& stream);
    bool gotChatRefused();
    bool gotFileStatus(i4_file& stream);
    bool tellSharedFiles();
    bool tellFileStatus(const MD4Hash& hash);
    bool tellHashSet(const MD4Hash& hash);
    bool tellFileName(const MD4Hash& hash);

    void writeIdentity(i4_file& stream);

    const PeerNeeds& needs_;
    bool calledByUs_ = false;                  // set before the pool has the connection
    bool hasIdentity_ = false;                 // of the pool's thread: a record was read
    Relaxed<u8> isKnown_;                      // written on the pool's thread
    std::optional<CountedStranger> stranger_;  // of the pool's thread; while one that came in isn't known
    // The bytes of a list of our files that is still to be sent, 0 where there is none.
    const std::shared_ptr<Relaxed<u32>> listBytes_ = std::make_shared<Relaxed<u32>>();
    mutable i4_mutex userLock_{LockRank::leaf};
    UserMeta user_ GUARDED_BY(userLock_);
};

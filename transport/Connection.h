// Connection: a TCP connection: a socket, the packet being received, and the queue of packets to send.
#pragma once

#include <atomic>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/LLsafe.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "transport/Packet.h"
#include "transport/Task.h"

class OpcodeTable;
class SocketPool;
class i4_socket;
struct Transport;

// The base of connections to servers, peers and controllers. A subclass handles the messages.
//
//   state           entered by                                        left by
//   made            a constructor                                     ConnectTask: connected or connectFailed
//   in the pool     SocketPool::addConnection                         SocketPool::removeConnection
//   dead            end(), which the pool, a failed connect and       the last reference
//                   the shut-down call
//
// Thread: turns, handlers and gone() run on the pool's thread; gone() of a connection that was never
// established runs on the worker's. connected() and connectFailed() run on a worker, before the pool gets the
// connection. Any thread that holds a reference may call send(), close() and isDead() and read the atomic
// members. lock_ is held during a turn, and so in every handler and in sent().
// References: the pool holds one while it has the connection; so must anyone who keeps a pointer off the
// pool's thread. A dead connection ignores send() and close().
// Owns: its socket until end(), and its queue. Borrows: its pool, which outlives it.
class Connection : public Task, public RefCounter {
  public:
    // An accepted connection. A null socket can be set later.
    Connection(SocketPool& pool, std::unique_ptr<i4_socket> socket);
    // An outgoing one, for ConnectRegistry::connect. The ip is in network order, the port in host order.
    Connection(SocketPool& pool, u32 peerIp, u32 peerPort);

    // One turn: sends from the head of the queue and receives, as far as the socket and the budgets allow. It
    // completes at most one packet in each direction.
    void doTask(SocketPool* pool) override;
    // Handles a complete message. The stream is positioned after the opcode and ends with the body. Returning
    // false ends the connection, and so does an i4_err, for example from reading past the end.
    virtual bool handleMessage(u8 opcode, i4_ram_file_class& stream);
    // The same for the first message: sets gotFirst and calls handleMessage.
    virtual bool firstMessage(u8 opcode, i4_ram_file_class& stream);
    virtual Ref<Connection> spawn(std::unique_ptr<i4_socket> socket);  // empty
    ~Connection() override;
    // Removes the socket from the pool's set and ends the connection. Thread: the pool's.
    virtual void cleanup();
    virtual bool canAccept();  // used by listeners
    virtual bool isAllowed();
    virtual void connected();  // the TCP connection is established
    // The connect failed. An override must call this one last; it ends the connection.
    virtual void connectFailed();
    // Called after each poll. If it returns true, doTask() must follow.
    virtual bool isReady();
    virtual void addToSet();
    virtual i4_string getText();  // the address in dotted form

    // Queues a packet; a dead connection destroys it. Thread: any.
    void send(std::unique_ptr<Packet> packet) EXCLUDES(sendQueue_);
    // Requests the end; the connection ends in the pool's next turn. Thread: any.
    void close();
    // Ends the connection: calls gone(), closes the socket and empties the queue. Later calls do nothing.
    void end() EXCLUDES(lock_, sendQueue_);
    bool isClosing() const { return closing_; }  // close() was called
    bool isDead() const { return dead_.load(std::memory_order_acquire); }

    // Sets the socket of an outgoing connection once it is established.
    void setSocket(std::unique_ptr<i4_socket> socket);
    // The remote address in dotted form; `out` is unchanged if there never was a socket.
    void getAddress(i4_string& out) const;
    u32 remoteIp() const { return remoteIp_; }  // the same as a number; 0 if there never was a socket
    // Sets the ip that the other side has reported. Thread: the pool's.
    void setIp(u32 newIp) EXCLUDES(textLock_);
    SocketPool& pool() const { return pool_; }
    const Transport& transport() const;  // of its pool
    // True if packets are queued. Thread: any.
    bool hasToSend() const { return queuedPackets_ != 0; }

    Relaxed<u8> gotFirst;  // the first message has been handled
    Relaxed<u32> ip;       // the peer's
    Relaxed<u32> port;
    Relaxed<u32> bytesSent;  // the pools read and reset these two
    Relaxed<u32> bytesReceived;

  protected:
    // Called once when the connection ends: after it left the pool, after its connect failed, or at shutdown.
    // Not called if ConnectRegistry refused it. Objects that borrow this connection are notified here.
    virtual void gone();
    // The maximum body size received. By default 64 KiB for the first message and 8 MiB after it.
    virtual u32 bodyLimit() const;
    // The connection ends if more than this many bytes are queued. By default 16 MiB.
    virtual u32 queueLimit() const;
    // How many milliseconds something half done may stand still before the connection ends: a packet of
    // which the rest doesn't come, and a queue that the other side doesn't take. Also, how long
    // awaitsFirst() may hold, whatever moves meanwhile. By default 120,000; 0 for no limit.
    virtual u32 stallLimit() const;
    // Whether the word by which the other side makes itself known is still to come: by default until the
    // first message of a connection that came in.
    virtual bool awaitsFirst() const;
    // The events to poll for: reading and errors, and writing while there is something to send.
    virtual u32 wantedEvents();
    // The protocol's opcode table: receiving checks against it, sending asserts by it. By default null.
    virtual const OpcodeTable* opcodes() const;

    i4_socket* socket() const { return socket_.get(); }
    bool isBusy() const { return busy_.load(std::memory_order_acquire); }
    void setBusy(bool busy) { busy_.store(busy, std::memory_order_release); }
    // The packet at the head of the queue, or null, and its removal. Only called in turns.
    Packet* firstToSend() const { return sendQueue_.first(); }
    std::unique_ptr<Packet> takeFirstToSend() EXCLUDES(sendQueue_);
    // The budgets of a turn. By default the pool's.
    virtual const Budgets& budgets() const;
    // Adds to bytesSent or bytesReceived. Called in turns.
    void countMoved(Relaxed<u32>& counter, u32 bytes);
    // Closes the connection if it has stalled. Called on the pool's thread between turns, about once a second
    // while isWatched() returns true.
    virtual void checkStall(u32 now);
    virtual bool isWatched() const { return stallLimit() != 0; }
    u32 lastEvents_ = 0;  // event mask of the last isReady()

  private:
    friend class SocketPool;

    void checkPoolThread(const char* function = __builtin_FUNCTION()) const;
    // Updates the set before each poll. Thread: the pool's.
    void refreshInterest();
    bool receivesHalf() EXCLUDES(lock_);
    bool sendTurn() REQUIRES(lock_);
    bool receiveTurn() REQUIRES(lock_);
    bool dispatch() REQUIRES(lock_);

    i4_mutex lock_{LockRank::connection};
    std::unique_ptr<i4_socket> socket_;
    SocketPool& pool_;
    Packet incoming_ GUARDED_BY(lock_);
    LLsafe<Packet> sendQueue_{LockRank::sendQueue};
    Relaxed<u32> queuedPackets_;  // changed together with queuedBytes_ under sendQueue_'s lock
    Relaxed<u32> queuedBytes_;
    std::atomic<bool> busy_{
        false};  // from isReady() until the end of doTask; stays set once removal was asked for
    std::atomic<bool> dead_{false};
    Relaxed<u8> closing_;
    mutable i4_mutex textLock_{LockRank::leaf};
    i4_string addressText_ GUARDED_BY(textLock_);
    u32 remoteIp_ = 0;
    const bool cameIn_;

    // Used by the pool's thread only.
    bool inSet_ = false;
    u32 asked_ = 0;         // what the set is asked about at present
    u32 lastMoved_ = 0;     // ticks at which it last moved, or had nothing to move; 0 for not yet
    u32 awaitedSince_ = 0;  // ticks since when awaitsFirst() has held; 0 for not looked yet
    bool moved_ = false;    // a byte, since checkStall() last looked; turns set it
};

// Connection, one TCP conversation: a socket, a packet being received, and a queue of packets being sent.
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

// A conversation with a server, a peer or a controller. A subclass handles its messages.
//
//   state           entered by                                        left by
//   made            a constructor                                     ConnectTask: connected or connectFailed
//   in the pool     SocketPool::addConnection                         SocketPool::removeConnection
//   dead            end(), which the pool, a failed connect and       the last reference
//                   the shut-down call
//
// Thread: turns, handlers and gone() run on the pool's thread (gone() of a connection that never stood:
// on the worker's). connected() and connectFailed() run on a worker, before the pool has the connection.
// send(), close(), isDead() and the relaxed words may be used on any thread that holds a reference. lock_
// is held for a whole turn, and so by every handler and sent().
// Counted: the pool holds one reference while it has the connection; whoever keeps a pointer off the
// pool's thread holds one too. A dead connection ignores send() and close().
// Owns: its socket, until end(), and the packets of its queue.    Borrows: its pool, which outlives it.
class Connection : public Task, public RefCounter {
  public:
    // One that came in through a door. A null socket is given later.
    Connection(SocketPool& pool, std::unique_ptr<i4_socket> socket);
    // An outgoing one, for ConnectRegistry::connect. The ip in network order, the port in host order.
    Connection(SocketPool& pool, u32 peerIp, u32 peerPort);

    // One turn: the head of the queue is sent on, and the packet that comes in is received on, as far as
    // socket and budgets allow; at most one packet is finished in each direction.
    void doTask(SocketPool* pool) override;
    // A complete message, the stream behind its opcode and ending with its body. False drops the
    // connection, and so does an i4_err, such as of a read past the body's end.
    virtual bool handleMessage(u8 opcode, i4_ram_file_class& stream);
    // The same for the first message of a connection: sets gotFirst and calls handleMessage.
    virtual bool firstMessage(u8 opcode, i4_ram_file_class& stream);
    virtual Connection* spawn(std::unique_ptr<i4_socket> socket);  // null
    ~Connection() override;
    // Takes the socket out of the pool's set and ends the connection. On the pool's thread.
    virtual void cleanup();
    virtual bool canAccept();  // asked of doors
    virtual bool isAllowed();
    virtual void connected();  // the TCP connection stands
    // It couldn't be made. An override ends with a call of this one, which ends the connection.
    virtual void connectFailed();
    // Asked after each poll: true if doTask should run, which is then promised.
    virtual bool isReady();
    virtual void addToSet();
    virtual i4_string getText();  // the address as dotted text

    // Queues a packet. Thread: any. A dead connection destroys it.
    void send(std::unique_ptr<Packet> packet) EXCLUDES(sendQueue_);
    // Asks for the end, which comes with the next turn of the pool. Thread: any.
    void close();
    // Ends the connection's life, the first time that it is called: gone(), then the socket is closed and
    // the queue emptied.
    void end() EXCLUDES(lock_, sendQueue_);
    bool isClosing() const { return closing_; }  // close() was called
    bool isDead() const { return dead_.load(std::memory_order_acquire); }

    // Gives an outgoing connection what its connect made.
    void setSocket(std::unique_ptr<i4_socket> socket);
    // The address of the socket's other side as dotted text; untouched where there never was a socket.
    void getAddress(i4_string& out) const;
    u32 remoteIp() const { return remoteIp_; }  // the same as a number; 0 where there never was a socket
    // Takes another ip, as the other side told it. Thread: the pool's.
    void setIp(u32 newIp) EXCLUDES(textLock_);
    SocketPool& pool() const { return pool_; }
    const Transport& transport() const;  // of its pool
    // Whether packets wait to be sent. Thread: any.
    bool hasToSend() const { return queuedPackets_ != 0; }

    Relaxed<u8> gotFirst;  // a first message has been handled
    Relaxed<u32> ip;       // the peer's
    Relaxed<u32> port;
    Relaxed<u32> bytesSent;  // the pools read and reset these two
    Relaxed<u32> bytesReceived;

  protected:
    // Runs once, when the connection's life ends: after it left the pool, when its connect failed, or at
    // shut-down. It doesn't run for a connection that ConnectRegistry refused. Whoever borrows this
    // connection is told here.
    virtual void gone();
    // The longest body that is received: by default 64 KiB for the first message, 8 MiB behind it.
    virtual u32 bodyLimit() const;
    // The connection ends when a packet is queued behind this many bytes. By default 16 MiB.
    virtual u32 queueLimit() const;
    // How many milliseconds something half done may stand still before the connection ends: a packet of
    // which the rest doesn't come, and a queue that the other side doesn't take. Also, how long
    // awaitsFirst() may hold, whatever moves meanwhile. By default 120,000; 0 for no limit.
    virtual u32 stallLimit() const;
    // Whether the word by which the other side makes itself known is still to come: by default until the
    // first message of a connection that came in.
    virtual bool awaitsFirst() const;
    // What the pool's set shall be asked about: reading and errors, and writing while there is something
    // to send.
    virtual u32 wantedEvents();
    // The protocol's table, if it has one: receiving checks by it, sending asserts by it. Null by
    // default.
    virtual const OpcodeTable* opcodes() const;

    i4_socket* socket() const { return socket_.get(); }
    bool isBusy() const { return busy_.load(std::memory_order_acquire); }
    void setBusy(bool busy) { busy_.store(busy, std::memory_order_release); }
    // The packet at the head of the queue, null where there is none; and taking it off. Only turns do
    // either.
    Packet* firstToSend() const { return sendQueue_.first(); }
    std::unique_ptr<Packet> takeFirstToSend() EXCLUDES(sendQueue_);
    // What a turn may move: the pool's by default.
    virtual const Budgets& budgets() const;
    // In a turn: adds to bytesSent or bytesReceived.
    void countMoved(Relaxed<u32>& counter, u32 bytes);
    // On the pool's thread, between turns, about once a second while isWatched(): asks for the end of one
    // that stands still.
    virtual void checkStall(u32 now);
    virtual bool isWatched() const { return stallLimit() != 0; }
    u32 lastEvents_ = 0;  // the mask of the last isReady()

  private:
    friend class SocketPool;

    void checkPoolThread(const char* function = __builtin_FUNCTION()) const;
    // On the pool's thread, before each poll: brings the set up to date.
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
    Relaxed<u32> queuedPackets_;  // these two change with sendQueue_ locked
    Relaxed<u32> queuedBytes_;
    std::atomic<bool> busy_{
        false};  // from isReady() until the end of doTask; stays set once removal was asked for
    std::atomic<bool> dead_{false};
    Relaxed<u8> closing_;
    mutable i4_mutex textLock_{LockRank::leaf};
    i4_string addressText_ GUARDED_BY(textLock_);
    u32 remoteIp_ = 0;
    const bool cameIn_;

    // Of the pool's thread.
    bool inSet_ = false;
    u32 asked_ = 0;         // what the set is asked about at present
    u32 lastMoved_ = 0;     // ticks at which it last moved, or had nothing to move; 0 for not yet
    u32 awaitedSince_ = 0;  // ticks since when awaitsFirst() has held; 0 for not looked yet
    bool moved_ = false;    // a byte, since checkStall() last looked; turns set it
};

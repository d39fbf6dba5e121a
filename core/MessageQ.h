// MessageQ: the thread that serialises changes of the application's state.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <variant>

#include "host/Host.h"
#include "i4min/memory/mutex.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"

class Download;
class FileMeta;
class Peer;
class Search;
class UIInterface;
class UserMeta;

// The address of an index server: ip and TCP port.
// A plain value.
struct ServerAddress {
    u32 ip;  // network order
    u16 port;

    bool operator==(const ServerAddress&) const = default;
};

// A message's argument. It owns its content or holds a reference to it, so nothing in the queue can dangle.
using QArgument = std::variant<std::monostate, ServerAddress, Ref<Search>, std::shared_ptr<FileMeta>,
                               Ref<Download>, Ref<Peer>, std::shared_ptr<UserMeta>, i4_string>;

// The message numbers. The table of their handlers is in engine/Engine_messages.cpp.
enum MessageNumber : u32 {
    MESSAGE_LOAD = 0,
    MESSAGE_SAVE = 1,
    MESSAGE_CONNECT = 2,  // ServerAddress; none for the best server
    MESSAGE_DISCONNECT = 3,
    MESSAGE_TRY_NEXT_SERVER = 4,
    MESSAGE_SEARCH = 5,            // Ref<Search>
    MESSAGE_SEARCH_ALTERNATE = 6,  // Ref<Search>
    MESSAGE_MORE_RESULTS = 7,
    MESSAGE_EXTEND = 8,            // Ref<Search>
    MESSAGE_EXTEND_ALTERNATE = 9,  // Ref<Search>
    MESSAGE_DOWNLOAD = 10,         // shared_ptr<FileMeta>, a copy of the record
    MESSAGE_DOWNLOAD_GONE = 11,    // Ref<Download>
    MESSAGE_PAUSE = 12,            // Ref<Download>
    MESSAGE_RESUME = 13,           // Ref<Download>
    MESSAGE_CANCEL = 14,           // Ref<Download>
    MESSAGE_HASH_SHARED = 15,
    MESSAGE_PUBLISH = 16,
    MESSAGE_ADD_SHARED = 17,        // shared_ptr<FileMeta>
    MESSAGE_ASK_FRIEND_FILES = 19,  // shared_ptr<UserMeta>
    MESSAGE_OPEN_CALL = 21,         // shared_ptr<UserMeta>
    MESSAGE_CHECK_DISK = 22,
    MESSAGE_OFFER_SLOT = 23,  // Ref<Peer>
    MESSAGE_LOAD_FILTER = 24,
    MESSAGE_MERGE_SERVERS = 25,  // i4_string, a path
    MESSAGE_COUNT = 26,
};

// A message in the queue.
// A plain value that owns its argument.
struct QMessage {
    u32 number;
    QArgument argument;
};

// The interface that MessageQ calls. Engine implements it.
// Thread: MessageQ's.
class MessageDuties {
  public:
    virtual bool handle(u32 number, QArgument& argument) = 0;  // false for an unknown number
    virtual void idle(i32 elapsedMs) = 0;                      // the slow timers; called on every idle turn
    virtual bool wantsServer() = 0;  // automatic connect is on and there is no server
    virtual i32 untilDue() = 0;      // ms until a timer of idle() is due; the maximum i32 for never

  protected:
    ~MessageDuties() = default;
};

// Runs one handler at a time, in the order of posting, and the slow timers when the queue is empty. A handler
// may post.
// Thread: any thread may post; handlers run on MessageQ's thread.
// Owns: the queue. Errors: it catches nothing, so a handler must catch the i4_err that it can survive.
class MessageQ : public Thread {
  public:
    MessageQ(Host& host, UIInterface& log, MessageDuties& duties)
        : Thread(host.scheduler), clock_(host.clock), log_(log), duties_(duties) {}
    ~MessageQ() override;
    void start() override;
    Rest run() override;

    void post(u32 number, QArgument argument = {});
    // Posts a message without argument, unless the same number is queued already behind the head.
    void postOnce(u32 number);
    void postFront(u32 number, QArgument argument = {});
    // Handles the message at the head. Returns false if the queue is empty.
    bool process();
    void clear();  // drops all queued messages; call it once the thread has stopped

  private:
    std::optional<QMessage> take();
    void idleTurn();
    Rest untilDue();

    const Clock& clock_;
    UIInterface& log_;
    MessageDuties& duties_;
    Moment lastTick_;
    i32 autoConnectTimer_ = -1;  // ms until the next automatic connect; due at 0 or below
    i4_mutex lock_{LockRank::messageQueue};
    std::deque<QMessage> queue_ GUARDED_BY(lock_);  // without the message being handled
    bool inHand_ GUARDED_BY(lock_) = false;
};

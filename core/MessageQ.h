// MessageQ, the thread that serialises changes of the application's state.
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

struct ServerAddress {
    u32 ip;  // network order
    u16 port;

    bool operator==(const ServerAddress&) const = default;
};

// What a message carries. It owns what it holds, or holds a reference: nothing in a queue can dangle.
using QArgument = std::variant<std::monostate, ServerAddress, Ref<Search>, std::shared_ptr<FileMeta>,
                               Ref<Download>, Ref<Peer>, std::shared_ptr<UserMeta>, i4_string>;

// The messages by number; engine/Engine_messages.cpp has the table of their handlers.
enum MessageNumber : u32 {
    MESSAGE_LOAD = 0,
    MESSAGE_SAVE = 1,
    MESSAGE_CONNECT = 2,  // ServerAddress, or nothing for the best server
    MESSAGE_DISCONNECT = 3,
    MESSAGE_TRY_NEXT_SERVER = 4,
    MESSAGE_SEARCH = 5,            // Ref<Search>
    MESSAGE_SEARCH_ALTERNATE = 6,  // Ref<Search>
    MESSAGE_MORE_RESULTS = 7,
    MESSAGE_EXTEND = 8,            // Ref<Search>
    MESSAGE_EXTEND_ALTERNATE = 9,  // Ref<Search>
    MESSAGE_DOWNLOAD = 10,         // shared_ptr<FileMeta>, a record of the message's own
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

struct QMessage {
    u32 number;
    QArgument argument;
};

// What MessageQ drives. Thread: MessageQ's.
class MessageDuties {
  public:
    virtual bool handle(u32 number, QArgument& argument) = 0;  // false for a number that means nothing
    virtual void idle(i32 elapsedMs) = 0;                      // the slow timers, on every idle turn
    virtual bool wantsServer() = 0;  // automatic connect is on and there is no server
    virtual i32 untilDue() = 0;      // ms until a timer of idle() is due; the greatest i32 for never

  protected:
    ~MessageDuties() = default;
};

// Thread: post() from any; a handler runs on MessageQ's own thread, one at a time, strictly in the order of
// posting, and may post. Catches nothing: a handler that has to survive an i4_err catches it by itself.
class MessageQ : public Thread {
  public:
    MessageQ(Host& host, UIInterface& log, MessageDuties& duties)
        : Thread(host.scheduler), clock_(host.clock), log_(log), duties_(duties) {}
    ~MessageQ() override;
    void start() override;
    Rest run() override;

    void post(u32 number, QArgument argument = {});
    // A message without an argument, unless one of that number waits already behind the head.
    void postOnce(u32 number);
    void postFront(u32 number, QArgument argument = {});
    // Handles the message at the head, if there is one. False when the queue is empty.
    bool process();
    void clear();  // drops what waits, once the thread has stopped

  private:
    std::optional<QMessage> take();
    void idleTurn();
    Rest untilDue();

    const Clock& clock_;
    UIInterface& log_;
    MessageDuties& duties_;
    Moment lastTick_;
    i32 autoConnectTimer_ = -1;  // ms until the next automatic connect is due; due at 0 and below
    i4_mutex lock_{LockRank::messageQueue};
    std::deque<QMessage> queue_ GUARDED_BY(lock_);  // without the one in hand
    bool inHand_ GUARDED_BY(lock_) = false;
};

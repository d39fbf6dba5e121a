// i4_output, what the process says on its standard descriptors.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "i4min/memory/types.h"

// Takes text and writes it in the order in which it came, whatever thread or descriptor it is for.
//
// Until start(), write() itself writes. From then on a thread does, at once but on its own, so that whoever
// speaks never waits for a terminal that is stopped or a pipe that isn't read: text waits here, and when more
// than `limit` bytes do, the older half gives way to a line that tells how many lines are missing. The text
// of the thread that called keepMine() is never dropped; that thread asks hasRoom() before it goes on.
//
// Thread: any. Its lock is a leaf, so text may be printed under any other.
class i4_output {
  public:
    explicit i4_output(std::size_t limit = 256 * 1024) : limit_(limit) {}
    i4_output(const i4_output&) = delete;
    i4_output& operator=(const i4_output&) = delete;
    ~i4_output();  // finishes, and waits for a write that is going on

    void start();
    void keepMine();
    // What a descriptor doesn't take, because it is closed or its reader gone, is lost.
    void write(int descriptor, std::string_view text);
    // Waits up to `ms` milliseconds until at most `limit` bytes of the kept text wait. False when the time
    // ran out.
    bool hasRoom(u32 ms);
    // Waits until all is written; gives up, with false, when nothing could be written for `patience`.
    bool drain();
    // Drains and ends the thread. After that write() writes again, or says nothing where drain() gave up.
    void finish();

  private:
    struct Piece {
        int descriptor;
        bool kept;
        std::string text;
        std::size_t lost = 0;  // lines for which this one stands
    };

    void run();
    bool drain(std::unique_lock<std::mutex>& lock);
    void dropOlderHalf();  // of what isn't kept; with mutex_ held
    std::size_t& waiting(const Piece& piece) { return piece.kept ? keptSize_ : looseSize_; }

    const std::size_t limit_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable filled_;
    std::condition_variable written_;
    enum class State { direct, queued, given_up } state_ = State::direct;
    std::deque<Piece> pieces_;
    bool writing_ = false;       // the thread has taken a piece off the queue
    u64 writes_ = 0;             // pieces written so far
    std::size_t keptSize_ = 0;   // bytes that wait or are being written
    std::size_t looseSize_ = 0;  // the same of text that may be dropped
    std::thread::id keeper_;
    std::thread thread_;
};

// Opens those of descriptors 0 to 2 that are closed on /dev/null, so that no other file becomes one of them.
// First of all in a program.
void i4_hold_standard_descriptors();

// The process's. It is never destroyed: objects that go last still speak.
i4_output& i4_standard_output();

#include "i4min/file/output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace {

constexpr std::chrono::seconds patience{2};

void writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t done = ::write(descriptor, text.data(), text.size());
        if (done > 0) {
            text.remove_prefix(static_cast<std::size_t>(done));
        } else if (done < 0 && errno == EAGAIN) {
            // Another program has the same terminal, and made it non-blocking.
            pollfd entry{descriptor, POLLOUT, 0};
            ::poll(&entry, 1, -1);
        } else if (done == 0 || errno != EINTR) {
            return;
        }
    }
}

}  // namespace

i4_output::~i4_output() {
    finish();
    if (thread_.joinable()) thread_.join();
}

void i4_output::start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::direct) return;
    thread_ = std::thread([this] { run(); });
    state_ = State::queued;
}

void i4_output::keepMine() {
    const std::lock_guard<std::mutex> lock(mutex_);
    keeper_ = std::this_thread::get_id();
}

void i4_output::write(int descriptor, std::string_view text) {
    if (text.empty()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::direct) writeAll(descriptor, text);
    if (state_ != State::queued) return;
    pieces_.push_back({descriptor, std::this_thread::get_id() == keeper_, std::string(text)});
    waiting(pieces_.back()) += text.size();
    if (looseSize_ > limit_) dropOlderHalf();
    filled_.notify_one();
}

bool i4_output::hasRoom(u32 ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return written_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return keptSize_ <= limit_; });
}

bool i4_output::drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    return drain(lock);
}

bool i4_output::drain(std::unique_lock<std::mutex>& lock) {
    while (writing_ || !pieces_.empty()) {
        const u64 before = writes_;
        if (!written_.wait_for(lock, patience, [&] { return writes_ != before; })) return false;
    }
    return true;
}

void i4_output::finish() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (state_ != State::queued) return;
        state_ = drain(lock) ? State::direct : State::given_up;
        pieces_.clear();
        filled_.notify_one();
        if (state_ == State::given_up) return;
    }
    thread_.join();
}

void i4_output::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        filled_.wait(lock, [this] { return !pieces_.empty() || state_ != State::queued; });
        if (pieces_.empty()) return;
        const Piece piece = std::move(pieces_.front());
        pieces_.pop_front();
        writing_ = true;
        lock.unlock();
        writeAll(piece.descriptor, piece.text);
        lock.lock();
        writing_ = false;
        ++writes_;
        waiting(piece) -= piece.text.size();
        written_.notify_all();
    }
}

void i4_output::dropOlderHalf() {
    std::deque<Piece> left;
    Piece notice{};
    std::ptrdiff_t place = 0;
    for (Piece& piece : pieces_) {
        if (piece.kept || looseSize_ <= limit_ / 2) {
            left.push_back(std::move(piece));
            continue;
        }
        looseSize_ -= piece.text.size();
        notice.descriptor = piece.descriptor;
        notice.lost += piece.lost > 0
                           ? piece.lost
                           : static_cast<std::size_t>(std::count(piece.text.begin(), piece.text.end(), '\n'));
        place = static_cast<std::ptrdiff_t>(left.size());
    }
    notice.text = std::to_string(notice.lost) + " lines are missing here: nobody read them in time.\n";
    looseSize_ += notice.text.size();
    left.insert(left.begin() + place, std::move(notice));
    pieces_ = std::move(left);
}

void i4_hold_standard_descriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) >= 0) continue;
        // The lowest that is free is this one.
        static_cast<void>(::open("/dev/null", O_RDWR));
    }
}

i4_output& i4_standard_output() {
    static i4_output& output = *new i4_output;
    return output;
}

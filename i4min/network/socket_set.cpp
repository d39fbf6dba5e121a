#include "i4min/network/socket_set.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cassert>

#include "i4min/memory/debug_build.h"

namespace {

constexpr std::size_t growth = 32;

}  // namespace

short i4_events_of_mask(u32 mask) {
    int events = 0;
    if (mask & I4_SELECT_READ) events |= POLLIN;
    if (mask & I4_SELECT_WRITE) events |= POLLOUT;
    if (mask & I4_SELECT_ERROR) events |= POLLERR;
    return static_cast<short>(events);
}

u32 i4_mask_of_events(short events) {
    u32 mask = 0;
    if (events & POLLIN) mask |= I4_SELECT_READ;
    if (events & POLLOUT) mask |= I4_SELECT_WRITE;
    if (events & POLLERR) mask |= I4_SELECT_ERROR;
    if (events & (POLLHUP | POLLNVAL)) mask |= I4_SELECT_READ | I4_SELECT_ERROR;
    return mask;
}

linux_socket_set::linux_socket_set() : wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    entries_.push_back({wake_.get(), POLLIN, 0});
}

i32 linux_socket_set::poll(i32 timeout_ms) {
    compact();
    i32 result = ::poll(entries_.data(), entries_.size(), timeout_ms);
    if (result < 0) {
        // The system leaves the events as they were, and none of them is news.
        for (pollfd& entry : entries_) entry.revents = 0;
    } else if (entries_[0].revents != 0) {
        eventfd_t wakes = 0;
        ::eventfd_read(wake_.get(), &wakes);
        --result;
    }
    return result;
}

void linux_socket_set::add(int descriptor, u32 mask) {
    if (descriptor < 0) return;
    if (count_ + removed_ == capacity_) compact();
    if (count_ == capacity_) {
        capacity_ += growth;
        entries_.reserve(capacity_ + 1);
    }
    const auto at = static_cast<std::size_t>(descriptor);
    if (at >= first_.size()) first_.resize(at + 1, none);
    if (first_[at] == none) {
        first_[at] = entries_.size();
    } else {
        ++repeated_;
    }
    entries_.push_back({descriptor, i4_events_of_mask(mask), 0});
    ++count_;
    checkInvariants();
}

void linux_socket_set::change(int descriptor, u32 mask) {
    forEach(descriptor, [&](pollfd& entry) { entry.events = i4_events_of_mask(mask); });
}

void linux_socket_set::remove(int descriptor) {
    std::size_t gone = 0;
    forEach(descriptor, [&](pollfd& entry) {
        entry = {-1, 0, 0};
        ++gone;
    });
    if (gone == 0) return;
    first_[static_cast<std::size_t>(descriptor)] = none;
    count_ -= gone;
    removed_ += gone;
    repeated_ -= gone - 1;
    checkInvariants();
}

u32 linux_socket_set::check(int descriptor, u32 mask) const {
    const std::size_t at = find(descriptor);
    return at == none ? 0 : mask & i4_mask_of_events(entries_[at].revents);
}

void linux_socket_set::wake() { ::eventfd_write(wake_.get(), 1); }

std::size_t linux_socket_set::find(int descriptor) const {
    const auto at = static_cast<std::size_t>(descriptor);
    return descriptor < 0 || at >= first_.size() ? none : first_[at];
}

template <class Action>
void linux_socket_set::forEach(int descriptor, Action action) {
    const std::size_t first = find(descriptor);
    if (first == none) return;
    action(entries_[first]);
    if (repeated_ == 0) return;
    for (std::size_t i = first + 1; i < entries_.size(); ++i) {
        if (entries_[i].fd == descriptor) action(entries_[i]);
    }
}

void linux_socket_set::compact() {
    if (removed_ == 0) return;
    const auto stays = std::remove_if(entries_.begin() + 1, entries_.end(),
                                      [](const pollfd& entry) { return entry.fd < 0; });
    entries_.erase(stays, entries_.end());
    removed_ = 0;
    for (std::size_t i = entries_.size(); i-- > 1;) first_[static_cast<std::size_t>(entries_[i].fd)] = i;
    checkInvariants();
}

void linux_socket_set::checkInvariants() const {
    constexpr std::size_t small = 64;
    if (!debugBuild || entries_.size() > small) return;
    std::size_t open = 0;
    std::size_t first = 0;
    for (std::size_t i = 1; i < entries_.size(); ++i) {
        const int descriptor = entries_[i].fd;
        if (descriptor < 0) continue;
        ++open;
        if (find(descriptor) == i) ++first;
        assert(find(descriptor) <= i && entries_[find(descriptor)].fd == descriptor);
    }
    assert(open == count_ && count_ + removed_ == entries_.size() - 1 && first + repeated_ == count_);
}

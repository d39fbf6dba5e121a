#include "i4min/network/socket_set.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t growth = 32;
constexpr int wakeDescriptor = -1;  // stands for wake_ in an event

// The bits of poll and epoll are the same.
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLERR == POLLERR && EPOLLHUP == POLLHUP);

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

linux_socket_set::linux_socket_set()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wakeDescriptor;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &event);
}

i32 linux_socket_set::poll(i32 timeout_ms) {
    ++polls_;
    ready_.clear();
    epoll_event spare{};  // for the wake-up of an empty set
    epoll_event* const events = events_.empty() ? &spare : events_.data();
    const int room = static_cast<int>(std::max<std::size_t>(events_.size(), 1));
    const int got = ::epoll_wait(epoll_.get(), events, room, refused_.empty() ? timeout_ms : 0);
    result_ = got < 0 ? got : 0;
    for (int i = 0; i < got; ++i) {
        if (events[i].data.fd == wakeDescriptor) {
            eventfd_t wakes = 0;
            ::eventfd_read(wake_.get(), &wakes);
        } else if (Entry* entry = find(events[i].data.fd)) {
            report(*entry, i4_mask_of_events(static_cast<short>(events[i].events)));
        }
    }
    for (const int descriptor : refused_) report(*find(descriptor), I4_SELECT_READ | I4_SELECT_ERROR);
    return result_;
}

void linux_socket_set::report(Entry& entry, u32 mask) {
    entry.poll = polls_;
    // A hang-up counts as readable for who didn't ask to read.
    const u32 unasked = (entry.all & I4_SELECT_READ) == 0 ? mask & I4_SELECT_READ : 0;
    entry.reported = (mask & (entry.first | I4_SELECT_ERROR)) | unasked;
    result_ += static_cast<i32>(entry.times);
    ready_.push_back({entry.owner, entry.reported});
}

void linux_socket_set::add(int descriptor, u32 mask, i4_set_owner* owner) {
    if (descriptor < 0) return;
    const auto at = static_cast<std::size_t>(descriptor);
    if (at >= entries_.size()) entries_.resize(at + 1);
    if (count_ == events_.size()) events_.resize(events_.size() + growth);
    Entry& entry = entries_[at];
    const bool isNew = entry.times == 0;
    if (isNew) entry = {0, mask, 0, 0, 0, false, owner};
    ++entry.times;
    entry.all |= mask;
    ++count_;
    control(isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, descriptor, entry);
}

void linux_socket_set::change(int descriptor, u32 mask) {
    Entry* entry = find(descriptor);
    if (!entry) return;
    entry->first = entry->all = mask;
    control(EPOLL_CTL_MOD, descriptor, *entry);
}

void linux_socket_set::remove(int descriptor) {
    Entry* entry = find(descriptor);
    if (!entry) return;
    if (entry->refused) {
        std::erase(refused_, descriptor);
    } else {
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    }
    count_ -= entry->times;
    *entry = {};
}

void linux_socket_set::control(int operation, int descriptor, Entry& entry) {
    if (entry.refused) return;
    epoll_event event{};
    event.events = static_cast<u16>(i4_events_of_mask(entry.all));
    event.data.fd = descriptor;
    if (::epoll_ctl(epoll_.get(), operation, descriptor, &event) == 0 || operation != EPOLL_CTL_ADD) return;
    entry.refused = true;
    refused_.push_back(descriptor);
}

u32 linux_socket_set::check(int descriptor, u32 mask) const {
    const Entry* entry = find(descriptor);
    return entry && entry->poll == polls_ ? mask & entry->reported : 0;
}

void linux_socket_set::wake() { ::eventfd_write(wake_.get(), 1); }

const linux_socket_set::Entry* linux_socket_set::find(int descriptor) const {
    const auto at = static_cast<std::size_t>(descriptor);
    return descriptor < 0 || at >= entries_.size() || entries_[at].times == 0 ? nullptr : &entries_[at];
}

linux_socket_set::Entry* linux_socket_set::find(int descriptor) {
    return const_cast<Entry*>(std::as_const(*this).find(descriptor));
}

#include "i4min/network/socket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "i4min/file/descriptor.h"
#include "i4min/memory/error.h"
#include "i4min/threads/linux/i4_time.h"

// A call that may block, on the stack of the thread that makes it: it polls a descriptor of its own beside
// the socket's, and cancel() makes that one readable.
class i4_blocking_call {
  public:
    i4_blocking_call(i4_tcpip_sock& socket, bool may_wait)
        : socket_(socket), wake_(may_wait ? ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC) : -1) {
        i4_lock guard(socket_.lock_);
        begun_ = !socket_.closed_;
        if (begun_) socket_.pending_ = this;
    }
    ~i4_blocking_call() {
        i4_lock guard(socket_.lock_);
        socket_.pending_ = nullptr;
    }
    i4_blocking_call(const i4_blocking_call&) = delete;
    i4_blocking_call& operator=(const i4_blocking_call&) = delete;

    bool begun() const { return begun_; }  // false: the socket was cancelled, and the call shall not happen
    void wake() const { ::eventfd_write(wake_.get(), 1); }

    // Waits for the socket; the events, 0 when the time ran out or the call was cancelled.
    short poll(short events, i32 timeout_ms) const {
        const u32 start = i4_ticks();
        pollfd entries[] = {{socket_.fd_, events, 0}, {wake_.get(), POLLIN, 0}};
        for (i32 left = timeout_ms;;) {
            const int result = ::poll(entries, std::size(entries), left);
            if (result >= 0) return socket_.closed_ ? short{0} : entries[0].revents;
            if (errno != EINTR) return POLLERR;
            if (timeout_ms < 0) continue;
            const u32 gone = i4_ticks() - start;
            left = std::max<i32>(0, timeout_ms - static_cast<i32>(std::min<u32>(gone, INT32_MAX)));
        }
    }

  private:
    i4_tcpip_sock& socket_;
    const i4_descriptor wake_;
    bool begun_;
};

namespace {

constexpr std::size_t largest = std::numeric_limits<i32>::max();
constexpr i32 status_interval = 100;  // ms

int newSocket(u32 type) {
    return ::socket(AF_INET, (type == I4_STREAM ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
}

// A header and its body are sent with two calls: the second must not wait until the first is acknowledged.
void sendAtOnce(int descriptor, u32 type) {
    const int on = 1;
    if (type == I4_STREAM) ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void setNonBlocking(int descriptor, bool non_blocking) {
    int on = non_blocking;
    ::ioctl(descriptor, FIONBIO, &on);
}

// Repeats a system call that a signal interrupted.
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

}  // namespace

i4_tcpip_sock::i4_tcpip_sock(u32 type) : i4_tcpip_sock(newSocket(type), type) { error_ = fd_ < 0; }

i4_tcpip_sock::i4_tcpip_sock(int descriptor, u32 type) : fd_(descriptor), type_(type) {
    sendAtOnce(fd_, type_);
}

i4_tcpip_sock::~i4_tcpip_sock() {
    if (fd_ >= 0) ::close(fd_);
}

void i4_tcpip_sock::keepAlive() {
    const auto set = [this](int level, int option, int value) {
        ::setsockopt(fd_, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 120);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 30);
    set(IPPROTO_TCP, TCP_KEEPCNT, 4);
}

i32 i4_tcpip_sock::read(std::span<u8> to) {
    if (closed_) return -1;
    if (to.empty()) return 0;  // the system would wait for a byte
    const ssize_t got =
        uninterrupted([&] { return ::recv(fd_, to.data(), std::min(to.size(), largest), 0); });
    if (got < 0) return errno == EAGAIN ? 0 : -1;
    if (closed_) return -1;
    if (got == 0) at_end_ = true;
    return static_cast<i32>(got);
}

i32 i4_tcpip_sock::write(std::span<const u8> bytes) { return send(bytes, 0); }
i32 i4_tcpip_sock::write_more(std::span<const u8> bytes) { return send(bytes, MSG_MORE); }

i32 i4_tcpip_sock::send(std::span<const u8> bytes, int flags) {
    if (closed_) return -1;
    const ssize_t sent = uninterrupted(
        [&] { return ::send(fd_, bytes.data(), std::min(bytes.size(), largest), flags | MSG_NOSIGNAL); });
    if (sent < 0) return errno == EAGAIN ? 0 : -1;
    return static_cast<i32>(sent);
}

bool i4_tcpip_sock::accept(std::unique_ptr<i4_socket>& out) {
    int accepted = -1;
    int error = 0;
    {
        const i4_blocking_call call(*this, blocking_);
        if (!call.begun()) {
            i4_debug_printf("accept canceled\n");
            errno = EBADF;
            return false;
        }
        if (!std::exchange(accepts_, true)) setNonBlocking(fd_, true);
        do {
            accepted = uninterrupted([&] { return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); });
            error = errno;
        } while (accepted < 0 && blocking_ && error == EAGAIN && call.poll(POLLIN, -1) != 0);
    }
    if (accepted < 0) {
        errno = error;
        return false;
    }
    out = std::make_unique<i4_tcpip_sock>(accepted, type_);
    return true;
}

i32 i4_tcpip_sock::read_from(std::span<u8> to, std::unique_ptr<i4_address>* out_address) {
    if (closed_) return -1;
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t got = uninterrupted([&] {
        return ::recvfrom(fd_, to.data(), std::min(to.size(), largest), 0, reinterpret_cast<sockaddr*>(&from),
                          &size);
    });
    if (out_address && got > 0) *out_address = std::make_unique<i4_tcpip_address>(from);
    return static_cast<i32>(got);
}

i32 i4_tcpip_sock::write_to(std::span<const u8> bytes, const i4_address& address) {
    const auto* to = dynamic_cast<const i4_tcpip_address*>(&address);
    // A name that is meant for a proxy has no address; 0.0.0.0 would be this machine.
    if (closed_ || !to || !to->name.isNull()) return -1;
    return static_cast<i32>(uninterrupted([&] {
        return ::sendto(fd_, bytes.data(), std::min(bytes.size(), largest), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&to->address), sizeof to->address);
    }));
}

u32 i4_tcpip_sock::ready(u32 mask, i32 timeout_ms, i4_status_class* status) {
    if (closed_) {
        i4_debug_printf("select canceled\n");
        return 0;
    }
    return status ? waitWithStatus(mask, timeout_ms, *status) : wait(mask, timeout_ms);
}

u32 i4_tcpip_sock::wait(u32 mask, i32 timeout_ms) {
    if (timeout_ms == 0) {
        // Nothing to cancel: this is asked for every byte of some answers.
        pollfd entry{fd_, i4_events_of_mask(mask), 0};
        return uninterrupted([&] { return ::poll(&entry, 1, 0); }) > 0 ? i4_mask_of_events(entry.revents) : 0;
    }
    const i4_blocking_call call(*this, true);
    return call.begun() ? i4_mask_of_events(call.poll(i4_events_of_mask(mask), timeout_ms)) : 0;
}

u32 i4_tcpip_sock::waitWithStatus(u32 mask, i32 timeout_ms, i4_status_class& status) {
    const u32 start = i4_ticks();
    const u32 limit = timeout_ms < 0 ? std::numeric_limits<u32>::max() - 1 : static_cast<u32>(timeout_ms);
    for (u32 gone = 0;;) {
        const u32 turn = std::min<u32>(status_interval, limit - gone);
        if (wait(mask, static_cast<i32>(turn)) != 0) return 1;
        gone = std::min(i4_ticks() - start, limit);
        const bool go_on = status.update((static_cast<f32>(gone) + 1) / (static_cast<f32>(limit) + 1));
        if (!go_on || closed_ || gone == limit) return 0;
    }
}

void i4_tcpip_sock::add_to_set(i4_socket_set& set, u32 mask, i4_set_owner* owner) {
    set.add(fd_, mask, owner);
}
void i4_tcpip_sock::remove_from_set(i4_socket_set& set) { set.remove(fd_); }
void i4_tcpip_sock::change_in_set(i4_socket_set& set, u32 mask) { set.change(fd_, mask); }
u32 i4_tcpip_sock::check_in_set(const i4_socket_set& set, u32 mask) { return set.check(fd_, mask); }

bool i4_tcpip_sock::cancel() {
    i4_lock guard(lock_);
    if (fd_ < 0 || closed_) return false;
    closed_ = true;
    if (pending_) pending_->wake();
    ::shutdown(fd_, SHUT_RDWR);
    return true;
}

void i4_tcpip_sock::set_blocking(bool blocking) {
    blocking_ = blocking;
    if (!accepts_) setNonBlocking(fd_, !blocking);
}

std::unique_ptr<i4_address> i4_tcpip_sock::local_address() {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    return std::make_unique<i4_tcpip_address>(address);
}

std::unique_ptr<i4_address> i4_tcpip_sock::remote_address() {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &size) != 0) return nullptr;
    return std::make_unique<i4_tcpip_address>(address);
}

bool i4_tcpip_sock::connect(const i4_tcpip_address& to, bool blocking) {
    setNonBlocking(fd_, true);
    blocking_ = blocking;
    bool stands = ::connect(fd_, reinterpret_cast<const sockaddr*>(&to.address), sizeof to.address) == 0;
    if (!blocking) return true;
    if (!stands && (errno == EINPROGRESS || errno == EINTR)) {
        stands = wait(I4_SELECT_WRITE, -1) == I4_SELECT_WRITE;
    }
    setNonBlocking(fd_, false);
    return stands && !closed_;
}

int i4_tcpip_sock::release_descriptor() {
    i4_lock guard(lock_);
    const bool cancelled = closed_.exchange(true);
    const int descriptor = std::exchange(fd_, -1);
    if (!cancelled) return descriptor;
    if (descriptor >= 0) ::close(descriptor);
    return -1;
}

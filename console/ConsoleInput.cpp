#include "console/ConsoleInput.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

ConsoleInput::ConsoleInput(int descriptor)
    : descriptor_(descriptor), endEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

bool ConsoleInput::readLine(char* out, std::size_t size) {
    std::size_t length = 0;
    bool any = false;
    while (here_ < filled_ || fill()) {
        const char c = buffer_[here_++];
        any = true;
        if (c == '\n') break;
        if (length + 1 < size) out[length++] = c;
    }
    out[length] = 0;
    return any && !isEnded();
}

bool ConsoleInput::fill() {
    for (;;) {
        pollfd watched[2] = {{endEvent_.get(), POLLIN, 0}, {descriptor_, POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (watched[0].revents != 0) return false;
        const ssize_t got = ::read(descriptor_, buffer_.data(), buffer_.size());
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        here_ = 0;
        filled_ = got > 0 ? static_cast<std::size_t>(got) : 0;
        return got > 0;
    }
}

bool ConsoleInput::isEnded() const {
    pollfd watched{endEvent_.get(), POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
}

void ConsoleInput::waitForEnd() {
    pollfd watched{endEvent_.get(), POLLIN, 0};
    while (::poll(&watched, 1, -1) < 0 && errno == EINTR) continue;
}

void ConsoleInput::end() {
    const std::uint64_t one = 1;
    static_cast<void>(::write(endEvent_.get(), &one, sizeof one));
}

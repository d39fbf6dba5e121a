// Plain blocking sockets on loopback, for tests that play the other side.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

#include "tests/support/bytes.h"
#include "tests/support/eventually.h"

constexpr u32 loopbackIp = 0x0100007F;

inline sockaddr_in loopbackAt(u32 port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u16>(port));
    address.sin_addr.s_addr = loopbackIp;
    return address;
}

// Waits until there is something to read or to accept.
inline bool isReadable(int descriptor, std::chrono::milliseconds limit = patience) {
    pollfd entry{descriptor, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(limit.count())) == 1;
}

// One end of a TCP connection. Thread: one. Owns: its descriptor.
class Caller {
  public:
    Caller() : descriptor_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    explicit Caller(u32 port) : Caller() { connect(port); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    ~Caller() { close(); }

    bool connect(u32 port) {
        const sockaddr_in address = loopbackAt(port);
        return ::connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    // Accepts the next connection of a listening socket, and closes its current one.
    bool accept(int listener) {
        close();
        if (isReadable(listener)) descriptor_ = ::accept(listener, nullptr, nullptr);
        return descriptor_ >= 0;
    }
    bool send(const std::string& bytes) {
        return ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool say(const std::string& body) { return send(framed(body)); }
    // Reads `count` bytes, or fewer if the other side ends or is silent for a minute.
    std::string read(std::size_t count) {
        std::string bytes(count, '\0');
        std::size_t done = 0;
        while (done < count && isReadable(descriptor_)) {
            const ssize_t got = ::recv(descriptor_, bytes.data() + done, count - done, 0);
            if (got <= 0) break;
            done += static_cast<std::size_t>(got);
        }
        bytes.resize(done);
        return bytes;
    }
    // True if a Talker at the other side echoes the text.
    bool echoes(const std::string& text) {
        const std::string wire = framed("e" + text);
        return send(wire) && read(wire.size()) == wire;
    }
    // The body of the next packet; empty at the end.
    std::string packet() {
        const std::string header = read(5);
        return header.size() == 5 && header[0] == '\xE3' ? read(u32At(header, 1)) : "";
    }
    // Skips messages up to the first with this opcode that `fits`, and returns its payload.
    std::string await(u32 number, const std::function<bool(const std::string&)>& fits = {}) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string body = packet();
            if (body.empty()) break;
            if (body.substr(0, 1) == le8(number) && (!fits || fits(body.substr(1)))) return body.substr(1);
        }
        ADD_FAILURE() << "no message " << number;
        return {};
    }
    bool isEnded() { return isReadable(descriptor_) && read(1).empty(); }
    void reset() {
        const linger at_once{1, 0};
        ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }
    void close() {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = -1;
    }
    int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

// A listener on a port that the system chose. Thread: one. Owns: its descriptor.
class Listener {
  public:
    Listener() : descriptor_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in place = loopbackAt(0);
        socklen_t size = sizeof place;
        ::bind(descriptor_, reinterpret_cast<sockaddr*>(&place), size);
        ::listen(descriptor_, 50);
        ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&place), &size);
        port_ = ntohs(place.sin_port);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { close(); }

    u16 port() const { return port_; }
    int descriptor() const { return descriptor_; }
    void close() {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = -1;
    }

  private:
    int descriptor_;
    u16 port_ = 0;
};

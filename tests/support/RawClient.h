// A client of an index server that is nothing but sockets: it logs on, publishes, and has a door.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// Thread: one. Owns its two sockets.
class RawClient {
  public:
    explicit RawClient(int serverPort)
        : door_(::socket(AF_INET, SOCK_STREAM, 0)), server_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in place = loopback(0);
        ::bind(door_, reinterpret_cast<sockaddr*>(&place), sizeof place);
        ::listen(door_, 10);
        socklen_t size = sizeof place;
        ::getsockname(door_, reinterpret_cast<sockaddr*>(&place), &size);
        doorPort_ = ntohs(place.sin_port);
        sockaddr_in target = loopback(serverPort);
        ::connect(server_, reinterpret_cast<sockaddr*>(&target), sizeof target);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient() {
        ::close(door_);
        ::close(server_);
    }

    // True once the server has given an ID; it calls the door before.
    bool logOn() {
        send(std::string(1, 1) + std::string(16, 'r') + little(0, 4) +
             little(static_cast<std::uint32_t>(doorPort_), 2) + little(0, 4));
        const int caller = accept();
        if (caller < 0) return false;
        char header[6];
        const bool answered = readable(server_) && ::recv(server_, header, 6, MSG_WAITALL) == 6;
        ::close(caller);
        return answered && header[5] == 64;
    }
    // Files of 1,000 bytes by name and type; their hashes differ.
    void publish(const std::vector<std::pair<std::string, std::string>>& files) {
        std::string body = '\x15' + little(static_cast<std::uint32_t>(files.size()), 4);
        char mark = 'a';
        for (const auto& [name, type] : files) {
            body += std::string(16, mark++) + little(0, 6) + little(3, 4);
            body += '\x02' + text("\x01") + text(name) + '\x03' + text("\x02") + little(1000, 4);
            body += '\x02' + text("\x03") + text(type);
        }
        send(body);
    }
    // Somebody other than the server connects and says hello.
    bool isCalled() {
        const int caller = accept();
        char hello[7];
        const bool called = caller >= 0 && readable(caller) && ::recv(caller, hello, 7, MSG_WAITALL) == 7 &&
                            hello[5] == 1 && hello[6] == 16;
        if (caller >= 0) ::close(caller);
        return called;
    }

  private:
    static sockaddr_in loopback(int port) {
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_port = htons(static_cast<std::uint16_t>(port));
        place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return place;
    }
    static std::string little(std::uint32_t value, int width) {
        std::string bytes;
        for (int i = 0; i < width; ++i) bytes += i < 4 ? static_cast<char>(value >> (8 * i)) : '\0';
        return bytes;
    }
    static std::string text(const std::string& bytes) {
        return little(static_cast<std::uint32_t>(bytes.size()), 2) + bytes;
    }
    static bool readable(int descriptor) {
        pollfd entry{descriptor, POLLIN, 0};
        return ::poll(&entry, 1, 60'000) == 1;
    }
    int accept() const { return readable(door_) ? ::accept(door_, nullptr, nullptr) : -1; }
    void send(const std::string& body) {
        const std::string packet = '\xE3' + little(static_cast<std::uint32_t>(body.size()), 4) + body;
        static_cast<void>(::send(server_, packet.data(), packet.size(), MSG_NOSIGNAL));
    }

    const int door_;
    const int server_;
    int doorPort_ = 0;
};

// Connections over loopback for tests: what they hear is kept, and their ends are counted.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "i4min/network/socket.h"
#include "transport/Connection.h"
#include "transport/DoorTask.h"
#include "transport/SocketPool.h"

// Waits for a condition, at most 20 seconds.
inline bool eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The wire form of a packet.
inline std::string framed(const std::string& body) {
    std::string bytes = "\xE3";
    for (int i = 0; i < 4; ++i) bytes += static_cast<char>(body.size() >> (8 * i));
    return bytes + body;
}

inline std::unique_ptr<Packet> packetOf(const std::string& body) {
    auto packet = std::make_unique<Packet>(static_cast<u32>(body.size()));
    packet->stream.write(body.data(), static_cast<u32>(body.size()));
    return packet;
}

constexpr u32 loopbackIp = 0x0100007F;

// What the connections of a test tell.
struct Told {
    std::atomic<int> connected{0};
    std::atomic<int> failed{0};
    std::atomic<int> ended{0};
    std::atomic<int> destroyed{0};
    std::atomic<u32> stallLimit{0};
    std::atomic<u32> queueLimit{16 << 20};
    const OpcodeTable* table = nullptr;

    void heard(const std::string& body) {
        std::lock_guard<std::mutex> lock(mutex);
        bodies.push_back(body);
    }
    std::vector<std::string> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return bodies;
    }
    std::size_t count() { return all().size(); }

  private:
    std::mutex mutex;
    std::vector<std::string> bodies;
};

// Opcodes: 'f' refuses, 's' reads past the end, 'e' echoes its body back, 'c' closes; all are kept.
class Talker : public Connection {
  public:
    Talker(std::unique_ptr<i4_socket> socket, SocketPool* pool, Told& told)
        : Connection(std::move(socket), pool), told_(told) {}
    Talker(u32 toIp, u32 toPort, Told& told) : Connection(toIp, toPort), told_(told) {}
    ~Talker() override { ++told_.destroyed; }

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override {
        std::string body(1, static_cast<char>(opcode));
        body.resize(1 + *stream.bytesLeft());
        stream.readAll(body.data() + 1, static_cast<u32>(body.size() - 1));
        told_.heard(body);
        if (opcode == 's') stream.read_8();
        if (opcode == 'e') send(packetOf(body));
        if (opcode == 'c') close();
        return opcode != 'f';
    }
    void connected() override { ++told_.connected; }
    void connectFailed() override {
        ++told_.failed;
        Connection::connectFailed();
    }

  protected:
    void gone() override { ++told_.ended; }
    u32 stallLimit() const override { return told_.stallLimit; }
    u32 queueLimit() const override { return told_.queueLimit; }
    const OpcodeTable* opcodes() const override { return told_.table; }

  private:
    Told& told_;
};

class TalkerDoor : public DoorTask {
  public:
    TalkerDoor(SocketPool* pool, u32 openPort, Told& told) : DoorTask(pool, openPort), told_(told) {}
    Connection* newConnection(std::unique_ptr<i4_socket> socket, SocketPool* pool) override {
        auto* talker = new Talker(std::move(socket), pool, told_);
        std::lock_guard<std::mutex> lock(mutex_);
        last_ = Ref<Talker>(talker);
        return talker;
    }
    // The last one that came in; the door lets go of it.
    Ref<Talker> takeLast() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(last_);
    }

  private:
    Told& told_;
    std::mutex mutex_;
    Ref<Talker> last_;
};

// A plain blocking socket of the other side.
class Caller {
  public:
    Caller() : descriptor_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    explicit Caller(u32 port) : Caller() { connect(port); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    ~Caller() { close(); }

    bool connect(u32 port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<u16>(port));
        address.sin_addr.s_addr = loopbackIp;
        return ::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    bool send(const std::string& bytes) {
        return ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // That many bytes, or fewer where the other side ends.
    std::string read(std::size_t count) {
        std::string bytes(count, '\0');
        const ssize_t got = ::recv(descriptor_, bytes.data(), count, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    bool isEnded() { return read(1).empty(); }
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

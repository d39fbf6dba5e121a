// Connections over loopback for tests. Their messages are recorded and their ends are counted.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "i4min/network/socket.h"
#include "tests/support/Caller.h"
#include "tests/support/bytes.h"
#include "tests/support/eventually.h"
#include "transport/Connection.h"
#include "transport/DoorTask.h"
#include "transport/SocketPool.h"

inline std::unique_ptr<Packet> packetOf(const std::string& body) {
    auto packet = std::make_unique<Packet>(static_cast<u32>(body.size()));
    packet->stream.write(i4_bytes(body));
    return packet;
}

// The recorded events of a test's connections. Thread: any.
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

// Records each message. Opcodes: 'f' refuses, 's' reads past the end, 'e' echoes its body, 'c' closes.
// Thread: as Connection. Borrows: the Told.
class Talker : public Connection {
  public:
    Talker(SocketPool& pool, std::unique_ptr<i4_socket> socket, Told& told)
        : Connection(pool, std::move(socket)), told_(told) {}
    Talker(SocketPool& pool, u32 toIp, u32 toPort, Told& told)
        : Connection(pool, toIp, toPort), told_(told) {}
    ~Talker() override { ++told_.destroyed; }

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override {
        std::string body(1, static_cast<char>(opcode));
        body.resize(1 + *stream.bytesLeft());
        stream.readAll(i4_room(body).subspan(1));
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

// A listener that makes Talkers. Thread: as DoorTask. Borrows: the Told.
class TalkerDoor : public DoorTask {
  public:
    TalkerDoor(SocketPool& pool, u32 openPort, Told& told) : DoorTask(pool, openPort), told_(told) {}
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> socket) override {
        std::lock_guard<std::mutex> lock(mutex_);
        last_ = makeRef<Talker>(pool(), std::move(socket), told_);
        return last_;
    }
    // The last accepted connection, which the listener then releases.
    Ref<Talker> takeLast() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(last_);
    }

  private:
    Told& told_;
    std::mutex mutex_;
    Ref<Talker> last_;
};

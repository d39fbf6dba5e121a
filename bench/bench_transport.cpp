// The socket pool compared with a plain write and read loop, the cost of idle connections, and the accuracy
// of a limit. On a busy machine use cpu_ratio, which counts the processor time of both.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <ctime>

#include "core/Preferences.h"
#include "tests/support/Conversation.h"
#include "tests/support/OwnEngine.h"
#include "transport/STSocketPool.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begun) {
    return std::chrono::duration<double>(Clock::now() - begun).count();
}

// The time that a transfer took. A plain value.
struct Took {
    double seconds;
    double cpu;
};

class Stopwatch {
  public:
    Took took() const {
        return {secondsSince(begun_), static_cast<double>(std::clock() - cpu_) / CLOCKS_PER_SEC};
    }

  private:
    const Clock::time_point begun_ = Clock::now();
    const std::clock_t cpu_ = std::clock();
};

// Keeps a packet queued until it was sent often enough, or counts the bytes received. Thread: as Connection.
class Mover : public Connection {
  public:
    using Connection::Connection;
    bool handleMessage(u8, i4_ram_file_class& stream) override {
        received += stream.size();
        return true;
    }
    void sendNext();

    std::atomic<u64> received{0};
    u32 size = 0;
    std::atomic<int> left{0};

  protected:
    u32 bodyLimit() const override { return 8 << 20; }
};

class NextPacket : public Packet {
  public:
    explicit NextPacket(Mover& mover) : Packet(mover.size), mover_(mover) { stream.write_8(70); }
    void sent() override { mover_.sendNext(); }

  private:
    Mover& mover_;
};

void Mover::sendNext() {
    if (left.fetch_sub(1) > 0) send(std::make_unique<NextPacket>(*this));
}

class MoverDoor : public DoorTask {
  public:
    using DoorTask::DoorTask;
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> socket) override {
        auto mover = makeRef<Mover>(pool(), std::move(socket));
        last = mover.get();
        return mover;
    }
    std::atomic<Mover*> last{nullptr};
};

struct Ends {
    explicit Ends(SocketPool& pool) : door(new MoverDoor(pool, 0)) {
        pool.start();
        door->listen(500);
    }
    Mover& accepted(Caller& caller) {
        door->last = nullptr;
        caller.connect(door->localPort());
        while (!door->last) std::this_thread::yield();
        return *door->last;
    }
    Ref<MoverDoor> door;
};

// A pool moves the packets from a sending to a receiving connection.
Took poolMoves(u32 size, int packets) {
    OwnEngine own;
    STSocketPool pool(own.engine.transport);
    Ends ends(pool);
    Caller caller;
    Mover& receiver = ends.accepted(caller);
    const Ref<Mover> sender(
        new Mover(pool, std::make_unique<i4_tcpip_sock>(::dup(caller.descriptor()), I4_STREAM)));
    caller.close();
    const auto socketIsReady = [&] { return pool.count == 3; };
    pool.addConnection(sender.get());
    eventually(socketIsReady);
    sender->size = size;
    sender->left = packets;
    const u64 all = u64{size} * static_cast<u64>(packets);
    const Stopwatch watch;
    sender->sendNext();
    while (receiver.received < all) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const Took took = watch.took();
    pool.stop();
    pool.deleteConnections();
    return took;
}

// The same on one thread: writes until the socket is full, then reads.
Took plainMoves(u32 size, int packets) {
    const auto door = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = loopbackIp;
    socklen_t length = sizeof address;
    ::bind(door, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(door, 1);
    ::getsockname(door, reinterpret_cast<sockaddr*>(&address), &length);
    Caller caller(ntohs(address.sin_port));
    const int reader = ::accept(door, nullptr, nullptr);
    const std::string out(size + 5, 'x');
    std::string in(size + 5, '\0');
    const Stopwatch watch;
    for (int i = 0; i < packets; ++i) {
        for (std::size_t sent = 0, got = 0; got < out.size();) {
            if (sent < out.size()) {
                const ssize_t n =
                    ::send(caller.descriptor(), out.data() + sent, out.size() - sent, MSG_DONTWAIT);
                if (n > 0) sent += static_cast<std::size_t>(n);
            }
            const ssize_t n = ::recv(reader, in.data() + got, in.size() - got, MSG_DONTWAIT);
            if (n > 0) got += static_cast<std::size_t>(n);
        }
    }
    const Took took = watch.took();
    ::close(reader);
    ::close(door);
    return took;
}

void PacketsOverLoopback(benchmark::State& state) {
    const u32 size = static_cast<u32>(state.range(0));
    const int packets = static_cast<int>(400'000'000 / size);
    for (auto _ : state) {
        const Took plain = plainMoves(size, packets);
        const Took pool = poolMoves(size, packets);
        const double megabytes = static_cast<double>(size) * packets / 1e6;
        state.SetIterationTime(pool.seconds);
        state.counters["plain_MB/s"] = megabytes / plain.seconds;
        state.counters["pool_MB/s"] = megabytes / pool.seconds;
        state.counters["ratio"] = plain.seconds / pool.seconds;
        state.counters["cpu_ratio"] = plain.cpu / pool.cpu;
    }
}
BENCHMARK(PacketsOverLoopback)
    ->Arg(180'000)
    ->Arg(10'240)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMillisecond);

void IdleConnections(benchmark::State& state) {
    const int connections = static_cast<int>(state.range(0));
    for (auto _ : state) {
        OwnEngine own;
        STSocketPool pool(own.engine.transport);
        Ends ends(pool);
        const double before = static_cast<double>(::mallinfo2().uordblks);
        std::vector<std::unique_ptr<Caller>> callers;
        for (int i = 0; i < connections; ++i) {
            callers.push_back(std::make_unique<Caller>());
            ends.accepted(*callers.back());
        }
        eventually([&] { return pool.count == connections + 1; });
        state.counters["bytes_each"] =
            (static_cast<double>(::mallinfo2().uordblks) - before) / static_cast<double>(connections);
        const std::clock_t cpu = std::clock();
        const auto begun = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        const double seconds = secondsSince(begun);
        state.counters["percent_of_a_core"] =
            100 * static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC / seconds;
        state.SetIterationTime(seconds);
        pool.stop();
        pool.deleteConnections();
    }
}
BENCHMARK(IdleConnections)->Arg(500)->UseManualTime()->Iterations(1);

void UploadLimit(benchmark::State& state) {
    for (auto _ : state) {
        OwnEngine own;
        STSocketPool pool(own.engine.transport);
        Ends ends(pool);
        own.preferences.userMaxUpF = static_cast<f32>(state.range(0));
        Caller caller;
        Mover& sender = ends.accepted(caller);
        sender.size = static_cast<u32>(state.range(1));
        sender.left = 1'000'000;
        sender.sendNext();
        const auto begun = Clock::now();
        std::size_t got = 0;
        while (secondsSince(begun) < 10) got += caller.read(100).size();
        const double seconds = secondsSince(begun);
        state.counters["KB/s"] = static_cast<double>(got) / seconds / 1000;
        state.SetIterationTime(seconds);
        pool.stop();
        pool.deleteConnections();
        own.preferences.userMaxUpF = 0.0F;
    }
}
BENCHMARK(UploadLimit)->Args({100, 10'240})->Args({100, 180'000})->UseManualTime()->Iterations(1);

}  // namespace

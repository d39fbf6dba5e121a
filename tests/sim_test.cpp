// Whole networks in virtual time.
#include <gtest/gtest.h>

#include <cmath>

#include "meta/address.h"
#include "sim/SimClient.h"
#include "sim/SimIndex.h"

namespace {

u32 addressOfClient(int n) {
    return stringToIp(("10.0." + std::to_string(1 + n / 200) + "." + std::to_string(1 + n % 200)).c_str());
}

struct Machine {
    Machine(Simulation& world, SimNetwork& network, int n, const Link& link)
        : disk(world, SimClient::home), client(world, network.addMachine(addressOfClient(n), link), disk) {}
    SimDisk disk;
    SimClient client;
};

u64 swarm(u64 seed, int leechers, u64 size, f32 rate, bool print) {
    Simulation world(seed);
    SimNetwork network(world);
    const Synthetic film{77, size};
    SimIndex index(world, network.addMachine(stringToIp("10.0.0.1")));
    std::vector<std::unique_ptr<Machine>> all;
    for (int n = 0; n <= leechers; ++n) {
        all.push_back(std::make_unique<Machine>(world, network, n, Link{.latencyMs = 25}));
        all.back()->client.limitUp(rate);
        all.back()->client.connect(index.address());
    }
    all[0]->disk.lay("/shared/film.avi", film);
    all[0]->client.share("/shared");
    EXPECT_TRUE(world.runUntil([&] { return index.server.service().index().fileCount() > 0; }, 60'000));
    SimClient& asker = all[1]->client;
    EXPECT_TRUE(world.runUntil([&] { return asker.isOnline(); }, 60'000));
    asker.search("film");
    EXPECT_TRUE(world.runUntil([&] { return !asker.screen.results.empty(); }, 60'000)) << asker.screen.text;
    if (asker.screen.results.empty()) return 0;
    const FileMeta& result = *asker.screen.results[0];
    const i64 start = world.now().us;
    for (int n = 1; n <= leechers; ++n) all[static_cast<std::size_t>(n)]->client.download(result);
    const auto done = [&] {
        return std::all_of(all.begin() + 1, all.end(),
                           [&](const auto& one) { return one->client.hasFinished(result.hash); });
    };
    EXPECT_TRUE(world.runUntil(done, 100'000'000));
    for (std::size_t n = 1; n < all.size(); ++n)
        EXPECT_TRUE(all[n]->disk.equals("/home/incoming/film.avi", film)) << n;
    const double took = static_cast<double>(world.now().us - start) / 1e6;
    const double ideal =
        static_cast<double>(size) / (rate * 1000) + std::log2(leechers) * 9'728'000 / (rate * 1000);
    if (print)
        std::printf("%d: %.1f s, %.2f of the ideal, %llu turns\n", leechers, took, took / ideal,
                    static_cast<unsigned long long>(world.turns()));
    return world.digest();
}

TEST(Simulated, TheSameSeedGivesTheSameRun) {
    EXPECT_EQ(swarm(1, 2, 12'000'000, 4000, true), swarm(1, 2, 12'000'000, 4000, false));
    EXPECT_NE(swarm(1, 2, 12'000'000, 4000, false), swarm(2, 2, 12'000'000, 4000, false));
}

TEST(Simulated, Swarm) { swarm(1, 16, 61'000'000, 4000, true); }

}  // namespace

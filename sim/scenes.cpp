#include "sim/scenes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "sim/Scene.h"

namespace {

constexpr u64 megabyte = 1'000'000;
constexpr double patience = 4000;  // seconds: a lost source is tried again after half an hour

std::string text(const char* how, double a, double b = 0) {
    char line[128];
    std::snprintf(line, sizeof line, how, a, b);
    return line;
}

// One seed with at most `rate` KB/s, and `leechers` who want its file at once. Each of these sends at most
// `theirRate` KB/s, 0 for no limit.
void playSwarm(Scene& scene, int leechers, u64 size, f32 rate, f32 theirRate) {
    const SimFileOffer& film = scene.makeFile("film.avi", size);
    SceneClient& seed = scene.arrive("seed", rate);
    scene.share(seed, film);
    const std::vector<SceneClient*> all = scene.arrive(leechers, "leecher", theirRate);
    scene.run(10);
    const double start = scene.now();
    for (SceneClient* leecher : all) scene.fetch(*leecher, film);
    const double once = static_cast<double>(size) / (static_cast<double>(rate) * 1000);
    scene.untilAllHave(all, film, once * leechers * 3 + 600);
    const double ideal = once + std::log2(leechers) * 9.728 * static_cast<double>(megabyte) /
                                    (static_cast<double>(rate) * 1000);
    scene.tell(text("the last one took %.1f s, %.2f times the ideal", scene.now() - start,
                    (scene.now() - start) / ideal));
    scene.tell(text("the seed gave the file %.2f times",
                    static_cast<double>(scene.given(seed)) / static_cast<double>(size)));
}

void playPair(Scene& scene) { playSwarm(scene, 1, 20 * megabyte, 4000, 4000); }
void playFour(Scene& scene) { playSwarm(scene, 4, 64u << 20, 4000, 0); }
void playSixteen(Scene& scene) { playSwarm(scene, 16, 61 * megabyte, 4000, 4000); }
void playExchange(Scene& scene) { playSwarm(scene, 64, 61 * megabyte, 4000, 4000); }

// The seed is killed in the middle and comes back, and so does the leecher.
void playPowerCut(Scene& scene) {
    const SimFileOffer& film = scene.makeFile("film.avi", 30 * megabyte);
    SceneClient& seed = scene.arrive("seed", 500);
    scene.share(seed, film);
    SceneClient& leecher = scene.arrive("leecher");
    scene.run(5);
    scene.fetch(leecher, film);
    scene.until(
        "a third is there", [&] { return scene.given(seed) > 10 * megabyte; }, 60);
    seed.kill();
    scene.run(30);
    seed.comeBack();
    scene.until(
        "two thirds are there", [&] { return scene.given(seed) > 20 * megabyte; }, patience);
    leecher.kill();
    scene.run(5);
    leecher.comeBack();
    scene.untilAllHave({&leecher}, film, 2 * patience);
}

// Seed and neighbour share a router and can't be called: the index server asks the seed to call the leecher.
void playRouter(Scene& scene) {
    const SimFileOffer& film = scene.makeFile("film.avi", 5 * megabyte);
    SimRouter& router = scene.network.addRouter(
        10 | 200u << 24, {.upBytesPerSecond = 500'000, .downBytesPerSecond = 2'000'000});
    SceneClient& seed = scene.arrive("seed", 0, {}, &router);
    SceneClient& neighbour = scene.arrive("neighbour", 0, {}, &router);
    scene.share(seed, film);
    SceneClient& leecher = scene.arrive("leecher");
    scene.run(60);
    scene.fetch(leecher, film);
    scene.untilAllHave({&leecher}, film, 600);
    scene.require(scene.finishedAt(neighbour, film) < 0, "the neighbour has nothing to do with it");
}

// The line between seed and leecher is cut for a while, and reset now and then.
void playBadLine(Scene& scene) {
    const SimFileOffer& film = scene.makeFile("film.avi", 20 * megabyte);
    const Link link{.upBytesPerSecond = 800'000, .latencyMs = 80, .jitterMs = 60, .loss = 0.01};
    SceneClient& seed = scene.arrive("seed", 0, link);
    scene.share(seed, film);
    SceneClient& leecher = scene.arrive("leecher", 0, link);
    scene.run(5);
    scene.fetch(leecher, film);
    scene.until(
        "it has begun", [&] { return scene.given(seed) > 2 * megabyte; }, 60);
    scene.network.reset(seed.machine, leecher.machine);
    scene.tell("the connections of seed and leecher are reset");
    scene.until(
        "it goes on", [&] { return scene.given(seed) > 5 * megabyte; }, patience);
    scene.network.split({&leecher.machine}, 1);
    scene.tell("the leecher's line is cut");
    scene.run(300);
    scene.network.split({&leecher.machine}, 0);
    scene.tell("the leecher's line is back");
    scene.untilAllHave({&leecher}, film, 2 * patience);
}

// One honest seed and one opponent of each kind. The scene itself checks that finished files are right.
void playOpponents(Scene& scene) {
    const SimFileOffer& film = scene.makeFile("film.avi", 12 * megabyte);
    SceneClient& seed = scene.arrive("seed", 400);
    scene.share(seed, film);
    std::vector<SimOpponent*> opponents;
    for (std::size_t n = 0; n < opponentKindCount; ++n)
        opponents.push_back(&scene.oppose(opponentKinds[n].name, film));
    SceneClient& leecher = scene.arrive("leecher");
    for (SimOpponent* opponent : opponents) {
        for (const SceneClient* client : {&seed, &leecher}) opponent->visit(client->machine.address());
    }
    scene.run(5);
    scene.fetch(leecher, film);
    scene.untilAllHave({&leecher}, film, 1500);
    scene.require(leecher->isOnline() && seed->isOnline(), "both go on");
}

// One who fetches from many sources of which some mean harm, all in one way. The seed says which: of each 72
// seeds in a row, each number of sources meets each share and each way.
void playLiars(Scene& scene) {
    static constexpr const char* ways[] = {"liar",    "flipper", "turncoat", "forger",
                                           "stuffer", "miser",   "trickler", "leaver"};
    static constexpr int counts[] = {1, 4, 20};
    static constexpr int shares[] = {0, 4, 2};  // one in so many
    const u64 row = scene.seed() % 72;
    const char* way = ways[row % 8];
    const int sources = counts[row / 24];
    const int share = shares[row / 8 % 3];
    const int liars = share == 0 ? 0 : sources / share;
    const SimFileOffer& film = scene.makeFile("film.avi", 95 * megabyte);
    const Link line{.upBytesPerSecond = 400'000, .downBytesPerSecond = 4'000'000};
    for (int n = 0; n < sources; ++n) scene.oppose(n < liars ? way : "honest", film, line);
    SceneClient& leecher = scene.arrive("leecher", 0, {.downBytesPerSecond = 8'000'000});
    scene.run(5);
    const double start = scene.now();
    scene.fetch(leecher, film);
    scene.untilAllHave({&leecher}, film, patience);
    const double times = static_cast<double>(scene.taken(leecher)) / static_cast<double>(film.content.size);
    scene.tell(std::string(way) + text(", %.0f of %.0f sources", liars, sources) +
               text(": fetched %.3f times in %.0f s", times, scene.now() - start));
    scene.require(times <= 2.2, "little is fetched in vain");
}

// A thousand clients on one index server for a day: each searches now and then, and ten times fetches a file
// that somebody shares.
void playDay(Scene& scene) {
    constexpr int clients = 1000;
    constexpr int fetches = 10;
    constexpr i64 day = 24LL * 3600 * 1000;
    std::vector<const SimFileOffer*> files;
    const std::vector<SceneClient*> all = scene.arrive(clients, "client", 50);
    for (int n = 0; n < clients; n += 10) {
        files.push_back(
            &scene.makeFile("song " + std::to_string(n) + ".mp3", 300'000 + 1000 * static_cast<u64>(n)));
        scene.share(*all[static_cast<std::size_t>(n)], *files.back());
    }
    int searches = 0;
    Random& random = scene.world.random();
    for (SceneClient* client : all) {
        for (int n = 0; n < fetches; ++n) {
            const i64 when = random.below(static_cast<u32>(day - 3'600'000));
            const std::size_t which =
                (random.below(static_cast<u32>(files.size() / fetches)) * fetches + static_cast<u32>(n)) %
                files.size();
            scene.world.after(when * 1000, [&scene, &searches, client, file = files[which]] {
                (*client)->search(file->name.substr(0, 8));
                ++searches;
                scene.fetch(*client, *file);
            });
        }
    }
    scene.run(static_cast<double>(day) / 1000);
    int finished = 0;
    for (const SceneClient* client : all) {
        for (const SimFileOffer* file : files) finished += scene.finishedAt(*client, *file) >= 0;
    }
    scene.tell(text("%.0f transfers, %.0f searches", finished, searches));
    scene.require(finished > clients * fetches * 98 / 100, "nearly all transfers end");
}

}  // namespace

const SceneRow scenes[] = {
    {"pair", "one fetches a file from one", playPair},
    {"four",
     "one seed that gives 4 MB/s, four leechers, 64 MiB; bench/transfer.py --compare plays it with real "
     "clients",
     playFour},
    {"sixteen", "one seed, sixteen leechers, 61 MB at 4 MB/s each", playSixteen, SceneRow::Length::extended},
    {"exchange", "one seed, 64 leechers, 61 MB at 4 MB/s each", playExchange, SceneRow::Length::extended},
    {"power-cut", "seed and leecher lose their power and come back", playPowerCut},
    {"router", "a seed behind a router that a neighbour shares", playRouter},
    {"bad-line", "a slow line that loses, is reset and cut", playBadLine},
    {"opponents", "one honest seed, and one of each who means harm", playOpponents},
    {"liars", "many sources, of which some mean harm; the seed says which", playLiars,
     SceneRow::Length::extended},
    {"day", "a thousand clients for a day: searches and 10,000 transfers", playDay,
     SceneRow::Length::extended},
};
const std::size_t sceneCount = std::size(scenes);

const SceneRow* findScene(const char* name) {
    const auto* const row = std::find_if(
        scenes, scenes + sceneCount, [&](const SceneRow& each) { return std::strcmp(each.name, name) == 0; });
    return row == scenes + sceneCount ? nullptr : row;
}

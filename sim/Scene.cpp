#include "sim/Scene.h"

#include <algorithm>

#include "i4min/memory/mutex.h"
#include "meta/address.h"

namespace {

constexpr std::size_t shownOnFailure = 3000;  // bytes of the log's end
constexpr double rateSpan = 10;               // seconds over which a limit must hold
constexpr double rateSlack = 1.1;             // for bytes that aren't file data
constexpr double rateBurst = 300'000;         // bytes that may be sent late
const char* const sharedFolder = "/shared";

}  // namespace

// --- A client

SceneClient::SceneClient(Scene& scene, std::string itsName, SimMachine& itsMachine)
    : name(std::move(itsName)), machine(itsMachine), disk(scene.world, SimClient::home), scene_(scene) {
    scene_.picture.name(machine.address(), name);
    scene_.given_[machine.address()] = 0;
    scene_.taken_[machine.address()] = 0;
}

SceneClient::~SceneClient() = default;

void SceneClient::start() {
    client_ = std::make_unique<SimClient>(scene_.world, machine, disk);
    client_->limitUp(limitUp);
    client_->afterTurn([this] { check(); });
    client_->screen.onFinished = [this](const MD4Hash& hash, const std::string& path) {
        scene_.finished(*this, hash, path);
    };
    client_->connect(scene_.index().address());
    rateSince_ = scene_.world.now().us;
    givenBefore_ = scene_.given(*this);
}

bool SceneClient::isOn(SimIndex& index) const {
    return client_->isOnline() && client_->engine.preferences.serverIp() == index.address();
}

void SceneClient::leave() {
    scene_.tell(*this, "leaves");
    client_.reset();
}

void SceneClient::kill() {
    scene_.tell(*this, "is killed");
    machine.gone = true;
    disk.cutPower();
    client_.reset();
    disk.restart();
}

void SceneClient::comeBack() {
    scene_.tell(*this, "comes back");
    machine.gone = false;
    start();
}

// Checks what must hold after each turn.
void SceneClient::check() {
    scene_.require(!i4_holds_locks(), name + " holds a lock between two turns");
    Engine& engine = client_->engine;
    scene_.require(engine.clientApp.socketPool.count <= 2 * engine.preferences.maxCon + 4,
                   name + " has more connections than it may");
    const i4_guard guard(engine.peers);
    for (LLsafe<Peer>::Cursor c; Peer* peer = engine.peers.next(c);) {
        scene_.require(!peer->isDead(), name + " keeps a connection to nobody");
    }
    checkRate();
}

// An upload limit must hold over every span of some seconds.
void SceneClient::checkRate() {
    const double span = scene_.now() - static_cast<double>(rateSince_) / 1e6;
    if (span < rateSpan) return;
    const auto bytes = static_cast<double>(scene_.given(*this) - givenBefore_);
    if (limitUp > 0) {
        scene_.require(bytes < static_cast<double>(limitUp) * 1000 * span * rateSlack + rateBurst,
                       name + " gives more than its limit: " + formatted("%.0f KB/s", bytes / span / 1000));
    }
    rateSince_ = scene_.world.now().us;
    givenBefore_ = scene_.given(*this);
}

// --- The scene

Scene::Scene(u64 seed) : world(seed), network(world), seed_(seed) {
    addIndex();
    network.onCarried = [this](const Carried& carried) {
        const auto giver = given_.find(carried.from);
        if (giver != given_.end() && carried.to != index().address()) giver->second += carried.bytes;
        const auto taker = taken_.find(carried.to);
        if (taker != taken_.end() && carried.from != index().address()) taker->second += carried.bytes;
        picture.carried(carried.at, carried.from, carried.to, carried.bytes);
    };
}

Scene::~Scene() = default;

SimIndex& Scene::addIndex() {
    indexes_.push_back(std::make_unique<SimIndex>(world, network.addMachine(nextAddress())));
    return *indexes_.back();
}

// 10.0.0.1 and following.
u32 Scene::nextAddress() {
    const u32 n = ++machines_;
    return 10 | (n >> 16 & 0xFF) << 8 | (n / 250 & 0xFF) << 16 | (n % 250 + 1) << 24;
}

SceneClient& Scene::arrive(const std::string& name, f32 limitUp, const Link& link, SimRouter* router) {
    clients_.push_back(
        std::make_unique<SceneClient>(*this, name, network.addMachine(nextAddress(), link, router)));
    SceneClient& client = *clients_.back();
    tell(client, "arrives");
    client.limitUp = limitUp;
    client.start();
    return client;
}

std::vector<SceneClient*> Scene::arrive(int count, const std::string& name, f32 limitUp, const Link& link) {
    std::vector<SceneClient*> all;
    for (int n = 1; n <= count; ++n) all.push_back(&arrive(name + "-" + std::to_string(n), limitUp, link));
    return all;
}

const SimFileOffer& Scene::makeFile(const std::string& name, u64 bytes) {
    SimFileOffer& offer = files_[name];
    offer.name = name;
    u64 seed = world.seed();
    for (const char c : name) seed = seed * 1'000'003 + static_cast<u8>(c);
    offer.content = {seed, bytes};
    SimDisk disk(world);
    disk.lay("/file", offer.content);
    require(MD4Hash::computeFile(offer.hash, disk, "/file", offer.parts) == HashOutcome::whole,
            name + " has a hash");
    return offer;
}

void Scene::share(SceneClient& client, const SimFileOffer& file) {
    const FileIndex& published = index().server.service().index();
    const auto sources = [&] {
        const auto* numbers = published.sources(file.hash);
        return numbers ? numbers->size() : 0;
    };
    const std::size_t before = sources();
    client.disk.lay(std::string(sharedFolder) + "/" + file.name, file.content);
    client->share(sharedFolder);
    until(client.name + " publishes " + file.name, [&] { return sources() > before; });
    tell(client, "shares " + file.name);
}

void Scene::fetch(SceneClient& client, const SimFileOffer& file) {
    tell(client, "fetches " + file.name);
    FileMeta record;
    record.hash = file.hash;
    record.setName(file.name.c_str());
    record.setInt(TAG_SIZE, static_cast<u32>(file.content.size));
    client->download(record);
}

SimOpponent& Scene::oppose(const std::string& kind, const SimFileOffer& file, const Link& link) {
    const auto* const row = std::find_if(opponentKinds, opponentKinds + opponentKindCount,
                                         [&](const SimOpponentKind& each) { return each.name == kind; });
    require(row != opponentKinds + opponentKindCount, "there is an opponent " + kind);
    SimMachine& machine = network.addMachine(nextAddress(), link);
    picture.name(machine.address(), kind);
    opponentDisks_.push_back(std::make_unique<SimDisk>(world));
    opponentHosts_.push_back(std::make_unique<SimHost>(world, machine, *opponentDisks_.back()));
    opponents_.push_back(row->make(*opponentHosts_.back(), file));
    opponents_.back()->logOn(index().address());
    tell(kind + " offers " + file.name);
    return *opponents_.back();
}

void Scene::until(const std::string& what, const std::function<bool()>& holds, double seconds) {
    if (!world.runUntil(holds, static_cast<i64>(seconds * 1000)))
        require(false, "after " + formatted("%.0f s: ", seconds) + what);
}

void Scene::untilAllHave(const std::vector<SceneClient*>& clients, const SimFileOffer& file, double seconds) {
    until(
        "all have " + file.name,
        [&] {
            return std::all_of(clients.begin(), clients.end(),
                               [&](const SceneClient* client) { return finishedAt(*client, file) >= 0; });
        },
        seconds);
}

void Scene::require(bool holds, const std::string& what) {
    if (holds) return;
    const std::size_t from =
        log_.size() > shownOnFailure ? log_.find('\n', log_.size() - shownOnFailure) + 1 : 0;
    throw SceneFailure("not so at " + formatted("%.3f s", now()) + " with seed " +
                       std::to_string(world.seed()) + ": " + what + "\n" + log_.substr(from));
}

void Scene::tell(const std::string& line) { log_ += formatted("%10.3f s  ", now()) + line + "\n"; }

void Scene::tell(const SceneClient& client, const std::string& what) {
    tell(client.name + " " + what);
    picture.mark(world.now().us, client.machine.address(), what);
}

double Scene::now() const { return static_cast<double>(world.now().us) / 1e6; }

double Scene::finishedAt(const SceneClient& client, const SimFileOffer& file) const {
    const auto found = finished_.find({&client, file.name});
    return found == finished_.end() ? -1 : found->second;
}

// The engine has reported a download as finished: check its content.
void Scene::finished(SceneClient& client, const MD4Hash& hash, const std::string& path) {
    for (const auto& [name, file] : files_) {
        if (file.hash != hash) continue;
        tell(client, "has " + name);
        finished_[{&client, name}] = now();
        require(client.disk.equals(path, file.content),
                client.name + " calls a file finished that differs: " + path);
    }
}

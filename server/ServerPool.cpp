#include "server/ServerPool.h"

#include <algorithm>
#include <limits>

#include "meta/UserMeta.h"
#include "meta/address.h"
#include "server/ExServerAnnex.h"
#include "server/MainServer.h"
#include "server/Search.h"
#include "transport/ConnectRegistry.h"

namespace {

constexpr u32 pingEvery = 1'800'000;  // ms; an entry with this idle time is pinged at the next tick
constexpr u32 mostSilentPings = 5;    // with more than these, a server is removed when its next ping is due
constexpr u32 prefHigh = 1;
constexpr std::size_t mostToTry = 6000;
// ms. The time stamp comes back from the server; the limit keeps a wrong one from wrapping the rating around.
constexpr i32 longestPing = 1'000'000;

bool byRating(const Meta* a, const Meta* b) {
    return static_cast<const ServerMeta*>(a)->rating >= static_cast<const ServerMeta*>(b)->rating;
}

ServerAddress addressOf(const ServerMeta& server) { return {server.ip, static_cast<u16>(server.port)}; }

ServerAddress addressOf(const MainServer& server) { return {server.ip, static_cast<u16>(server.port.get())}; }

}  // namespace

ServerPool::ServerPool(const ServerNeeds& needs) : needs_(needs) {}
ServerPool::~ServerPool() { servers_.deleteAll(); }

void ServerPool::say(u32 number) const { needs_.core.log.printLine("%s", needs_.core.strings.get(number)); }

bool ServerPool::addServer(u32 ip, u16 port) {
    if (ip == 0 || port == 0) return false;
    auto server = std::make_unique<ServerMeta>();
    server->ip = ip;
    server->port = port;
    server->idleTime = pingEvery;
    if (servers_.addIfNew(std::move(server))) needs_.core.messages.wake();  // the first ping is due
    return true;
}

void ServerPool::removeServer(u32 ip, u16 port) {
    const i4_guard guard(servers_);
    std::unique_ptr<ServerMeta> server(servers_.find(ip, port));
    if (server) servers_.removeUnsafe(server.get());
}

bool ServerPool::isListed(const ServerAddress& address) {
    const i4_guard guard(servers_);
    return servers_.find(address.ip, address.port) != nullptr;
}

// Replaces the entry's tags. Keeps what we measured or the user set: preference, ping, counts and history.
void ServerPool::gotServerInfo(const ServerMeta& server) {
    const i4_guard guard(servers_);
    if (ServerMeta* entry = servers_.find(server.ip, server.port)) {
        const i32 ping = entry->ping;
        const u32 history = entry->history;
        const u32 pref = entry->pref;
        const u32 idleTime = entry->idleTime;
        const u32 users = entry->getUsers();
        const u32 files = entry->getFiles();
        entry->copyFrom(&server);
        entry->setPref(pref);
        entry->setPing(ping);
        entry->setCounts(users, files);
        entry->history = history;
        entry->idleTime = idleTime;
        return;
    }
    std::unique_ptr<ServerMeta> added = copyOf(server);
    // A server can't set the user's preference for it.
    added->setPref(0);
    added->history = 0;
    added->idleTime = pingEvery;
    servers_.addUnsafe(added.release());
    needs_.core.messages.wake();
}

void ServerPool::gotPing(u32 ip, u16 port, i32 ping, u32 users, u32 files) {
    const i4_guard guard(servers_);
    ServerMeta* server = servers_.find(ip, port);
    if (!server) return;
    // At least 2 ms, so that a server that answers within the same millisecond still gets a rating.
    server->setPing(std::clamp(ping, 2, longestPing));
    server->setCounts(users, files);
}

void ServerPool::load(const char* path) {
    needs_.core.files.load(servers_, path);
    const i4_guard guard(servers_);
    for (ServerList::Cursor c; ServerMeta* server = servers_.next(c);) server->idleTime = pingEvery;
}

void ServerPool::merge(const char* path) {
    ServerList read(LockRank::none);
    // What could be read counts, all of it or not.
    static_cast<void>(read.load(needs_.core.host.disk, path));
    for (ServerMeta* server : read.snapshot()) {
        server->idleTime = pingEvery;
        servers_.addIfNew(std::unique_ptr<ServerMeta>(server));
    }
    needs_.core.messages.wake();
}

void ServerPool::setSocketPool(SocketPool& pool) {
    pool_ = &pool;
    annex_ = makeRef<ExServerAnnex>(pool, *this, needs_);
    annex_->open();
}

void ServerPool::connect(const ServerAddress* target) {
    i4_lock guard(lock_);
    if (target) {
        if (connectTo(*target)) tryNextLocked();
    } else if (mainServer()) {
        say(STRINGS_ALREADY_CONNECTED);
    } else if (connecting_) {
        say(STRINGS_ALREADY_TRYING_CONNECT);
    } else {
        fillQueue();
        tryNextLocked();
    }
}

// Makes `target` the only server to try. Prints the reason and returns false if there is nothing to do.
bool ServerPool::connectTo(const ServerAddress& target) {
    if (connecting_) {
        say(STRINGS_ALREADY_TRYING_CONNECT);
        return false;
    }
    if (const Ref<MainServer> current = mainServer()) {
        if (addressOf(*current) == target) {
            say(STRINGS_ALREADY_CONNECTED_TO);
            return false;
        }
        current->close();
        mainServerGone(current.get());
    }
    auto entry = std::make_unique<ServerMeta>();
    entry->ip = target.ip;
    entry->port = target.port;
    {
        const i4_guard list(servers_);
        if (const ServerMeta* known = servers_.find(target.ip, target.port)) entry->copyFrom(known);
    }
    queue_.clear();
    queue_.push_back(std::move(entry));
    return true;
}

void ServerPool::fillQueue() {
    queue_.clear();
    const i4_guard list(servers_);
    servers_.sortUnsafe(byRating);
    for (ServerList::Cursor c; const ServerMeta* server = servers_.next(c);) {
        if (queue_.size() == mostToTry) break;
        queue_.push_back(copyOf(*server));
    }
}

// Stops trying first: otherwise the end of an attempt would start the next one.
void ServerPool::disconnect() {
    Ref<MainServer> attempt;
    {
        i4_lock guard(lock_);
        attempt = std::move(attempt_);
    }
    stopTrying();
    if (attempt) attempt->close();
    if (const Ref<MainServer> current = mainServer()) current->close();
}

void ServerPool::tryNext() {
    i4_lock guard(lock_);
    tryNextLocked();
}

void ServerPool::tryNextLocked() {
    if (queue_.empty()) {
        connecting_ = false;
        return;
    }
    const std::unique_ptr<ServerMeta> entry = std::move(queue_.front());
    queue_.pop_front();
    i4_string name;
    needs_.core.log.printLine("%s %s ....", needs_.core.strings.get(STRINGS_CONNECTING_TO),
                              entry->getName(name));
    Ref<MainServer> attempt = makeRef<MainServer>(*pool_, *this, needs_, *entry);
    if (needs_.transport.connects.connect(Ref<Connection>(attempt.get()))) {
        connecting_ = true;
        attempt_ = std::move(attempt);
    } else {
        // The same connect is already pending; its end continues the queue.
        say(STRINGS_ALREADY_TRYING_THIS_CONNECT);
    }
}

void ServerPool::stopTrying() {
    i4_lock guard(lock_);
    connecting_ = false;
    queue_.clear();
    attempt_.reset();
}

void ServerPool::serverFailed(u32 ip) {
    i4_lock guard(lock_);
    if (!connecting_) return;
    attempt_.reset();
    needs_.core.messages.post(MESSAGE_TRY_NEXT_SERVER);
    needs_.core.log.printLine("%s: %s", needs_.core.strings.get(STRINGS_CANT_CONNECT_TO),
                              ipToString(ip).c_str());
}

void ServerPool::setMainServer(MainServer* server) {
    Ref<MainServer> next(server);
    {
        i4_lock guard(mainLock_);
        std::swap(mainServer_, next);
    }
    // A cancelled attempt may still have connected, beside the one that followed it: close the older one.
    if (next && next.get() != server) next->close();
}

void ServerPool::mainServerGone(MainServer* server) {
    Ref<MainServer> old;
    {
        i4_lock guard(mainLock_);
        if (mainServer_.get() != server) return;
        std::swap(mainServer_, old);
    }
    needs_.ui.disconnected();
    needs_.events.serverGone();
    needs_.core.messages.wake();  // an automatic connect may be due
}

Ref<MainServer> ServerPool::mainServer() const {
    i4_lock guard(mainLock_);
    return mainServer_;
}

ServerAddress ServerPool::currentAddress() const {
    const Ref<MainServer> server = mainServer();
    return server ? addressOf(*server) : ServerAddress{};
}

bool ServerPool::isOnline() const {
    const Ref<MainServer> server = mainServer();
    return server && server->isLoggedOn();
}

void ServerPool::search(const Search& search, bool alternate) {
    const Ref<MainServer> server = mainServer();
    if (!server) return say(STRINGS_NOT_CONNECTED);
    if (alternate) {
        server->sendAlternateSearch(search);
    } else {
        server->sendSearch(search);
    }
    extendIndex_ = 0;
}

void ServerPool::moreResults() {
    if (const Ref<MainServer> server = mainServer()) {
        server->moreResults();
    } else {
        say(STRINGS_NOT_CONNECTED);
    }
}

void ServerPool::extendSearch(const Search& search, bool alternate) {
    const Ref<MainServer> current = mainServer();
    if (!current) return;
    ServerAddress address{};
    bool found = false;
    i4_string name;
    {
        const i4_guard list(servers_);
        u32 place = 0;
        ServerList::Cursor c;
        const ServerMeta* server = servers_.next(c);
        while (server && (place < extendIndex_ || addressOf(*server) == addressOf(*current))) {
            server = servers_.next(c);
            ++place;
        }
        extendIndex_ = place;
        found = server != nullptr;
        if (found) {
            address = addressOf(*server);
            server->getName(name);
        }
    }
    if (!found) return say(STRINGS_NO_MORE_EXTEND);
    if (alternate) {
        annex_->sendAlternateSearch(search, address);
    } else {
        annex_->sendSearch(search, address);
    }
    ++extendIndex_;
    needs_.ui.extending(name.c_str());
}

void ServerPool::gotSources(i4_file& stream, const ServerAddress& from) {
    const MD4Hash file = MD4Hash::read(stream);
    if (!needs_.events.wantsSources(file)) return;
    for (u32 count = stream.read_8(); count > 0; --count) {
        UserMeta user;
        user.id = stream.read_32();
        user.port = stream.read_16();
        user.serverIp = from.ip;
        user.serverPort = from.port;
        needs_.events.foundSource(file, user);
    }
}

bool ServerPool::findSources(const ServerAddress& address, const MD4Hash& hash) {
    const Ref<MainServer> server = mainServer();
    if (!server || !server->isLoggedOn()) return false;
    if (addressOf(*server) == address) {
        server->requestSources(hash);
    } else {
        annex_->findSources(hash, address);
    }
    return true;
}

bool ServerPool::requestCallback(u32 serverIp, u16 serverPort, u32 clientId) {
    const Ref<MainServer> server = mainServer();
    if (!server || !server->isLoggedOn()) return false;
    const ServerAddress address{serverIp, serverPort};
    if (addressOf(*server) == address) {
        server->requestCallback(clientId);
    } else {
        annex_->requestCallback(clientId, address);
    }
    return true;
}

void ServerPool::listSourceServers(std::vector<ServerAsk>& out) {
    const Ref<MainServer> current = mainServer();
    if (current) out.push_back({addressOf(*current)});
    const i4_guard list(servers_);
    servers_.sortUnsafe(byRating);
    for (ServerList::Cursor c; const ServerMeta* server = servers_.next(c);) {
        if (current && addressOf(*server) == addressOf(*current)) continue;
        if (server->history == 0) out.push_back({addressOf(*server)});
    }
}

void ServerPool::tick(i32 elapsedMs) {
    const i4_guard list(servers_);
    for (ServerList::Cursor c; ServerMeta* server = servers_.next(c);) {
        server->idleTime += static_cast<u32>(elapsedMs);
        if (server->idleTime <= pingEvery) continue;
        if (!pingDue(*server)) {
            // The walk ends with the first dead server: others wait for the next turn.
            const std::unique_ptr<ServerMeta> dead(server);
            servers_.removeUnsafe(server);
            return;
        }
    }
}

i32 ServerPool::untilDue() {
    i32 due = std::numeric_limits<i32>::max();
    const i4_guard list(servers_);
    for (ServerList::Cursor c; const ServerMeta* server = servers_.next(c);) {
        due = std::min(due, static_cast<i32>(pingEvery + 1 - std::min(server->idleTime, pingEvery + 1)));
    }
    return due;
}

// Returns false if the server is dead and must be removed.
bool ServerPool::pingDue(ServerMeta& server) {
    if (needs_.core.preferences.servRemove != 0 && server.history > mostSilentPings &&
        server.pref != prefHigh)
        return false;
    server.idleTime = 0;
    ++server.history;
    server.setPing(0);
    server.setCounts(0, 0);
    if (annex_) annex_->ping(addressOf(server));
    return true;
}

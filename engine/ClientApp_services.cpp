// What the subsystems ask of ClientApp at run time.
#include <algorithm>

#include "download/DLPool.h"
#include "download/HashThread.h"
#include "download/ShareList.h"
#include "engine/ClientApp.h"
#include "engine/CoreUIInterface.h"
#include "engine/FilterList.h"
#include "meta/UserList.h"
#include "peer/Peer.h"
#include "server/MainServer.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "transport/ConnectRegistry.h"

void ClientApp::publish() {
    const Ref<MainServer> server = needs_.servers.mainServer();
    if (!server || !needs_.hasher.isFinished()) return;
    // Uses copies: the server's connection may end at any moment, which clears `published`.
    FileList offer(LockRank::none);
    {
        const i4_guard guard(shared);
        for (FileList::Cursor c; const FileMeta* file = shared.next(c);) {
            std::unique_ptr<FileMeta> copy = copyOf(*file);
            if (published.addUnique(copy.get())) continue;
            static_cast<void>(copy.release());
            offer.add(copyOf(*file).release());
        }
    }
    // If the server has changed in the meantime, the new one has been offered nothing yet.
    if (needs_.servers.mainServer().get() != server.get()) clearPublished();
    if (offer.count() > 0) server->publish(offer);
    offer.deleteAll();
}

void ClientApp::addSharedFile(FileMeta* file) {
    shared.add(file);
    known.add(file);
    const Ref<MainServer> server = needs_.servers.mainServer();
    if (!server) return;
    FileMeta copy;
    {
        const i4_guard guard(shared);
        copy.copyFrom(file);
    }
    FileList offer(LockRank::none);
    offer.add(&copy);
    server->publish(offer);
}

void ClientApp::changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) {
    known.change(file, [&](FileMeta& record) { shared.change(&record, change); });
}

void ClientApp::clearPublished() { published.deleteAll(); }

void ClientApp::setSharedDirs(const std::vector<i4_string>& dirs) {
    shareDirs_->setDirs(dirs);
    shared.clear();
    needs_.downloads.republish();
    needs_.core.messages.post(MESSAGE_HASH_SHARED);
}

void ClientApp::getSharedDirs(std::vector<i4_string>& out) const { shareDirs_->copyTo(out); }

void ClientApp::findCollections(FileList& out) {
    Search search;
    search.add(std::make_unique<SN_StrTagCompare>(tagTable[TAG_TYPE].wireName, "col"), 0);
    shared.search(search, out, 0);
}

void ClientApp::startSearch(Ref<Search> search) {
    {
        i4_lock guard(searchLock_);
        currentSearch_ = search;
    }
    const u32 message = search->alternate ? MESSAGE_SEARCH_ALTERNATE : MESSAGE_SEARCH;
    needs_.core.messages.post(message, std::move(search));
}

bool ClientApp::extendSearch() {
    Ref<Search> search;
    {
        i4_lock guard(searchLock_);
        search = currentSearch_;
    }
    if (!search) return false;
    const u32 message = search->alternate ? MESSAGE_EXTEND_ALTERNATE : MESSAGE_EXTEND;
    needs_.core.messages.post(message, std::move(search));
    return true;
}

void ClientApp::gotResult(std::unique_ptr<FileMeta> file) {
    if (!filter_->matches(*file)) needs_.ui.addResult(std::move(file));
}

void ClientApp::gotResults(FileList* list, bool more) {
    filter_->filter(*list);
    needs_.ui.setResults(list, more ? 1 : 0);
}

bool ClientApp::isSelf(const UserMeta& user) const {
    const u32 own = needs_.core.preferences.clientId();
    if (own <= highestLowId) return user.id == own && user.serverIp == needs_.core.preferences.serverIp();
    return user.id == own && user.port == needs_.core.preferences.doorPort;
}

// Of several, one that is known goes before one that hasn't answered yet, and the user himself before a
// neighbour at the same address.
Ref<Peer> ClientApp::findPeer(const UserMeta& user) {
    Peer* best = nullptr;
    int bestRank = 0;
    const i4_guard guard(needs_.peers.peers);
    for (LL<Peer>::Cursor c; Peer* peer = needs_.peers.peers.next(c);) {
        if (!peer->sameUser(user)) continue;
        const bool isHimself = !user.hash.isZero() && peer->userHash() == user.hash;
        const int rank = 1 + (peer->isKnown() ? 2 : 0) + (isHimself ? 1 : 0);
        if (rank > bestRank) best = peer;
        bestRank = std::max(rank, bestRank);
    }
    return Ref<Peer>(best);
}

ConnectResult ClientApp::connectToUser(const UserMeta& user, Ref<Peer>& out) {
    if (isSelf(user)) return ConnectResult::impossible;
    if (const Ref<Peer> peer = findPeer(user)) {
        if (!peer->isKnown()) return ConnectResult::connecting;
        out = peer;
        return ConnectResult::peerThere;
    }
    if (socketPool.count - needs_.peers.strangers >= needs_.core.preferences.maxCon) {
        needs_.core.log.printVerbose("Can't accept more connections.\n");
        return ConnectResult::tooManyConnections;
    }
    // 0xFFFFFF counts as an address here, but as a low ID in isSelf().
    if (user.id >= highestLowId) {
        needs_.transport.connects.connect(makeRef<Peer>(socketPool, needs_.peers, user.id, user.port));
        return ConnectResult::connecting;
    }
    if (needs_.core.preferences.clientId() < highestLowId) return ConnectResult::neitherReachable;
    return needs_.servers.requestCallback(user.serverIp, user.serverPort, user.id)
               ? ConnectResult::connecting
               : ConnectResult::impossible;
}

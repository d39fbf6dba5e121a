// The handlers of MessageQ's messages.
#include <algorithm>
#include <array>

#include "download/ShareList.h"
#include "engine/Engine.h"
#include "engine/FilterList.h"
#include "meta/UserMeta.h"
#include "peer/Call.h"
#include "server/MainServer.h"
#include "server/Search.h"

namespace {

using Handler = void (*)(Engine& engine, QArgument& argument);

// Returns the message's argument, or null if it has another type; the handler then does nothing.
template <class T>
T* carried(QArgument& argument) {
    return std::get_if<T>(&argument);
}

void load(Engine& engine, QArgument&) { engine.clientApp.load(); }
void save(Engine& engine, QArgument&) { engine.clientApp.saveAll(); }
void connect(Engine& engine, QArgument& argument) {
    engine.serverPool.connect(carried<ServerAddress>(argument));
}
void disconnect(Engine& engine, QArgument&) { engine.serverPool.disconnect(); }
void tryNextServer(Engine& engine, QArgument&) { engine.serverPool.tryNext(); }

void search(Engine& engine, QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) engine.serverPool.search(**search, false);
}

void searchAlternate(Engine& engine, QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) engine.serverPool.search(**search, true);
}

void moreResults(Engine& engine, QArgument&) { engine.serverPool.moreResults(); }

void extend(Engine& engine, QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) engine.serverPool.extendSearch(**search, false);
}

void extendAlternate(Engine& engine, QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) engine.serverPool.extendSearch(**search, true);
}

void download(Engine& engine, QArgument& argument) {
    if (const auto* file = carried<std::shared_ptr<FileMeta>>(argument)) engine.dlPool.add(**file);
}

void downloadGone(Engine& engine, QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) engine.dlPool.remove(*download);
}

void pause(Engine&, QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->pause();
}

void resume(Engine&, QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->resume();
}

void cancel(Engine&, QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->cancel();
}

void hashShared(Engine& engine, QArgument&) {
    std::vector<i4_string> dirs;
    engine.clientApp.getSharedDirs(dirs);
    engine.hashThread.hashDirs(std::move(dirs));
}

void publish(Engine& engine, QArgument&) { engine.clientApp.publish(); }

void addShared(Engine& engine, QArgument& argument) {
    const auto* file = carried<std::shared_ptr<FileMeta>>(argument);
    if (!file) return;
    std::unique_ptr<FileMeta> record = copyOf(**file);
    record->date = (*file)->date;
    engine.clientApp.addSharedFile(record.release());
}

void askFriendFiles(Engine& engine, QArgument& argument) {
    const auto* user = carried<std::shared_ptr<UserMeta>>(argument);
    engine.friendList.askFiles(user ? user->get() : nullptr);
}

void openCall(Engine& engine, QArgument& argument) {
    if (const auto* user = carried<std::shared_ptr<UserMeta>>(argument))
        engine.ui.callOpened(engine.callList.open(**user));
}

void checkDisk(Engine& engine, QArgument&) { engine.dlPool.checkDisk(); }

void offerSlot(Engine& engine, QArgument& argument) {
    if (const auto* peer = carried<Ref<Peer>>(argument)) engine.dlPool.slotGranted(**peer);
}

void loadFilter(Engine& engine, QArgument&) {
    engine.clientApp.filter().load(engine.host.disk, engine.preferences.filterPath.c_str());
}

void mergeServers(Engine& engine, QArgument& argument) {
    if (const auto* path = carried<i4_string>(argument)) engine.serverPool.merge(path->c_str());
}

constexpr std::array<Handler, MESSAGE_COUNT> makeTable() {
    std::array<Handler, MESSAGE_COUNT> on{};  // null for an unused number
    on[MESSAGE_LOAD] = load;
    on[MESSAGE_SAVE] = save;
    on[MESSAGE_CONNECT] = connect;
    on[MESSAGE_DISCONNECT] = disconnect;
    on[MESSAGE_TRY_NEXT_SERVER] = tryNextServer;
    on[MESSAGE_SEARCH] = search;
    on[MESSAGE_SEARCH_ALTERNATE] = searchAlternate;
    on[MESSAGE_MORE_RESULTS] = moreResults;
    on[MESSAGE_EXTEND] = extend;
    on[MESSAGE_EXTEND_ALTERNATE] = extendAlternate;
    on[MESSAGE_DOWNLOAD] = download;
    on[MESSAGE_DOWNLOAD_GONE] = downloadGone;
    on[MESSAGE_PAUSE] = pause;
    on[MESSAGE_RESUME] = resume;
    on[MESSAGE_CANCEL] = cancel;
    on[MESSAGE_HASH_SHARED] = hashShared;
    on[MESSAGE_PUBLISH] = publish;
    on[MESSAGE_ADD_SHARED] = addShared;
    on[MESSAGE_ASK_FRIEND_FILES] = askFriendFiles;
    on[MESSAGE_OPEN_CALL] = openCall;
    on[MESSAGE_CHECK_DISK] = checkDisk;
    on[MESSAGE_OFFER_SLOT] = offerSlot;
    on[MESSAGE_LOAD_FILTER] = loadFilter;
    on[MESSAGE_MERGE_SERVERS] = mergeServers;
    return on;
}

constexpr std::array<Handler, MESSAGE_COUNT> handlers = makeTable();

}  // namespace

bool Engine::handle(u32 number, QArgument& argument) {
    if (number >= MESSAGE_COUNT || !handlers[number]) return false;
    handlers[number](*this, argument);
    return true;
}

void Engine::idle(i32 elapsedMs) {
    uploadPool.tick(elapsedMs);
    serverPool.tick(elapsedMs);
}

bool Engine::wantsServer() { return preferences.autoConnect != 0 && !serverPool.mainServer(); }
i32 Engine::untilDue() { return std::min(uploadPool.untilDue(), serverPool.untilDue()); }

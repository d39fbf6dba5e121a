#include "app/messages.h"

#include "app/ClientApp.h"
#include "app/FilterList.h"
#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "download/DLPool.h"
#include "download/HashThread.h"
#include "download/ShareList.h"
#include "meta/UserMeta.h"
#include "peer/Call.h"
#include "peer/CallList.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "server/Search.h"
#include "server/ServerPool.h"

namespace {

// What the message carries, null where it carries something else: a handler then does nothing.
template <class T>
T* carried(QArgument& argument) {
    return std::get_if<T>(&argument);
}

void load(QArgument&) { clientApp.load(); }
void save(QArgument&) { clientApp.saveAll(); }
void connect(QArgument& argument) { serverPool.connect(carried<ServerAddress>(argument)); }
void disconnect(QArgument&) { serverPool.disconnect(); }
void tryNextServer(QArgument&) { serverPool.tryNext(); }

void search(QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) serverPool.search(**search, false);
}

void searchAlternate(QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) serverPool.search(**search, true);
}

void moreResults(QArgument&) { serverPool.moreResults(); }

void extend(QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) serverPool.extendSearch(**search, false);
}

void extendAlternate(QArgument& argument) {
    if (const auto* search = carried<Ref<Search>>(argument)) serverPool.extendSearch(**search, true);
}

void download(QArgument& argument) {
    if (const auto* file = carried<std::shared_ptr<FileMeta>>(argument)) dlPool.add(**file);
}

void downloadGone(QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) dlPool.remove(*download);
}

void pause(QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->pause();
}

void resume(QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->resume();
}

void cancel(QArgument& argument) {
    if (const auto* download = carried<Ref<Download>>(argument)) (*download)->cancel();
}

void hashShared(QArgument&) {
    std::vector<i4_string> dirs;
    clientApp.getSharedDirs(dirs);
    hashThread.hashDirs(std::move(dirs));
}

void publish(QArgument&) { clientApp.publish(); }

void addShared(QArgument& argument) {
    const auto* file = carried<std::shared_ptr<FileMeta>>(argument);
    if (!file) return;
    std::unique_ptr<FileMeta> record = copyOf(**file);
    record->date = (*file)->date;
    clientApp.addSharedFile(record.release());
}

void askFriendFiles(QArgument& argument) {
    const auto* user = carried<std::shared_ptr<UserMeta>>(argument);
    friendList.askFiles(user ? user->get() : nullptr);
}

void openCall(QArgument& argument) {
    if (const auto* user = carried<std::shared_ptr<UserMeta>>(argument))
        theUI->callOpened(callList.open(**user));
}

void checkDisk(QArgument&) { dlPool.checkDisk(); }

void offerSlot(QArgument& argument) {
    if (const auto* peer = carried<Ref<Peer>>(argument)) dlPool.slotGranted(**peer);
}

void loadFilter(QArgument&) { clientApp.filter().load(preferences.filterPath.c_str()); }

void mergeServers(QArgument& argument) {
    if (const auto* path = carried<i4_string>(argument)) serverPool.merge(path->c_str());
}

constexpr MessageDuties makeDuties() {
    MessageDuties duties;
    auto& on = duties.handlers;
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
    duties.idle = [](i32 elapsedMs) {
        uploadPool.tick(elapsedMs);
        serverPool.tick(elapsedMs);
    };
    duties.wantsServer = [] { return preferences.autoConnect != 0 && !serverPool.mainServer(); };
    return duties;
}

}  // namespace

constinit const MessageDuties applicationDuties = makeDuties();

#include "remote/GUIController.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "engine/Commands.h"
#include "engine/Engine.h"
#include "i4min/network/socket.h"
#include "meta/UserMeta.h"
#include "peer/Upload.h"
#include "protocol/version.h"
#include "remote/ControllerOpcodes.h"
#include "remote/TcpipUI.h"
#include "server/MainServer.h"
#include "transport/OpcodeTable.h"
#include "transport/Transport.h"

namespace {

constexpr u32 strangerBodyLimit = 64 * 1024;
constexpr u32 controllerBodyLimit = 1024 * 1024;
constexpr u32 statusEvery = 3000;           // ms
constexpr u32 strangerStallLimit = 30'000;  // ms
constexpr u32 mostRecords = 0xFFFF;         // of a list whose count has 16 bits
constexpr u32 downloadStatusSize = 13;
constexpr u32 uploadStatusSize = 6;
constexpr u32 any = Opcode::unbounded;

// The body behind the opcode; a hash is 16 bytes and names a file.
constexpr Opcode rows[] = {
    {CTL_LOGON, "Logon", Direction::in, 4, any},  // string name, string password
    {CTL_QUIT, "Quit", Direction::in, 0, any},
    {CTL_COMMAND, "Command", Direction::in, 2, any},  // string
    {CTL_CONNECT, "Connect", Direction::in, 6, any},  // u32 ip, u16 port
    {CTL_DISCONNECT, "Disconnect", Direction::in, 0, any},
    {CTL_SEARCH, "Search", Direction::in, 0, any},  // tree
    {CTL_EXTEND, "Extend", Direction::in, 0, any},
    {CTL_MORE_RESULTS, "MoreResults", Direction::in, 0, any},
    {CTL_SEARCH_ALTERNATE, "AlternateSearch", Direction::in, 0, any},  // tree
    {CTL_EXTEND_ALTERNATE, "AlternateExtend", Direction::in, 0, any},
    {CTL_DOWNLOAD_RESULT, "DownloadResult", Direction::in, 16, any},  // hash
    {CTL_PAUSE, "Pause", Direction::in, 16, any},                     // hash
    {CTL_RESUME, "Resume", Direction::in, 16, any},                   // hash
    {CTL_CANCEL, "Cancel", Direction::in, 16, any},                   // hash
    {CTL_PRIORITY, "Priority", Direction::in, 17, any},               // hash, u8 priority
    {CTL_NOTHING, "Nothing", Direction::in, 0, any},
    {CTL_GET_SERVERS, "GetServers", Direction::in, 0, any},
    {CTL_GET_FRIENDS, "GetFriends", Direction::in, 0, any},
    {CTL_GET_SHARED_DIRS, "GetSharedDirs", Direction::in, 0, any},
    {CTL_SET_SHARED_DIRS, "SetSharedDirs", Direction::in, 2, any},  // u16 count; the rest is ignored
    {CTL_DOWNLOAD_STATUS_ON, "DownloadStatusOn", Direction::in, 0, any},
    {CTL_DOWNLOAD_STATUS_OFF, "DownloadStatusOff", Direction::in, 0, any},
    {CTL_UPLOAD_STATUS_ON, "UploadStatusOn", Direction::in, 0, any},
    {CTL_UPLOAD_STATUS_OFF, "UploadStatusOff", Direction::in, 0, any},
    {CTL_REMOVE_SERVER, "RemoveServer", Direction::in, 6, any},          // u32 ip, u16 port
    {CTL_ADD_SERVER, "AddServer", Direction::in, 6, any},                // u32 ip, u16 port
    {CTL_SERVER_PREFERENCE, "ServerPreference", Direction::in, 7, any},  // u32 ip, u16 port, u8 preference
    {CTL_GET_SHARED_FILES, "GetSharedFiles", Direction::in, 0, any},
    {CTL_GET_SETTINGS, "GetSettings", Direction::in, 0, any},
    {CTL_DOWNLOAD_RECORD, "DownloadRecord", Direction::in, 0, any},  // file
    {CTL_SERVERS, "Servers", Direction::out, 4, any},                // list of servers
    {CTL_FRIENDS, "Friends", Direction::out, 0, any},                // list of users; as an event nothing
    {CTL_SHARED_DIRS, "SharedDirs", Direction::out, 2, any},         // u16 count, count strings
    {CTL_SHARED_FILES, "SharedFiles", Direction::out, 4, any},       // list of files
    {CTL_PRINT_LINE, "PrintLine", Direction::out, 2, any},           // string
    {CTL_PRINT, "Print", Direction::out, 2, any},                    // string
    {CTL_CONNECTED, "Connected", Direction::out, 2, any},            // string
    {CTL_DISCONNECTED, "Disconnected", Direction::out, 0, 0},
    {CTL_SERVER_STATS, "ServerStats", Direction::out, 8, 8},            // u32 files, u32 users
    {CTL_EXTENDING, "Extending", Direction::out, 2, any},               // string
    {CTL_RESULT, "Result", Direction::out, 26, any},                    // file
    {CTL_RESULTS, "Results", Direction::out, 5, any},                   // list of files, u8 more
    {CTL_DOWNLOAD_ADDED, "DownloadAdded", Direction::out, 27, any},     // file, u8 priority
    {CTL_DOWNLOAD_REMOVED, "DownloadRemoved", Direction::out, 16, 16},  // hash
    {CTL_UPLOAD_ADDED, "UploadAdded", Direction::out, 28, any},         // string file name, user
    {CTL_UPLOAD_REMOVED, "UploadRemoved", Direction::out, 16, 16},      // 16 bytes user hash
    {CTL_SLOT_ADDED, "SlotAdded", Direction::out, 6, any},              // u32 slot, string user name
    {CTL_SLOT_REMOVED, "SlotRemoved", Direction::out, 4, 4},            // u32 slot
    {CTL_FRIEND_FILES, "FriendFiles", Direction::out, 4, any},          // list of files
    {CTL_HASHING, "Hashing", Direction::out, 2, any},                   // string
    {CTL_DOWNLOAD_STATUS, "DownloadStatus", Direction::out, 2, any},    // see below
    {CTL_UPLOAD_STATUS, "UploadStatus", Direction::out, 2, any},        // see below
    {CTL_SETTINGS, "Settings", Direction::out, 31, any},                // see sendSettings
};
constexpr OpcodeTable table(rows);

bool isLoopback(u32 ip) { return (ip & 0xFF) == 127; }

ServerAddress readAddress(i4_file& stream) {
    const u32 ip = stream.read_32();
    return {ip, stream.read_16()};
}

}  // namespace

GUIController::GUIController(SocketPool& socketPool, TcpipUI& ui, std::unique_ptr<i4_socket> accepted)
    : Connection(socketPool, std::move(accepted)),
      statusThread_(
          transport().host.scheduler, [this] { sendStatus(); }, statusEvery),
      ui_(ui),
      engine_(ui.engine()),
      search_(new Search) {
    ++ui_.strangers;
}

GUIController::~GUIController() = default;

Ref<Download> GUIController::readDownload(i4_file& stream) {
    return engine_.dlPool.findByRecord(MD4Hash::read(stream));
}

const OpcodeTable* GUIController::opcodes() const { return &table; }
u32 GUIController::bodyLimit() const { return loggedOn_ ? controllerBodyLimit : strangerBodyLimit; }
u32 GUIController::stallLimit() const { return loggedOn_ ? Connection::stallLimit() : strangerStallLimit; }

void GUIController::doTask(SocketPool* socketPool) {
    if (!loggedOn_ && ui_.logonGuard.isBlocked(remoteIp(), transport().host.clock.ticks())) close();
    Connection::doTask(socketPool);
    if ((bytesSent != 0 || bytesReceived != 0)) pool().noteProgress();
    bytesSent = 0;
    bytesReceived = 0;
}

const Budgets& GUIController::budgets() const {
    static constexpr Budgets unlimited;
    return unlimited;
}

void GUIController::gone() {
    if (!loggedOn_) --ui_.strangers;
    ui_.detach(*this);
    statusThread_.stop();
}

bool GUIController::firstMessage(u8 opcode, i4_ram_file_class& stream) {
    if (opcode != CTL_LOGON || !logOn(stream)) return false;
    gotFirst = 1;
    loggedOn_ = true;
    --ui_.strangers;
    sendStartState();
    return true;
}

// The reason of a refusal stays on the local console: the controller gets no answer.
bool GUIController::logOn(i4_file& stream) {
    const i4_string name(stream);
    const i4_string password(stream);
    const bool open = name.length() == 0 || password.length() == 0;
    if (engine_.preferences.adminName() != name || engine_.preferences.adminPass() != password ||
        (open && !isLoopback(remoteIp()))) {
        ui_.logonGuard.refused(remoteIp(), transport().host.clock.ticks());
        engine_.ui.printLine("Invalid name and pass");
        return false;
    }
    if (!ui_.attach(*this)) {
        engine_.ui.printLine("Another Control attempt");
        return false;
    }
    return true;
}

void GUIController::sendStartState() {
    if (const Ref<MainServer> server = engine_.serverPool.mainServer()) {
        const i4_string name = server->getText();
        auto packet = makePacket(CTL_CONNECTED, static_cast<u32>(2 + name.length()));
        name.write(packet->stream);
        send(std::move(packet));
    }
    if (LLsafe<Download>* downloads = ui_.getDownloads()) {
        const i4_guard guard(*downloads);
        for (LL<Download>::Cursor c; Download* download = downloads->next(c);) sendDownload(*download);
    }
    if (LLsafe<Upload>* uploads = ui_.getUploads()) {
        const i4_guard guard(*uploads);
        for (LL<Upload>::Cursor c; const Upload* upload = uploads->next(c);) sendUpload(*upload);
    }
}

bool GUIController::handleMessage(u8 opcode, i4_ram_file_class& stream) {
    switch (opcode) {
        case CTL_QUIT:
            statusThread_.stop();
            ui_.commands().quit();
            return true;
        case CTL_COMMAND:
            runCommand(stream);
            return true;
        case CTL_NOTHING:
            return true;
        case CTL_DOWNLOAD_STATUS_ON:
            wantStatus(downloadStatus_, 1);
            return true;
        case CTL_DOWNLOAD_STATUS_OFF:
            wantStatus(downloadStatus_, 0);
            return true;
        case CTL_UPLOAD_STATUS_ON:
            wantStatus(uploadStatus_, 1);
            return true;
        case CTL_UPLOAD_STATUS_OFF:
            wantStatus(uploadStatus_, 0);
            return true;
        default:
            return handleEngine(opcode, stream);
    }
}

bool GUIController::handleEngine(u8 opcode, i4_ram_file_class& stream) {
    switch (opcode) {
        case CTL_CONNECT:
            connectToServer(stream);
            return true;
        case CTL_DISCONNECT:
            engine_.messageQ.post(MESSAGE_DISCONNECT);
            return true;
        case CTL_SEARCH:
            startSearch(MESSAGE_SEARCH, stream);
            return true;
        case CTL_EXTEND:
            engine_.messageQ.post(MESSAGE_EXTEND, search_);
            return true;
        case CTL_MORE_RESULTS:
            engine_.messageQ.post(MESSAGE_MORE_RESULTS);
            return true;
        case CTL_SEARCH_ALTERNATE:
            startSearch(MESSAGE_SEARCH_ALTERNATE, stream);
            return true;
        case CTL_EXTEND_ALTERNATE:
            engine_.messageQ.post(MESSAGE_EXTEND_ALTERNATE, search_);
            return true;
        case CTL_DOWNLOAD_RESULT:
            downloadResult(stream);
            return true;
        case CTL_DOWNLOAD_RECORD:
            downloadRecord(stream);
            return true;
        case CTL_PAUSE:
            if (const Ref<Download> download = readDownload(stream)) download->pause();
            return true;
        case CTL_RESUME:
            if (const Ref<Download> download = readDownload(stream)) download->resume();
            return true;
        case CTL_CANCEL:
            if (const Ref<Download> download = readDownload(stream)) download->cancel();
            return true;
        case CTL_PRIORITY:
            setDownloadPriority(stream);
            return true;
        default:
            return handleSettings(opcode, stream);
    }
}

bool GUIController::handleSettings(u8 opcode, i4_ram_file_class& stream) {
    switch (opcode) {
        case CTL_GET_SERVERS:
            send(makePacket(CTL_SERVERS, engine_.serverPool.servers()));
            return true;
        case CTL_GET_FRIENDS:
            send(makePacket(CTL_FRIENDS, engine_.friendList));
            return true;
        case CTL_GET_SHARED_DIRS:
            sendSharedDirs();
            return true;
        case CTL_SET_SHARED_DIRS:
            stream.read_16();
            return true;
        case CTL_GET_SHARED_FILES:
            send(makePacket(CTL_SHARED_FILES, engine_.clientApp.shared));
            return true;
        case CTL_GET_SETTINGS:
            sendSettings();
            return true;
        case CTL_REMOVE_SERVER: {
            const ServerAddress server = readAddress(stream);
            engine_.serverPool.removeServer(server.ip, server.port);
            return true;
        }
        case CTL_ADD_SERVER: {
            const ServerAddress server = readAddress(stream);
            engine_.serverPool.addServer(server.ip, server.port);
            return true;
        }
        case CTL_SERVER_PREFERENCE:
            setServerPreference(stream);
            return true;
        default:
            return Connection::handleMessage(opcode, stream);
    }
}

void GUIController::runCommand(i4_file& stream) {
    const i4_string line(stream);
    ui_.commands().dispatch(line.c_str());
}

// A server that isn't on the list means any server.
void GUIController::connectToServer(i4_file& stream) {
    const ServerAddress address = readAddress(stream);
    engine_.messageQ.post(MESSAGE_CONNECT,
                          engine_.serverPool.isListed(address) ? QArgument(address) : QArgument());
}

// A tree that can't be read leaves an empty search, and the request goes on with that.
void GUIController::startSearch(u32 message, i4_file& stream) {
    search_ = Ref<Search>(new Search);
    search_->fromBytes(stream);
    engine_.messageQ.post(message, search_);
}

void GUIController::downloadResult(i4_file& stream) {
    if (auto file = ui_.findResult(MD4Hash::read(stream)))
        engine_.messageQ.post(MESSAGE_DOWNLOAD, std::move(file));
}

void GUIController::downloadRecord(i4_file& stream) {
    auto file = std::make_shared<FileMeta>();
    if (file->fromNetwork(stream)) engine_.messageQ.post(MESSAGE_DOWNLOAD, std::move(file));
}

void GUIController::setDownloadPriority(i4_file& stream) {
    const Ref<Download> download = readDownload(stream);
    const u8 priority = stream.read_8();
    if (download && priority <= 2) download->priority = priority;
}

void GUIController::setServerPreference(i4_file& stream) {
    const ServerAddress address = readAddress(stream);
    const u8 preference = stream.read_8();
    if (preference > 2) return;
    ServerList& servers = engine_.serverPool.servers();
    const i4_guard guard(servers);
    if (ServerMeta* server = servers.find(address.ip, address.port)) server->setPref(preference);
}

void GUIController::wantStatus(Relaxed<u8>& status, u8 wanted) {
    status = wanted;
    if (wanted) {
        statusThread_.start();
    } else if (uploadStatus_ == 0 && downloadStatus_ == 0) {
        statusThread_.stop();
    }
}

void GUIController::sendSharedDirs() {
    std::vector<i4_string> dirs;
    engine_.clientApp.getSharedDirs(dirs);
    if (dirs.size() > mostRecords) dirs.resize(mostRecords);
    u32 size = 2;
    for (const i4_string& dir : dirs) size += static_cast<u32>(2 + dir.length());
    auto packet = makePacket(CTL_SHARED_DIRS, size);
    packet->stream.write_16(static_cast<u16>(dirs.size()));
    for (const i4_string& dir : dirs) dir.write(packet->stream);
    send(std::move(packet));
}

//   u16 version 59            f32 download limit      f32 upload limit         u16 door port
//   u16 connections           string user name        string temp directory    string incoming directory
//   u8 auto connect           u8 remove dead servers  u8 who may call          u8 keep corrupted
//   u8 confirm cancel         u16 controller port     u32 connections again
void GUIController::sendSettings() {
    const i4_string texts[] = {engine_.preferences.getName(), engine_.preferences.tempDir(),
                               engine_.preferences.incomingDir()};
    auto packet = makePacket(CTL_SETTINGS, 32);
    i4_ram_file_class& body = packet->stream;
    body.write_16(protocolVersion);
    body.write_float(engine_.preferences.userMaxDownF);
    body.write_float(engine_.preferences.userMaxUpF);
    body.write_16(static_cast<u16>(engine_.preferences.doorPort.get()));
    body.write_16(static_cast<u16>(engine_.preferences.maxCon.get()));
    for (const i4_string& text : texts) text.write(body);
    for (const i32 flag : {engine_.preferences.autoConnect.get(), engine_.preferences.servRemove.get(),
                           engine_.preferences.pmAllow.get(), engine_.preferences.saveCor.get(),
                           engine_.preferences.verifyCancel.get()}) {
        body.write_8(static_cast<u8>(flag));
    }
    body.write_16(static_cast<u16>(engine_.preferences.adminDoorPort.get()));
    body.write_32(static_cast<u32>(engine_.preferences.maxCon.get()));
    packet->finish();
    send(std::move(packet));
}

void GUIController::sendDownload(Download& download) {
    const Ref<PartialFile> partial = download.partialRef();
    if (!partial) return;
    FileMeta record;
    partial->copyMeta(record);
    auto packet = makePacket(CTL_DOWNLOAD_ADDED, record.byteSize() + 1);
    record.toNetwork(packet->stream);
    packet->stream.write_8(static_cast<u8>(download.priority.get()));
    packet->finish();
    send(std::move(packet));
}

void GUIController::sendUpload(const Upload& upload) {
    if (!upload.getName()) return;
    {
        i4_lock guard(toldLock_);
        if (!toldUploads_.insert(&upload).second) return;
    }
    UserMeta user;
    upload.copyPeerUser(user);
    user.hash = upload.userHash();  // the one with which its end is told
    auto packet =
        makePacket(CTL_UPLOAD_ADDED, static_cast<u32>(2 + i4_strlen(upload.getName())) + user.byteSize());
    i4_write_string(packet->stream, upload.getName());
    user.toNetwork(packet->stream);
    packet->finish();
    send(std::move(packet));
}

void GUIController::sendUploadGone(const Upload& upload) {
    {
        i4_lock guard(toldLock_);
        if (toldUploads_.erase(&upload) == 0) return;
    }
    const MD4Hash hash = upload.userHash();
    auto packet = makePacket(CTL_UPLOAD_REMOVED, MD4Hash::streamSize);
    hash.write(packet->stream);
    send(std::move(packet));
}

void GUIController::sendStatus() {
    if (uploadStatus_ != 0) sendUploadStatus();
    if (downloadStatus_ != 0) sendDownloadStatus();
}

//   u16 count, then for each: u16 place in the list from 0, f32 KB/s
void GUIController::sendUploadStatus() {
    LLsafe<Upload>* uploads = ui_.getUploads();
    if (!uploads) return;
    const i4_guard guard(*uploads);
    const u32 count = std::min(mostRecords, static_cast<u32>(uploads->countUnsafe()));
    auto packet = makePacket(CTL_UPLOAD_STATUS, 2 + count * uploadStatusSize);
    packet->stream.write_16(static_cast<u16>(count));
    u32 index = 0;
    for (LL<Upload>::Cursor c; const Upload* upload = index < count ? uploads->next(c) : nullptr;) {
        packet->stream.write_16(static_cast<u16>(index++));
        packet->stream.write_float(upload->speed);
    }
    send(std::move(packet));
}

//   u16 count, then for each: u16 place in the list from 0, u8 status, f32 KB/s, u32 bytes transferred,
//   u8 availability in percent, u8 number of ranges
void GUIController::sendDownloadStatus() {
    LLsafe<Download>* downloads = ui_.getDownloads();
    if (!downloads) return;
    const i4_guard guard(*downloads);
    const u32 count = std::min(mostRecords, static_cast<u32>(downloads->countUnsafe()));
    auto packet = makePacket(CTL_DOWNLOAD_STATUS, 2 + count * downloadStatusSize);
    packet->stream.write_16(static_cast<u16>(count));
    u32 index = 0;
    for (LL<Download>::Cursor c; Download* download = index < count ? downloads->next(c) : nullptr;) {
        const Ref<PartialFile> partial = download->partialRef();
        packet->stream.write_16(static_cast<u16>(index++));
        packet->stream.write_8(static_cast<u8>(download->getStatus()));
        packet->stream.write_float(download->speed);
        packet->stream.write_32(partial ? partial->transferred() : 0);
        packet->stream.write_8(static_cast<u8>(download->availabilityPercent()));
        packet->stream.write_8(static_cast<u8>(std::min<u32>(255, download->progress().count())));
    }
    send(std::move(packet));
}

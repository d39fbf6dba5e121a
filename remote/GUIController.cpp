#include "remote/GUIController.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "core/Settings.h"
#include "engine/Commands.h"
#include "engine/Engine.h"
#include "i4min/network/socket.h"
#include "meta/UserMeta.h"
#include "peer/Upload.h"
#include "protocol/ControllerProtocol.h"
#include "protocol/Handlers.h"
#include "protocol/version.h"
#include "remote/TcpipUI.h"
#include "server/MainServer.h"
#include "transport/Transport.h"

namespace {

constexpr u32 strangerBodyLimit = 64 * 1024;
constexpr u32 controllerBodyLimit = 1024 * 1024;
constexpr u32 statusEvery = 3000;           // ms
constexpr u32 strangerStallLimit = 30'000;  // ms
constexpr u32 mostRecords = 0xFFFF;         // the list's count has 16 bits
constexpr u32 downloadStatusSize = 13;
constexpr u32 uploadStatusSize = 6;

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
      search_(makeRef<Search>()) {
    ++ui_.strangers;
}

GUIController::~GUIController() = default;

Ref<Download> GUIController::readDownload(i4_file& stream) {
    return engine_.dlPool.findAny(MD4Hash::read(stream));
}

const OpcodeTable* GUIController::opcodes() const { return &controllerMessages; }
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

// Only the local console shows the reason of a refusal; the controller gets no answer.
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

// Maps opcodes to handlers. Every incoming opcode of the protocol must be in it.
struct GUIController::Table {
    using Body = i4_ram_file_class;
    template <auto member>
    static constexpr auto by = handleBy<GUIController, member>;
    template <auto member>
    static bool download(GUIController& self, Body& body) {
        if (const Ref<Download> found = self.readDownload(body)) ((*found).*member)();
        return true;
    }
    template <u32 message>
    static bool search(GUIController& self, Body& body) {
        self.startSearch(message, body);
        return true;
    }
    template <u32 message>
    static bool extend(GUIController& self, Body&) {
        self.engine_.messageQ.post(message, self.search_);
        return true;
    }
    template <u32 message>
    static bool post(GUIController& self, Body&) {
        self.engine_.messageQ.post(message);
        return true;
    }
    template <Relaxed<u8> GUIController::*status, u8 wanted>
    static bool want(GUIController& self, Body&) {
        self.wantStatus(self.*status, wanted);
        return true;
    }

    static constexpr Handler<GUIController> rows[] = {
        // Already logged on.
        {CTL_LOGON,
         [](GUIController& self, Body& body) { return self.Connection::handleMessage(CTL_LOGON, body); }},
        {CTL_QUIT, by<&GUIController::quit>},
        {CTL_COMMAND, by<&GUIController::runCommand>},
        {CTL_CONNECT, by<&GUIController::connectToServer>},
        {CTL_DISCONNECT, post<MESSAGE_DISCONNECT>},
        {CTL_SEARCH, search<MESSAGE_SEARCH>},
        {CTL_EXTEND, extend<MESSAGE_EXTEND>},
        {CTL_MORE_RESULTS, post<MESSAGE_MORE_RESULTS>},
        {CTL_SEARCH_ALTERNATE, search<MESSAGE_SEARCH_ALTERNATE>},
        {CTL_EXTEND_ALTERNATE, extend<MESSAGE_EXTEND_ALTERNATE>},
        {CTL_DOWNLOAD_RESULT, by<&GUIController::downloadResult>},
        {CTL_PAUSE, download<&Download::pause>},
        {CTL_RESUME, download<&Download::resume>},
        {CTL_CANCEL, download<&Download::cancel>},
        {CTL_PRIORITY, by<&GUIController::setDownloadPriority>},
        {CTL_NOTHING, by<&GUIController::nothing>},
        {CTL_GET_SERVERS, by<&GUIController::sendServers>},
        {CTL_GET_FRIENDS, by<&GUIController::sendFriends>},
        {CTL_GET_SHARED_DIRS, by<&GUIController::sendSharedDirs>},
        {CTL_SET_SHARED_DIRS, by<&GUIController::setSharedDirs>},
        {CTL_DOWNLOAD_STATUS_ON, want<&GUIController::downloadStatus_, 1>},
        {CTL_DOWNLOAD_STATUS_OFF, want<&GUIController::downloadStatus_, 0>},
        {CTL_UPLOAD_STATUS_ON, want<&GUIController::uploadStatus_, 1>},
        {CTL_UPLOAD_STATUS_OFF, want<&GUIController::uploadStatus_, 0>},
        {CTL_REMOVE_SERVER, by<&GUIController::removeServer>},
        {CTL_ADD_SERVER, by<&GUIController::addServer>},
        {CTL_SERVER_PREFERENCE, by<&GUIController::setServerPreference>},
        {CTL_GET_SHARED_FILES, by<&GUIController::sendSharedFiles>},
        {CTL_GET_SETTINGS, by<&GUIController::sendSettings>},
        {CTL_DOWNLOAD_RECORD, by<&GUIController::downloadRecord>},
    };
};

bool GUIController::handleMessage(u8 opcode, i4_ram_file_class& stream) {
    static_assert(handlesAll(controllerMessages, Direction::in, Table::rows));
    const Handler<GUIController>* row = findHandler(Table::rows, opcode);
    return row ? row->handle(*this, stream) : Connection::handleMessage(opcode, stream);
}

void GUIController::nothing() {}
void GUIController::sendServers() { send(makePacket(CTL_SERVERS, engine_.serverPool.servers())); }
void GUIController::sendFriends() { send(makePacket(CTL_FRIENDS, engine_.friendList)); }
void GUIController::sendSharedFiles() { send(makePacket(CTL_SHARED_FILES, engine_.clientApp.shared)); }
void GUIController::setSharedDirs(i4_file& stream) { stream.read_16(); }

void GUIController::quit() {
    statusThread_.stop();
    ui_.commands().quit();
}

void GUIController::removeServer(i4_file& stream) {
    const ServerAddress server = readAddress(stream);
    engine_.serverPool.removeServer(server.ip, server.port);
}

void GUIController::addServer(i4_file& stream) {
    const ServerAddress server = readAddress(stream);
    engine_.serverPool.addServer(server.ip, server.port);
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

// If the tree can't be read, an empty search is started.
void GUIController::startSearch(u32 message, i4_file& stream) {
    search_ = makeRef<Search>();
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
    auto packet = makePacket(CTL_SETTINGS, 32);
    i4_ram_file_class& body = packet->stream;
    body.write_16(protocolVersion);
    for (u8 place = 1; const Setting* row = setting::at(place, &Setting::message); ++place) {
        const SettingValue value = engine_.preferences.value(*row);
        if (row->isText()) {
            value.text.write(body);
        } else if (row->form.type == META_TAG_FLOAT) {
            body.write_float(value);
        } else if (row->message.bytes == 1) {
            body.write_8(static_cast<u8>(i32{value}));
        } else {
            body.write_16(static_cast<u16>(i32{value}));
        }
    }
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
    packet->put(record);
    packet->stream.write_8(static_cast<u8>(download.priority.get()));
    packet->finish();
    send(std::move(packet));
}

void GUIController::sendUpload(const Upload& upload) {
    if (!upload.getName()) return;
    {
        i4_lock guard(reportedLock_);
        if (!reportedUploads_.insert(&upload).second) return;
    }
    UserMeta user;
    upload.copyPeerUser(user);
    user.hash = upload.userHash();  // the same hash identifies the upload when its end is sent
    auto packet =
        makePacket(CTL_UPLOAD_ADDED, static_cast<u32>(2 + i4_strlen(upload.getName())) + user.byteSize());
    i4_write_string(packet->stream, upload.getName());
    packet->put(user);
    packet->finish();
    send(std::move(packet));
}

void GUIController::sendUploadGone(const Upload& upload) {
    {
        i4_lock guard(reportedLock_);
        if (reportedUploads_.erase(&upload) == 0) return;
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

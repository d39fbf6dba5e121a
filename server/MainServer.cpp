#include "server/MainServer.h"

#include <memory>

#include "meta/FileList.h"
#include "meta/UserList.h"
#include "server/Search.h"
#include "server/ServerDesk.h"
#include "server/ServerNeeds.h"
#include "transport/OpcodeTable.h"

namespace {

constexpr u32 logOnBodyLimit = 64 * 1024;
constexpr u32 loggedOnBodyLimit = 16 * 1024 * 1024;

enum ServerOpcode : u8 {
    OP_LOGON = 1,
    OP_OUT_OF_DATE = 5,
    OP_GET_SERVER_LIST = 20,
    OP_PUBLISH_FILES = 21,
    OP_SEARCH_REQUEST = 22,
    OP_GET_SOURCES = 25,
    OP_ALTERNATE_SEARCH_REQUEST = 26,
    OP_REQUEST_CALLBACK = 28,
    OP_MORE_RESULTS = 33,
    OP_SERVER_LIST = 50,
    OP_SEARCH_RESULTS = 51,
    OP_SERVER_STATUS = 52,
    OP_CALLBACK_ASKED = 53,
    OP_CALLBACK_FAILED = 54,
    OP_SERVER_MESSAGE = 56,
    OP_DROPPED_TEXT = 62,
    OP_DROPPED_USER = 63,
    OP_CLIENT_ID_CHANGE = 64,
    OP_SERVER_IDENT = 65,
    OP_FOUND_SOURCES = 66,
    OP_FOUND_USERS = 67,
};

// The body behind the opcode. A record is a list of tags: u32 count and the tags.
constexpr Opcode rows[] = {
    // out
    {OP_LOGON, "Logon", Direction::out, 26, Opcode::unbounded},  // hash, u32 id, u16 port, record
    {OP_GET_SERVER_LIST, "GetServerList", Direction::out, 0, 0},
    {OP_PUBLISH_FILES, "PublishFiles", Direction::out, 4, Opcode::unbounded},    // list of files
    {OP_SEARCH_REQUEST, "SearchRequest", Direction::out, 0, Opcode::unbounded},  // tree
    {OP_GET_SOURCES, "GetSources", Direction::out, 16, 16},                      // hash
    {OP_ALTERNATE_SEARCH_REQUEST, "AlternateSearchRequest", Direction::out, 0, Opcode::unbounded},  // tree
    {OP_REQUEST_CALLBACK, "RequestCallback", Direction::out, 4, 4},                                 // u32 id
    {OP_MORE_RESULTS, "MoreResults", Direction::out, 0, 0},
    // in
    {OP_OUT_OF_DATE, "OutOfDate", Direction::in, 0, Opcode::unbounded},   // not read
    {OP_SERVER_LIST, "ServerList", Direction::in, 1, Opcode::unbounded},  // u8 count, (u32 ip, u16 port)
    {OP_SEARCH_RESULTS, "SearchResults", Direction::in, 5, Opcode::unbounded},     // list of files, u8 more
    {OP_SERVER_STATUS, "ServerStatus", Direction::in, 8, Opcode::unbounded},       // u32 users, u32 files
    {OP_CALLBACK_ASKED, "CallbackAsked", Direction::in, 6, Opcode::unbounded},     // u32 ip, u16 port
    {OP_CALLBACK_FAILED, "CallbackFailed", Direction::in, 4, Opcode::unbounded},   // u32 id
    {OP_SERVER_MESSAGE, "ServerMessage", Direction::in, 2, Opcode::unbounded},     // string
    {OP_DROPPED_TEXT, "DroppedText", Direction::in, 6, Opcode::unbounded},         // u32, string
    {OP_DROPPED_USER, "DroppedUser", Direction::in, 1, Opcode::unbounded},         // u8 count, user
    {OP_CLIENT_ID_CHANGE, "ClientIdChange", Direction::in, 4, Opcode::unbounded},  // u32 id
    {OP_SERVER_IDENT, "ServerIdent", Direction::in, 26, Opcode::unbounded},  // hash, u32 ip, u16 port, record
    {OP_FOUND_SOURCES, "FoundSources", Direction::in, 16, Opcode::unbounded},  // hash, u8 count, (u32, u16)
    {OP_FOUND_USERS, "FoundUsers", Direction::in, 4, Opcode::unbounded},       // list of users
};
constexpr OpcodeTable table(rows);

// A list off a stream with its records; null where it can't be read.
template <class List>
OwnedList<List> readList(i4_file& stream) {
    OwnedList<List> list(new List);
    if (!list->fromNetwork(stream)) list.reset();
    return list;
}

}  // namespace

MainServer::MainServer(SocketPool& pool, ServerDesk& desk, const ServerNeeds& needs, const ServerMeta& server)
    : Connection(pool, server.ip, server.port), desk_(desk), needs_(needs) {
    server_.copyFrom(&server);
}

const OpcodeTable* MainServer::opcodes() const { return &table; }

u32 MainServer::bodyLimit() const { return isLoggedOn() ? loggedOnBodyLimit : logOnBodyLimit; }
u32 MainServer::stallLimit() const { return 0; }

void MainServer::connected() {
    needs_.core.log.printLine("%s", needs_.core.strings.get(STRINGS_PLACED_ON_Q));
    auto packet = makePacket(OP_LOGON, needs_.core.preferences.selfByteSize());
    needs_.core.preferences.writeSelf(packet->stream);
    packet->finish();
    send(std::move(packet));
    desk_.setMainServer(this);
}

void MainServer::gone() {
    desk_.mainServerGone(this);
    // One that the user gave up has not failed.
    if (!isLoggedOn() && !isClosing()) desk_.serverFailed(ip);
}

bool MainServer::handleMessage(u8 opcode, i4_ram_file_class& stream) {
    switch (opcode) {
        case OP_OUT_OF_DATE:
            if (needs_.core.log.mayComplain(UIInterface::Complaint::serverOutOfDate))
                needs_.core.log.printLine("Either your client or the server is out of date.");
            return true;
        case OP_SERVER_LIST:
            return gotServerList(stream);
        case OP_SEARCH_RESULTS:
            return gotSearchResults(stream);
        case OP_SERVER_STATUS: {
            const u32 users = stream.read_32();
            needs_.ui.serverStats(stream.read_32(), users);
            return true;
        }
        case OP_CALLBACK_ASKED:
            return gotCallbackAsked(stream);
        case OP_CALLBACK_FAILED:
            needs_.events.callbackFailed(ip, stream.read_32());
            return true;
        case OP_SERVER_MESSAGE:
            if (needs_.core.log.mayComplain(UIInterface::Complaint::serverMessage))
                needs_.core.log.printLine("%s", i4_string(stream).c_str());
            return true;
        case OP_DROPPED_TEXT:
            stream.read_32();
            static_cast<void>(i4_string(stream));
            return true;
        case OP_DROPPED_USER:
            if (stream.read_8() != 0) static_cast<void>(UserMeta().fromNetwork(stream));
            return true;
        case OP_CLIENT_ID_CHANGE:
            return gotClientId(stream);
        case OP_SERVER_IDENT:
            return gotServerIdent(stream);
        case OP_FOUND_SOURCES:
            return gotSources(stream);
        case OP_FOUND_USERS:
            return gotUsers(stream);
        default:
            return Connection::handleMessage(opcode, stream);
    }
}

bool MainServer::gotServerList(i4_file& stream) {
    for (u32 count = stream.read_8(); count > 0; --count) {
        const u32 serverIp = stream.read_32();
        const u16 serverPort = stream.read_16();
        if (desk_.hasRoomForServers()) desk_.addServer(serverIp, serverPort);
    }
    return true;
}

bool MainServer::gotSearchResults(i4_file& stream) {
    OwnedList<FileList> list = readList<FileList>(stream);
    if (!list) return false;
    const bool more = stream.read_8() != 0;
    needs_.events.gotResults(list.release(), more);
    return true;
}

// We can't be reached, and somebody wants to be called by us.
bool MainServer::gotCallbackAsked(i4_file& stream) {
    UserMeta user;
    user.id = stream.read_32();
    user.port = stream.read_16();
    if (isLowId(user.id)) return true;
    needs_.events.callbackAsked(user);
    return true;
}

// The answer to the log-on. It can come again later, with another ID.
bool MainServer::gotClientId(i4_file& stream) {
    const u32 id = stream.read_32();
    needs_.core.preferences.setClientId(id);
    needs_.core.preferences.setServer(ip, static_cast<u16>(port.get()));
    i4_string name;
    needs_.ui.connected(server_.getName(name));
    needs_.core.messages.postOnce(MESSAGE_PUBLISH);
    send(makePacket(OP_GET_SERVER_LIST));
    needs_.events.loggedOn();
    loggedOn_ = 1;
    desk_.stopTrying();
    return true;
}

// What the server says of its own address isn't used: the entry is found by the address that we connected to.
bool MainServer::gotServerIdent(i4_file& stream) {
    server_.clearTags();
    if (!server_.fromNetwork(stream)) return false;
    server_.ip = ip;
    server_.port = port;
    desk_.gotServerInfo(server_);
    i4_string name;
    needs_.ui.connected(server_.getName(name));
    return true;
}

bool MainServer::gotSources(i4_file& stream) {
    desk_.gotSources(stream, {ip, static_cast<u16>(port.get())});
    return true;
}

// A tail of the form of FoundSources may follow the list.
bool MainServer::gotUsers(i4_file& stream) {
    OwnedList<UserList> list = readList<UserList>(stream);
    if (!list) return false;
    needs_.events.gotUserList(list.release());
    return stream.bytesLeft().value_or(0) == 0 || gotSources(stream);
}

void MainServer::requestSources(const MD4Hash& hash) {
    auto packet = makePacket(OP_GET_SOURCES, MD4Hash::streamSize);
    hash.write(packet->stream);
    send(std::move(packet));
}

void MainServer::requestCallback(u32 clientId) {
    auto packet = makePacket(OP_REQUEST_CALLBACK, 4);
    packet->stream.write_32(clientId);
    send(std::move(packet));
}

void MainServer::publish(const FileList& files) {
    needs_.core.log.printVerbose("Publishing\n");
    send(makePacket(OP_PUBLISH_FILES, files));
}

void MainServer::sendTree(u8 opcode, const Search& search) {
    auto packet = makePacket(opcode, search.byteSize());
    search.toBytes(packet->stream);
    packet->finish();
    send(std::move(packet));
}

void MainServer::sendSearch(const Search& search) { sendTree(OP_SEARCH_REQUEST, search); }
void MainServer::sendAlternateSearch(const Search& search) { sendTree(OP_ALTERNATE_SEARCH_REQUEST, search); }
void MainServer::moreResults() { send(makePacket(OP_MORE_RESULTS)); }

#include "server/MainServer.h"

#include <memory>

#include "meta/FileList.h"
#include "meta/UserList.h"
#include "protocol/Handlers.h"
#include "protocol/ServerProtocol.h"
#include "server/Search.h"
#include "server/ServerDesk.h"
#include "server/ServerNeeds.h"

namespace {

constexpr u32 logOnBodyLimit = 64 * 1024;
constexpr u32 loggedOnBodyLimit = 16 * 1024 * 1024;

}  // namespace

MainServer::MainServer(SocketPool& pool, ServerDesk& desk, const ServerNeeds& needs, const ServerMeta& server)
    : Connection(pool, server.ip, server.port), desk_(desk), needs_(needs) {
    server_.copyFrom(&server);
}

const OpcodeTable* MainServer::opcodes() const { return &serverMessages; }

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
    // A connection that the user cancelled is not a failed one.
    if (!isLoggedOn() && !isClosing()) desk_.serverFailed(ip);
}

// Maps opcodes to handlers. Every incoming opcode of the protocol must be in it.
struct MainServer::Table {
    template <auto member>
    static constexpr auto by = handleBy<MainServer, member>;

    static constexpr Handler<MainServer> rows[] = {
        {OP_OUT_OF_DATE, by<&MainServer::gotOutOfDate>},
        {OP_SERVER_LIST, by<&MainServer::gotServerList>},
        {OP_SEARCH_RESULTS, by<&MainServer::gotSearchResults>},
        {OP_SERVER_STATUS, by<&MainServer::gotStatus>},
        {OP_CALLBACK_ASKED, by<&MainServer::gotCallbackAsked>},
        {OP_CALLBACK_FAILED, by<&MainServer::gotCallbackFailed>},
        {OP_SERVER_MESSAGE, by<&MainServer::gotMessage>},
        {OP_DROPPED_TEXT, by<&MainServer::gotDroppedText>},
        {OP_DROPPED_USER, by<&MainServer::gotDroppedUser>},
        {OP_CLIENT_ID, by<&MainServer::gotClientId>},
        {OP_SERVER_IDENT, by<&MainServer::gotServerIdent>},
        {OP_FOUND_SOURCES, by<&MainServer::gotSources>},
        {OP_FOUND_USERS, by<&MainServer::gotUsers>},
    };
};

bool MainServer::handleMessage(u8 opcode, i4_ram_file_class& stream) {
    static_assert(handlesAll(serverMessages, Direction::in, Table::rows));
    const Handler<MainServer>* row = findHandler(Table::rows, opcode);
    return row ? row->handle(*this, stream) : Connection::handleMessage(opcode, stream);
}

void MainServer::gotOutOfDate() {
    if (needs_.core.log.mayComplain(UIInterface::Complaint::serverOutOfDate))
        needs_.core.log.printLine("Either your client or the server is out of date.");
}

void MainServer::gotStatus(i4_file& stream) {
    const u32 users = stream.read_32();
    needs_.ui.serverStats(stream.read_32(), users);
}

void MainServer::gotCallbackFailed(i4_file& stream) { needs_.events.callbackFailed(ip, stream.read_32()); }

void MainServer::gotMessage(i4_file& stream) {
    if (needs_.core.log.mayComplain(UIInterface::Complaint::serverMessage))
        needs_.core.log.printLine("%s", i4_string(stream).c_str());
}

// Parsed and ignored. A message that can't be parsed still ends the connection.
void MainServer::gotDroppedText(i4_file& stream) {
    stream.read_32();
    static_cast<void>(i4_string(stream));
}

void MainServer::gotDroppedUser(i4_file& stream) {
    if (stream.read_8() != 0) static_cast<void>(UserMeta().fromNetwork(stream));
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

// We have a low ID, and a user who wants to reach us asks that we connect to him.
bool MainServer::gotCallbackAsked(i4_file& stream) {
    UserMeta user;
    user.id = stream.read_32();
    user.port = stream.read_16();
    if (isLowId(user.id)) return true;
    needs_.events.callbackAsked(user);
    return true;
}

// The answer to the log-on. The server may send it again later with another ID.
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

// The address in the message is ignored: the list's entry is found by the address that we connected to.
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

// Sources, in the form of FoundSources, may follow the list.
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

void MainServer::sendSearch(const Search& search) { sendTree(OP_SEARCH, search); }
void MainServer::sendAlternateSearch(const Search& search) { sendTree(OP_ALTERNATE_SEARCH, search); }
void MainServer::moreResults() { send(makePacket(OP_MORE_RESULTS)); }

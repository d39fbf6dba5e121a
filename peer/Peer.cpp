#include "peer/Peer.h"

#include <memory>
#include <utility>

#include "i4min/network/socket.h"
#include "meta/FileList.h"
#include "meta/address.h"
#include "peer/PeerNeeds.h"
#include "protocol/Handlers.h"
#include "protocol/PeerProtocol.h"

namespace {

constexpr u8 helloMark = 16;
constexpr std::size_t longestText = 65'534;  // the most that a counted string can hold
constexpr u32 strangerBodyLimit = 64 * 1024;
constexpr u32 peerBodyLimit = 8 * 1024 * 1024;
// Most bytes of answers queued for a peer that doesn't read them. A list of our files comes on top.
constexpr u32 answersLimit = 2 * 1024 * 1024;
// Most bytes kept of a user's record; tags beyond that are dropped.
constexpr u32 identityLimit = 4096;

// Makes a packet whose body starts with the file's hash.
std::unique_ptr<Packet> makeFilePacket(u8 opcode, const MD4Hash& hash, u32 payload = 0) {
    auto packet = makePacket(opcode, MD4Hash::streamSize + payload);
    hash.write(packet->stream);
    return packet;
}

// The list of our files. Each connection has at most one queued.
// Thread and ownership: as Packet.
class ListPacket : public Packet {
  public:
    ListPacket(u32 length, std::shared_ptr<Relaxed<u32>> bytes) : Packet(length), bytes_(std::move(bytes)) {}
    ~ListPacket() override { *bytes_ = 0; }

  private:
    const std::shared_ptr<Relaxed<u32>> bytes_;
};

// Copies a record. Tags that would exceed identityLimit are dropped.
void copyBounded(const UserMeta& from, UserMeta& to) {
    if (from.byteSize() <= identityLimit) {
        to.copyFrom(&from);
        return;
    }
    UserMeta bare;
    bare.id = from.id;
    bare.port = from.port;
    bare.hash = from.hash;
    bare.serverIp = from.serverIp;
    bare.serverPort = from.serverPort;
    u32 room = identityLimit - bare.byteSize();
    for (const auto& tag : from.getTags()) {
        if (tag->byteSize() > room) continue;
        room -= tag->byteSize();
        bare.addTag(tag->clone());
    }
    to.copyFrom(&bare);
}

}  // namespace

Peer::Peer(SocketPool& pool, const PeerNeeds& needs, u32 toId, u16 toPort)
    : Connection(pool, toId, toPort), needs_(needs) {
    user_.id = toId;
    user_.port = toPort;
    showLife();
}

Peer::Peer(SocketPool& pool, const PeerNeeds& needs, std::unique_ptr<i4_socket> accepted)
    : Connection(pool, std::move(accepted)), needs_(needs) {
    stranger_.emplace(needs.strangers);
    showLife();
}
Peer::~Peer() = default;

void Peer::showLife() { aliveAt = needs_.core.host.clock.now().us; }
i64 Peer::idleMs() const { return (needs_.core.host.clock.now().us - aliveAt) / 1000; }

Ref<Connection> Peer::spawn(std::unique_ptr<i4_socket> accepted) {
    return makeRef<Peer>(pool(), needs_, std::move(accepted));
}

const OpcodeTable* Peer::opcodes() const { return &peerMessages; }
u32 Peer::bodyLimit() const { return isKnown() ? peerBodyLimit : strangerBodyLimit; }
u32 Peer::queueLimit() const { return answersLimit + *listBytes_; }
bool Peer::awaitsFirst() const { return !isKnown(); }

// Writes our own record and the address of the server that assigned our ID.
void Peer::writeIdentity(i4_file& stream) {
    Preferences& preferences = needs_.core.preferences;
    preferences.writeSelf(stream);
    stream.write_32(preferences.serverIp());
    stream.write_16(preferences.serverPort());
}

void Peer::connected() {
    auto packet = makePacket(OP_HELLO, needs_.core.preferences.selfByteSize() + 7);
    packet->stream.write_8(helloMark);
    writeIdentity(packet->stream);
    packet->finish();
    send(std::move(packet));
    calledByUs_ = true;
    joinPeers();
}

void Peer::connectFailed() {
    needs_.listener.connectFailed(ip, static_cast<u16>(port.get()));
    Connection::connectFailed();
}

// The listener never heard of a connection that received no message.
void Peer::gone() {
    needs_.peers.remove(this);
    stranger_.reset();
    if (gotFirst) needs_.listener.gone(*this);
}

void Peer::joinPeers() {
    showLife();
    const i4_guard guard(needs_.peers);
    if (!needs_.peers.contains(this)) needs_.peers.addUnsafe(this);
}

// Maps opcodes to handlers. Every incoming opcode of the protocol must be in it.
struct Peer::Table {
    template <auto member>
    static constexpr auto by = handleBy<Peer, member>;
    // Calls a member function with the file hash that is the body.
    template <auto member>
    static bool ofFile(Peer& peer, i4_ram_file_class& body) {
        return (peer.*member)(MD4Hash::read(body));
    }
    // Calls an event of the listener with the peer, and with the hash and the rest of the body if it takes
    // them.
    template <auto event>
    static bool tell(Peer& peer, i4_ram_file_class& body) {
        PeerListener& listener = peer.needs_.listener;
        using Event = decltype(event);
        if constexpr (std::is_invocable_v<Event, PeerListener&, Peer&>) {
            (listener.*event)(peer);
        } else if constexpr (std::is_invocable_v<Event, PeerListener&, Peer&, const MD4Hash&>) {
            (listener.*event)(peer, MD4Hash::read(body));
        } else if constexpr (std::is_invocable_v<Event, PeerListener&, Peer&, i4_ram_file_class&>) {
            (listener.*event)(peer, body);
        } else {
            (listener.*event)(peer, MD4Hash::read(body), body);
        }
        return true;
    }

    static constexpr Handler<Peer> rows[] = {
        {OP_HELLO, by<&Peer::gotHello>},
        {OP_PEER_OUT_OF_DATE, by<&Peer::gotOutOfDate>},
        {OP_FILE_DATA, tell<&PeerListener::gotFileData>},
        {OP_REQUEST_PARTS, tell<&PeerListener::gotPartRequest>},
        {OP_NO_SUCH_FILE, tell<&PeerListener::noSuchFile>},
        {OP_STOP_UPLOAD, tell<&PeerListener::uploadStopped>},
        {OP_GET_SHARED_FILES, by<&Peer::tellSharedFiles>},
        {OP_SHARED_FILES, by<&Peer::gotSharedFiles>},
        {OP_HELLO_ANSWER, by<&Peer::gotHelloAnswer>},
        {OP_NEW_IDENTITY, by<&Peer::gotNewIdentity>},
        {OP_CHAT_MESSAGE, by<&Peer::gotChatMessage>},
        {OP_GET_FILE_STATUS, ofFile<&Peer::tellFileStatus>},
        {OP_FILE_STATUS, by<&Peer::gotFileStatus>},
        {OP_GET_HASH_SET, ofFile<&Peer::tellHashSet>},
        {OP_HASH_SET, by<&Peer::gotHashSet>},
        {OP_CHAT_REFUSED, by<&Peer::gotChatRefused>},
        {OP_REQUEST_SLOT, tell<&PeerListener::gotSlotRequest>},
        {OP_SLOT_GRANTED, tell<&PeerListener::slotGranted>},
        {OP_RELEASE_SLOT, tell<&PeerListener::slotReleased>},
        {OP_SLOT_ENDED, tell<&PeerListener::slotEnded>},
        {OP_GET_FILE_NAME, ofFile<&Peer::tellFileName>},
        {OP_FILE_NAME, tell<&PeerListener::gotFileName>},
    };
};

bool Peer::handleMessage(u8 opcode, i4_ram_file_class& stream) {
    static_assert(handlesAll(peerMessages, Direction::in, Table::rows));
    showLife();
    const Handler<Peer>* row = findHandler(Table::rows, opcode);
    return row ? row->handle(*this, stream) : Connection::handleMessage(opcode, stream);
}

void Peer::gotOutOfDate() {
    if (needs_.core.log.mayComplain(UIInterface::Complaint::peerOutOfDate))
        needs_.core.log.printLine("Either your client or one you are connected to is out of date.");
}

void Peer::gotHashSet(i4_file& stream) {
    const MD4Hash hash = MD4Hash::read(stream);
    needs_.listener.gotHashSet(hash, stream);
}

// Reads who is on the other side: record, server. False where that can't be read, or is somebody else than
// before: a connection has one identity.
bool Peer::readUser(i4_file& stream) {
    if (stream.bytesLeft().value_or(0) > strangerBodyLimit) return false;
    UserMeta user;
    if (!user.fromNetwork(stream)) return false;
    user.serverIp = stream.read_32();
    user.serverPort = stream.read_16();
    {
        i4_lock guard(userLock_);
        if (hasIdentity_ && user_.hash != user.hash) return false;
        copyBounded(user, user_);
    }
    hasIdentity_ = true;
    setIdentity(user.id);
    return true;
}

// A hello on a connection that came in, or the answer to ours, makes the peer known. The listener has met
// known peers only.
void Peer::introduce(PeerListener::Met how) {
    const auto introducing = calledByUs_ ? PeerListener::Met::helloAnswer : PeerListener::Met::hello;
    if (how == introducing) {
        isKnown_ = 1;
        stranger_.reset();
    }
    if (isKnown()) needs_.listener.met(*this, how);
}

// An ID of 0 means the address of the socket.
void Peer::setIdentity(u32 id) {
    const u32 known = id != 0 ? id : remoteIp();
    {
        i4_lock guard(userLock_);
        user_.id = known;
    }
    setIp(known);
}

bool Peer::gotHello(i4_file& stream) {
    if (stream.read_8() != helloMark || !readUser(stream)) return false;
    auto packet = makePacket(OP_HELLO_ANSWER, needs_.core.preferences.selfByteSize() + 6);
    writeIdentity(packet->stream);
    packet->finish();
    send(std::move(packet));
    joinPeers();
    introduce(PeerListener::Met::hello);
    return true;
}

bool Peer::gotHelloAnswer(i4_file& stream) {
    if (!readUser(stream)) return false;
    introduce(PeerListener::Met::helloAnswer);
    return true;
}

bool Peer::gotNewIdentity(i4_file& stream) {
    const u32 id = stream.read_32();
    const u32 server = stream.read_32();
    {
        i4_lock guard(userLock_);
        user_.serverIp = server;
    }
    setIdentity(id);
    introduce(PeerListener::Met::newIdentity);
    return true;
}

// Does nothing while the last list is still queued.
bool Peer::tellSharedFiles() {
    if (*listBytes_ != 0) return true;
    auto packet = std::make_unique<ListPacket>(1 + needs_.files.listBytes(), listBytes_);
    packet->stream.write_8(OP_SHARED_FILES);
    needs_.files.writeList(packet->stream);
    packet->finish();
    *listBytes_ = packet->size;
    send(std::move(packet));
    return true;
}

bool Peer::gotSharedFiles(i4_file& stream) {
    // A long list takes far more memory than its bytes, so it is read only if it was asked for.
    if (stream.bytesLeft().value_or(0) > strangerBodyLimit && !needs_.listener.awaitsFiles(*this))
        return true;
    OwnedList<FileList> list = readList<FileList>(stream);
    if (!list) return false;
    needs_.listener.gotSharedFiles(*this, std::move(list));
    return true;
}

bool Peer::gotChatMessage(i4_file& stream) {
    const i4_string text(stream);
    UserMeta user;
    copyUser(user);
    if (!needs_.listener.gotChatMessage(user, text.c_str())) send(makePacket(OP_CHAT_REFUSED));
    return true;
}

bool Peer::gotChatRefused() {
    UserMeta user;
    copyUser(user);
    needs_.listener.chatRefused(user);
    return true;
}

bool Peer::tellFileStatus(const MD4Hash& hash) {
    SharedFile file;
    if (!needs_.files.find(hash, file)) {
        noSuchFile(hash);
        return true;
    }
    // An empty array means that the file is complete.
    BoolArray parts;
    if (file.path.isNull()) needs_.files.partsDone(hash, parts);
    auto packet = makeFilePacket(OP_FILE_STATUS, hash, parts.byteSize());
    parts.write(packet->stream);
    packet->finish();
    send(std::move(packet));
    return true;
}

bool Peer::gotFileStatus(i4_file& stream) {
    const MD4Hash hash = MD4Hash::read(stream);
    BoolArray parts;
    parts.read(stream);
    needs_.listener.gotFileStatus(*this, hash, parts);
    return true;
}

bool Peer::tellHashSet(const MD4Hash& hash) {
    SharedFile file;
    if (!needs_.files.find(hash, file)) {
        noSuchFile(hash);
        return true;
    }
    FileMeta record;
    record.partHashes = file.partHashes;
    auto packet = makeFilePacket(OP_HASH_SET, hash, record.partHashesSize());
    if (!record.writePartHashes(packet->stream)) return false;
    send(std::move(packet));
    return true;
}

bool Peer::tellFileName(const MD4Hash& hash) {
    SharedFile file;
    if (!needs_.files.find(hash, file)) return true;
    auto packet = makeFilePacket(OP_FILE_NAME, hash, static_cast<u32>(2 + file.name.length()));
    file.name.write(packet->stream);
    send(std::move(packet));
    return true;
}

void Peer::requestParts(const MD4Hash& file, const u32 (&starts)[3], const u32 (&ends)[3]) {
    auto packet = makeFilePacket(OP_REQUEST_PARTS, file, 24);
    for (const u32 start : starts) packet->stream.write_32(start);
    for (const u32 end : ends) packet->stream.write_32(end);
    send(std::move(packet));
}

void Peer::noSuchFile(const MD4Hash& file) { send(makeFilePacket(OP_NO_SUCH_FILE, file)); }
void Peer::stopUpload(const MD4Hash& file) { send(makeFilePacket(OP_STOP_UPLOAD, file)); }
void Peer::askSharedFiles() { send(makePacket(OP_GET_SHARED_FILES)); }

void Peer::sendIdentity() {
    auto packet = makePacket(OP_NEW_IDENTITY, 8);
    packet->stream.write_32(needs_.core.preferences.clientId());
    packet->stream.write_32(needs_.core.preferences.serverIp());
    send(std::move(packet));
}

bool Peer::sendMessage(const char* text) {
    const std::size_t length = i4_strlen(text);
    if (length > longestText) return false;
    showLife();
    auto packet = makePacket(OP_CHAT_MESSAGE, static_cast<u32>(2 + length));
    i4_write_string(packet->stream, text);
    send(std::move(packet));
    return true;
}

bool Peer::askFileStatus(const MD4Hash& file, u32 fileSize) {
    if (fileSize <= PARTSIZE) return false;
    send(makeFilePacket(OP_GET_FILE_STATUS, file));
    return true;
}

void Peer::askHashSet(const MD4Hash& file) { send(makeFilePacket(OP_GET_HASH_SET, file)); }
void Peer::requestSlot() { send(makePacket(OP_REQUEST_SLOT)); }
void Peer::grantSlot() { send(makePacket(OP_SLOT_GRANTED)); }
void Peer::releaseSlot() { send(makePacket(OP_RELEASE_SLOT)); }
void Peer::endSlot() { send(makePacket(OP_SLOT_ENDED)); }
void Peer::askFileName(const MD4Hash& file) { send(makeFilePacket(OP_GET_FILE_NAME, file)); }

void Peer::copyUser(UserMeta& out) const {
    i4_lock guard(userLock_);
    out.copyFrom(&user_);
}

bool Peer::sameUser(const UserMeta& user) const {
    i4_lock guard(userLock_);
    return user_.sameUser(&user);
}

i4_string Peer::userName() const {
    i4_lock guard(userLock_);
    return user_.getName();
}

MD4Hash Peer::userHash() const {
    i4_lock guard(userLock_);
    return user_.hash;
}

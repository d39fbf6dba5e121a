#include "sim/SimOpponent.h"

#include <algorithm>
#include <utility>

#include "meta/FileMeta.h"
#include "meta/address.h"
#include "protocol/ServerProtocol.h"

namespace {

constexpr u32 longestBody = 8 * 1024 * 1024;
constexpr u32 dataAtOnce = 10'240;  // bytes of the file per packet
constexpr i64 second = 1'000'000;
constexpr u8 helloMark = 16;

MD4Hash userHash(u32 address) {
    MD4Hash hash;
    for (std::size_t i = 0; i < hash.bytes.size(); ++i) {
        hash.bytes[i] = static_cast<u8>((address >> (i % 4 * 8)) + i * 37);
    }
    return hash;
}

// Hash, u32 ID, u16 port, and one tag: the name.
void putUser(ByteWriter out, u32 address) {
    out.hash(userHash(address)).put32(address).put16(SimOpponent::port);
    out.put32(1).put8(2).put16(1).put8(1).text("stranger");
}

}  // namespace

// --- One connection

void SimTalk::say(u8 opcode, const Bytes& body) {
    ByteWriter(toSend_).put8(packetMarker).put32(static_cast<u32>(body.size() + 1)).put8(opcode).put(body);
}

// These two return false if the other side has gone.
bool SimTalk::flush() {
    i32 count = 1;
    while (!toSend_.empty() && count > 0) {
        count = socket_->write(toSend_);
        toSend_.erase(toSend_.begin(), toSend_.begin() + std::max(count, 0));
    }
    return count >= 0;
}

bool SimTalk::receive() {
    u8 block[16 * 1024];
    for (;;) {
        const i32 count = socket_->read(block);
        if (count <= 0) return count == 0 && !socket_->atEnd();
        frames_.feed({block, static_cast<std::size_t>(count)});
    }
}

// --- The opponent

SimOpponent::SimOpponent(SimHost& host, SimFileOffer offer)
    : Thread(host.host.scheduler),
      host_(host),
      offer_(std::move(offer)),
      set_(host.machine.new_socket_set(0)),
      door_(host.machine.listen(port, 0, I4_STREAM, nullptr)) {
    door_->add_to_set(*set_, I4_SELECT_READ, nullptr);
    start();
}

SimOpponent::~SimOpponent() { stop(); }

void SimOpponent::call(u32 toAddress, u16 toPort, SimTalk::Kind kind) {
    i4_tcpip_address address;
    address.address.sin_addr.s_addr = toAddress;
    address.set_port(toPort);
    talks_.push_back(std::make_unique<SimTalk>(host_.machine.connect(address, I4_STREAM, false), kind));
    watch(*talks_.back());
}

void SimOpponent::logOn(u32 serverAddress, u16 serverPort) {
    call(serverAddress, serverPort, SimTalk::Kind::toIndex);
}

void SimOpponent::visit(u32 toAddress, u16 clientPort) {
    call(toAddress, clientPort, SimTalk::Kind::toClient);
}

void SimOpponent::watch(SimTalk& talk) {
    const u32 mask = talk.isUp_ && !talk.hasToSend() ? I4_SELECT_READ : I4_SELECT_READ | I4_SELECT_WRITE;
    if (talk.watched_ == 0) talk.socket_->add_to_set(*set_, mask, nullptr);
    if (talk.watched_ != 0 && talk.watched_ != mask) talk.socket_->change_in_set(*set_, mask);
    talk.watched_ = mask;
}

Rest SimOpponent::run() {
    std::unique_ptr<i4_socket> caller;
    while (door_->accept(caller)) {
        talks_.push_back(std::make_unique<SimTalk>(std::move(caller), SimTalk::Kind::fromClient));
        talks_.back()->isUp_ = true;
        opened(*talks_.back());
    }
    const i64 now = host_.host.clock.now().us;
    const bool ticks = now >= nextSecond_;
    if (ticks) nextSecond_ = now + second;
    // Connections added in this loop get their turn in the next round.
    for (std::size_t i = 0, count = talks_.size(); i < count; ++i) {
        SimTalk& talk = *talks_[i];
        serve(talk);
        if (ticks && talk.isUp_ && talk.kind_ != SimTalk::Kind::toIndex) eachSecond(talk);
        if (talk.isUp_ && !talk.flush()) talk.ended_ = true;
        if (!talk.ended_) watch(talk);
    }
    std::erase_if(talks_, [](const auto& talk) { return talk->ended_; });
    return Rest::atMost((nextSecond_ - now) / 1000 + 1);
}

void SimOpponent::serve(SimTalk& talk) {
    if (!talk.isUp_) {
        const u32 ready = talk.socket_->ready(I4_SELECT_WRITE | I4_SELECT_ERROR, 0, nullptr);
        if (ready & I4_SELECT_ERROR) talk.ended_ = true;
        if (ready != I4_SELECT_WRITE) return;
        talk.isUp_ = true;
        sayFirst(talk);
    }
    if (!talk.receive()) talk.ended_ = true;
    Bytes body;
    while (!talk.ended_ && talk.frames_.next(body, longestBody)) {
        ByteReader reader(body);
        const u8 opcode = reader.read8();
        if (talk.kind_ != SimTalk::Kind::toIndex) handle(talk, opcode, reader);
    }
    if (talk.frames_.isBroken(longestBody)) talk.ended_ = true;
    // Range by range: a request may name others before all has left.
    while (!talk.ended_ && !talk.asked_.empty() && talk.toSend_.size() < dataAtOnce) {
        const std::pair range = talk.asked_.front();
        talk.asked_.erase(talk.asked_.begin());
        talk.sent_ = {range, talk.sent_[0], talk.sent_[1]};
        askedRange(talk, range.first, range.second);
    }
}

// Sends an index server the log-on and the shared file, or a client a hello.
void SimOpponent::sayFirst(SimTalk& talk) {
    Bytes body;
    if (talk.kind_ == SimTalk::Kind::toClient) {
        sayHello(talk);
        opened(talk);
        return;
    }
    putUser(ByteWriter(body), address());
    talk.say(OP_LOGON, body);
    i4_owned_ram_file list;
    list.write_32(1);
    FileMeta record;
    record.hash = offer_.hash;
    record.setName(offer_.name.c_str());
    record.setInt(TAG_SIZE, static_cast<u32>(offer_.content.size));
    static_cast<void>(record.toNetwork(list));
    talk.say(OP_PUBLISH_FILES, Bytes(list.buffer(), list.buffer() + list.size()));
}

// Its record, and the server that it is on.
Bytes SimOpponent::identity() const {
    Bytes body;
    putUser(ByteWriter(body), address());
    ByteWriter(body).put32(0).put16(0);
    return body;
}

void SimOpponent::handle(SimTalk& talk, u8 opcode, ByteReader body) {
    switch (opcode) {
        case OP_HELLO:
            return gotHello(talk);
        case OP_GET_FILE_STATUS:
            return askedStatus(talk);
        case OP_GET_HASH_SET:
            return askedHashSet(talk);
        case OP_REQUEST_SLOT:
            return askedSlot(talk);
        case OP_REQUEST_PARTS: {
            body.hash();
            u32 starts[3];
            for (u32& start : starts) start = body.read32();
            talk.asked_.clear();
            for (const u32 start : starts) {
                const std::pair range(start, body.read32());
                if (range.first < range.second && !body.failed()) talk.asked_.push_back(range);
            }
            // A request that names the newest that was sent was made before that arrived, and so what was
            // sent shortly before it.
            const auto isSent = [&](const auto& range) {
                return std::find(talk.sent_.begin(), talk.sent_.end(), range) != talk.sent_.end();
            };
            if (std::find(talk.asked_.begin(), talk.asked_.end(), talk.sent_.front()) != talk.asked_.end())
                std::erase_if(talk.asked_, isSent);
            return;
        }
        default:
            return heard(talk, opcode);
    }
}

// --- Honest defaults

void SimOpponent::opened(SimTalk&) {}

void SimOpponent::sayHello(SimTalk& talk) {
    Bytes body;
    ByteWriter(body).put8(helloMark).put(identity());
    talk.say(OP_HELLO, body);
}

void SimOpponent::heard(SimTalk&, u8) {}
void SimOpponent::eachSecond(SimTalk&) {}
void SimOpponent::gotHello(SimTalk& talk) { talk.say(OP_HELLO_ANSWER, identity()); }
void SimOpponent::askedSlot(SimTalk& talk) { talk.say(OP_SLOT_GRANTED); }
void SimOpponent::askedRange(SimTalk& talk, u32 start, u32 end) { sendData(talk, start, end); }

void SimOpponent::askedStatus(SimTalk& talk) {
    Bytes body = aboutFile();
    ByteWriter(body).put16(0);  // the whole file is here
    talk.say(OP_FILE_STATUS, body);
}

void SimOpponent::askedHashSet(SimTalk& talk) { sendHashSet(talk, offer_.parts); }

// --- For hostile opponents

void SimOpponent::sendHashSet(SimTalk& talk, const std::vector<MD4Hash>& parts) {
    Bytes body = aboutFile();
    ByteWriter out(body);
    out.put16(static_cast<u32>(parts.size()));
    for (const MD4Hash& part : parts) out.hash(part);
    talk.say(OP_HASH_SET, body);
}

void SimOpponent::sendData(SimTalk& talk, u32 start, u32 end) {
    while (start < end) {
        const u32 until = std::min(end, start + dataAtOnce);
        sendData(talk, start, until, bytesOf(start, until));
        start = until;
    }
}

void SimOpponent::sendData(SimTalk& talk, u32 start, u32 end, const Bytes& bytes) {
    Bytes body = aboutFile();
    ByteWriter(body).put32(start).put32(end).put(bytes);
    talk.say(OP_FILE_DATA, body);
}

Bytes SimOpponent::aboutFile() const { return {offer_.hash.bytes.begin(), offer_.hash.bytes.end()}; }

Bytes SimOpponent::bytesOf(u32 start, u32 end) const {
    Bytes bytes(end - start);
    offer_.content.read(start, bytes.data(), bytes.size());
    return bytes;
}

Bytes SimOpponent::garbage(std::size_t count) {
    Bytes bytes(count);
    host_.host.random.fill(bytes);
    return bytes;
}

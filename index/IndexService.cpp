#include "index/IndexService.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "i4min/string/string.h"
#include "meta/address.h"
#include "meta/tagTable.h"

namespace {

constexpr std::size_t nameLimit = 255;
constexpr std::size_t sendersLimit = 4096;

std::string_view rowName(const char& row) { return {&row, 1}; }

}  // namespace

IndexService::IndexService(IndexIdentity identity, IndexLimits limits, IndexNetwork& network, EventLog& log,
                           u64 seed)
    : identity_(std::move(identity)),
      limits_(limits),
      network_(network),
      log_(log),
      index_(FileIndex::Limits(), seed) {}

// --- Sessions

IndexSession* IndexService::opened(const NetAddress& address, const NetAddress& own, u64 now,
                                   Bytes& refusal) {
    if (sessions_.size() >= identity_.maxClients) {
        log_.info("Full: %s:%u is turned away", ipToString(address.ip).c_str(), address.port);
        const std::string_view text = "This server is full.";
        ByteWriter(refusal)
            .put8(packetMarker)
            .put32(static_cast<u32>(text.size()) + 3)
            .put8(OP_SERVER_MESSAGE)
            .text(text);
        return nullptr;
    }
    while (lastNumber_ == 0 || sessions_.count(lastNumber_) != 0) ++lastNumber_;
    auto session = std::make_unique<IndexSession>();
    session->number = lastNumber_;
    session->address = address;
    session->own = own;
    session->arrivedAt = session->takenAt = now;
    return (sessions_[lastNumber_] = std::move(session)).get();
}

void IndexService::closed(IndexSession& session) {
    const bool wasOnline = session.id != 0;
    for (const FileNumber file : session.files) index_.withdraw(session.number, file);
    if (wasOnline) {
        --online_;
        log_.info("Client %u (%s) has left with %zu files", session.number, session.name.c_str(),
                  session.files.size());
    }
    if (wasOnline && isLowId(session.id)) lowIds_.erase(session.id);
    std::erase(jobs_, session.number);
    sessions_.erase(session.number);
}

IndexSession* IndexService::find(ClientNumber number) {
    const auto found = sessions_.find(number);
    return found == sessions_.end() ? nullptr : found->second.get();
}

void IndexService::touch(IndexSession& session) { touched_.push_back(session.number); }

std::vector<IndexSession*> IndexService::takeTouched() {
    std::vector<ClientNumber> numbers = std::exchange(touched_, {});
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    std::vector<IndexSession*> result;
    for (const ClientNumber number : numbers) {
        if (IndexSession* session = find(number)) result.push_back(session);
    }
    return result;
}

void IndexService::drop(IndexSession& session, const char* why) {
    if (session.phase == IndexSession::Phase::closing) return;
    session.phase = IndexSession::Phase::closing;
    log_.debug("Client %u (%s) is dropped: %s", session.number, ipToString(session.address.ip).c_str(), why);
    touch(session);
}

ByteWriter IndexService::begin(IndexSession& session, u8 opcode) {
    packetStart_ = session.output.size();
    return ByteWriter(session.output).put8(packetMarker).put32(0).put8(opcode);
}

void IndexService::finish(IndexSession& session) {
    patch32(session.output, packetStart_ + 1, static_cast<u32>(session.output.size() - packetStart_ - 5));
    if (session.output.size() - session.sent > limits_.output)
        drop(session, "it takes its answers too slowly");
    touch(session);
}

// --- Log-on

void IndexService::packet(IndexSession& session, Bytes body, u64 now) {
    if (session.phase == IndexSession::Phase::closing) return;
    if (body.empty()) return drop(session, "an empty packet");
    const u8 opcode = body[0];
    const Opcode* row = serverMessages.find(opcode, Direction::out);
    if (session.id == 0 && opcode != OP_LOGON) return drop(session, "it hasn't logged on");
    if (!row) {
        log_.debug("Client %u sends the unknown opcode %u", session.number, opcode);
        return;
    }
    if (body.size() - 1 < row->least) return drop(session, "a packet that is too short");
    log_.debug("Client %u: %s, %zu bytes", session.number, row->name, body.size());
    if (opcode != OP_LOGON) return request(session, opcode, std::move(body), now);
    ByteReader in(ByteSpan(body).subspan(1));
    logOn(session, in);
}

void IndexService::logOn(IndexSession& session, ByteReader& in) {
    if (session.phase != IndexSession::Phase::arrived) return drop(session, "it logs on twice");
    session.userHash = in.hash();
    in.read32();
    session.doorPort = in.read16();
    const bool whole = readEncodedTags(in, [&](const EncodedTag& tag) {
        const char name = TAG_NAME;
        if (tag.view.type == META_TAG_STRING && tag.view.name == rowName(name)) {
            session.name = tag.view.text.substr(0, nameLimit);
        }
    });
    if (!whole) return drop(session, "a log-on that can't be read");
    session.phase = IndexSession::Phase::testing;
    touch(session);
    network_.testDoor(session);
}

// The address serves as a high ID if the number is one: addresses that end in 0 aren't.
void IndexService::doorTested(ClientNumber number, bool reachable) {
    IndexSession* session = find(number);
    if (!session || session->phase != IndexSession::Phase::testing) return;
    session->phase = IndexSession::Phase::online;
    session->id = reachable && !isLowId(session->address.ip) ? session->address.ip : newLowId();
    if (isLowId(session->id)) lowIds_[session->id] = number;
    ++online_;
    log_.info("Client %u (%s) at %s:%u has logged on, ID %u (%s)", number, session->name.c_str(),
              ipToString(session->address.ip).c_str(), session->doorPort, session->id,
              isLowId(session->id) ? "firewalled" : "open");
    begin(*session, OP_CLIENT_ID).put32(session->id);
    finish(*session);
    if (!identity_.message.empty()) {
        begin(*session, OP_SERVER_MESSAGE).text(identity_.message);
        finish(*session);
    }
    sendStatus(*session);
    sendIdentity(*session);
}

u32 IndexService::newLowId() {
    do {
        lastLowId_ = lastLowId_ + 1 < highestLowId ? lastLowId_ + 1 : 1;
    } while (lowIds_.count(lastLowId_) != 0);
    return lastLowId_;
}

IndexSession* IndexService::findLowId(u32 id) {
    const auto found = lowIds_.find(id);
    return found == lowIds_.end() ? nullptr : find(found->second);
}

void IndexService::sendStatus(IndexSession& session) {
    begin(session, OP_SERVER_STATUS).put32(online_).put32(index_.fileCount());
    finish(session);
}

void IndexService::sendIdentity(IndexSession& session) {
    const char name = TAG_NAME;
    const char description = TAG_DESCRIPTION;
    ByteWriter out = begin(session, OP_SERVER_IDENT);
    out.hash(MD4Hash()).put32(session.own.ip).put16(session.own.port).put32(2);
    out.put8(META_TAG_STRING).text(rowName(name)).text(identity_.name);
    out.put8(META_TAG_STRING).text(rowName(description)).text(identity_.description);
    finish(session);
}

// --- Requests

void IndexService::request(IndexSession& session, u8 opcode, Bytes body, u64 now) {
    ByteReader in(ByteSpan(body).subspan(1));
    switch (opcode) {
        case OP_GET_SERVER_LIST:
            sendServerList(session);
            break;
        case OP_PUBLISH_FILES: {
            auto job = std::make_unique<IndexJob>();
            job->kind = IndexJob::Kind::publish;
            job->left = in.read32();
            job->at = 1 + in.position();
            job->body = std::move(body);
            startJob(session, std::move(job));
            break;
        }
        case OP_SEARCH:
        case OP_ALTERNATE_SEARCH:
            startSearch(session, ByteSpan(body).subspan(1), now);
            break;
        case OP_MORE_RESULTS: {
            auto job = std::make_unique<IndexJob>();
            job->notBefore = session.searches.take(now, limits_.searchBurst, limits_.searchPause);
            startJob(session, std::move(job));
            break;
        }
        case OP_GET_SOURCES:
            sendSources(session, in.hash());
            break;
        case OP_REQUEST_CALLBACK:
            callback(session, in.read32());
            break;
        default:
            break;
    }
}

void IndexService::sendServerList(IndexSession& session) {
    ByteWriter out = begin(session, OP_SERVER_LIST);
    out.put8(static_cast<u32>(identity_.peerServers.size()));
    for (const NetAddress& server : identity_.peerServers) out.put32(server.ip).put16(server.port);
    finish(session);
}

// More sources than fit are told in turns. Two clients that can't be called are of no use to each other.
void IndexService::writeSources(Bytes& out, const MD4Hash& hash, ClientNumber asker, bool lowAsker) const {
    const std::size_t countAt = out.size();
    u32 count = 0;
    ByteWriter writer(out);
    writer.put8(0);
    const std::vector<ClientNumber>* sources = index_.sources(hash);
    const std::size_t all = sources ? sources->size() : 0;
    for (std::size_t i = 0; i < all && count < limits_.sourcesAtATime; ++i) {
        const IndexSession& source = *sessions_.at((*sources)[(i + sourcesTurn_) % all]);
        if (source.number == asker || (lowAsker && isLowId(source.id))) continue;
        writer.put32(source.id).put16(source.doorPort);
        ++count;
    }
    out[countAt] = static_cast<u8>(count);
}

void IndexService::sendSources(IndexSession& session, const MD4Hash& hash) {
    begin(session, OP_FOUND_SOURCES).hash(hash);
    writeSources(session.output, hash, session.number, isLowId(session.id));
    sourcesTurn_ += limits_.sourcesAtATime;
    finish(session);
}

void IndexService::callback(IndexSession& session, u32 id) {
    IndexSession* wanted = findLowId(id);
    if (!wanted || isLowId(session.id)) {
        begin(session, OP_CALLBACK_FAILED).put32(id);
        finish(session);
        return;
    }
    begin(*wanted, OP_CALLBACK_ASKED).put32(session.id).put16(session.doorPort);
    finish(*wanted);
}

// --- Work in slices: see IndexJobs.cpp. Time

void IndexService::tick(u64 now) {
    const bool changed = online_ != toldUsers_ || index_.fileCount() != toldFiles_;
    const bool status = changed && now >= statusAt_ + limits_.statusPause;
    if (status) {
        statusAt_ = now;
        toldUsers_ = online_;
        toldFiles_ = index_.fileCount();
    }
    for (const auto& [number, session] : sessions_) {
        if (session->phase == IndexSession::Phase::arrived && now >= session->arrivedAt + limits_.logonTime) {
            drop(*session, "it hasn't logged on in time");
        }
        if (!session->hasOutput()) session->takenAt = now;
        if (now >= session->takenAt + limits_.outputStall) {
            drop(*session, "it takes no answers");
        }
        if (status && session->phase == IndexSession::Phase::online) sendStatus(*session);
    }
    std::erase_if(senders_, [&](const auto& entry) {
        return entry.second.searches.isFull(now, limits_.searchBurst, limits_.searchPause) &&
               entry.second.others.isFull(now, limits_.datagramBurst, limits_.datagramPause);
    });
}

// --- Datagrams

bool IndexService::admits(const NetAddress& from, bool search, u64 now) {
    if (senders_.size() >= sendersLimit && senders_.count(from.ip) == 0) return false;
    Sender& sender = senders_[from.ip];
    return search ? sender.searches.tryTake(now, limits_.searchBurst, limits_.searchPause)
                  : sender.others.tryTake(now, limits_.datagramBurst, limits_.datagramPause);
}

void IndexService::datagram(const NetAddress& from, ByteSpan bytes, u64 now) {
    ByteReader in(bytes);
    if (in.read8() != packetMarker) return;
    const u8 opcode = in.read8();
    const Opcode* row = serverDatagrams.find(opcode, Direction::out);
    if (in.failed() || !row || in.left() < row->least) return;
    const bool search = opcode == OP_EXTENDED_SEARCH || opcode == OP_EXTENDED_ALTERNATE_SEARCH;
    if (!admits(from, search, now)) return;
    log_.debug("Datagram of %s:%u: %s", ipToString(from.ip).c_str(), from.port, row->name);
    if (search) return startDatagramSearch(from, in.take(in.left()), now);
    Bytes answer;
    ByteWriter out(answer);
    out.put8(packetMarker);
    switch (opcode) {
        case OP_PING:
            out.put8(OP_PING_ANSWER).put32(in.read32()).put32(online_).put32(index_.fileCount());
            break;
        case OP_EXTENDED_GET_SOURCES: {
            const MD4Hash hash = in.hash();
            out.put8(OP_EXTENDED_FOUND_SOURCES).hash(hash);
            writeSources(answer, hash, 0, false);
            sourcesTurn_ += limits_.sourcesAtATime;
            if (answer.back() == 0 && answer.size() == 19) return;  // nothing to tell
            break;
        }
        case OP_EXTENDED_CALLBACK: {
            const u32 askerId = in.read32();
            const u16 askerPort = in.read16();
            const u32 id = in.read32();
            IndexSession* wanted = findLowId(id);
            if (wanted && !isLowId(askerId)) {
                // To the address that the datagram came from: nobody is sent to call a third party.
                begin(*wanted, OP_CALLBACK_ASKED).put32(from.ip).put16(askerPort);
                return finish(*wanted);
            }
            out.put8(OP_EXTENDED_CALLBACK_FAILED).put32(id);
            break;
        }
        default:
            return;
    }
    network_.sendDatagram(from, answer);
}

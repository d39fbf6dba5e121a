// Everything that strangers can send to the index server: packet streams of two clients, and datagrams.
//
// The input is a sequence of pieces: a byte with the recipient (0 and 1 a client's stream, 2 a datagram), a
// u16 length, and that many bytes.
#include "fuzz/fuzz.h"
#include "index/FrameReader.h"
#include "index/IndexService.h"

namespace {

class Quiet : public EventLog {
  public:
    Quiet() : EventLog(Level::debug) {}
    void write(const char*) override {}
};

class Nowhere : public IndexNetwork {
  public:
    void testDoor(const IndexSession&) override {}
    void sendDatagram(const NetAddress&, ByteSpan bytes) override { require(bytes.size() <= 3072); }
};

// The service must answer with complete packets.
void checkOutput(IndexSession& session) {
    FrameReader frames;
    frames.feed(session.output);
    Bytes body;
    while (frames.next(body, 1u << 30)) {
    }
    require(frames.size() == 0);
    session.output.clear();
}

}  // namespace

FUZZ_TARGET(index) {
    static Silence silence;
    Quiet log;
    Nowhere nowhere;
    const IndexLimits limits;
    IndexService service(IndexIdentity(), limits, nowhere, log, 0);
    u64 now = 1'000'000;
    Bytes refusal;
    IndexSession* sessions[2];
    FrameReader frames[2];
    for (u32 i = 0; i < 2; ++i) sessions[i] = service.opened({0x0A0A0A0Au + i, 1}, {1, 1}, now, refusal);

    ByteReader in({data, size});
    while (in.left() > 3) {
        const u8 whom = in.read8() % 3;
        const std::size_t length = in.read16();
        const ByteSpan piece = in.take(std::min(length, in.left()));
        now += 500;
        if (whom == 2) {
            service.datagram({0x01010101, 1}, piece, now);
        } else if (IndexSession* session = sessions[whom]) {
            frames[whom].feed(piece);
            for (Bytes body; frames[whom].next(body, limits.packet) && !session->job;) {
                service.packet(*session, body, now);
                service.doorTested(session->number, whom == 0);
            }
        }
        for (int i = 0; i < 100 && service.step(now); ++i) now += 10;
        for (IndexSession*& session : sessions) {
            if (!session) continue;
            checkOutput(*session);
            if (session->phase == IndexSession::Phase::closing) {
                service.closed(*session);
                session = nullptr;
            }
        }
    }
    service.tick(now += 31'000);
    service.index().checkInvariants();
    for (IndexSession* session : sessions) {
        if (session) service.closed(*session);
    }
    require(service.index().fileCount() == 0);
}

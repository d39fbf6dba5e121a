// The hostile opponents. Each breaks the protocol in its own way.
#include <algorithm>

#include "sim/SimOpponent.h"

namespace {

// Sends wrong bytes.
class Liar : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        sendData(talk, start, end, garbage(end - start));
    }
};

// Flips one bit in a hundred kilobytes.
class Twister : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        Bytes bytes = bytesOf(start, end);
        for (std::size_t at = 0; at < bytes.size(); at += 100'000) bytes[at] ^= 4;
        sendData(talk, start, end, bytes);
    }
};

// Turns one bit of each part.
class Flipper : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        Bytes bytes = bytesOf(start, end);
        if (start % PARTSIZE <= flipped && end - start > flipped) bytes[flipped - start % PARTSIZE] ^= 4;
        sendData(talk, start, end, bytes);
    }
    static constexpr u32 flipped = 1000;  // byte of a part
};

// Is honest with the first nine tenths of the file.
class Turncoat : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        if (start < offer_.content.size / 10 * 9) return sendData(talk, start, end);
        sendData(talk, start, end, garbage(end - start));
    }
};

// Sends a few bytes a second of what it was asked for last.
class Trickler : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk&, u32 start, u32 end) override { asked_ = {start, end}; }
    void eachSecond(SimTalk& talk) override {
        const u32 end = std::min(asked_.second, asked_.first + 100);
        if (asked_.first < end) sendData(talk, asked_.first, end);
        asked_.first = end;
    }
    std::pair<u32, u32> asked_{0, 0};
};

// Hangs up, each time at another question.
class Leaver : public SimOpponent {
    using SimOpponent::SimOpponent;
    void gotHello(SimTalk& talk) override {
        goOn(talk, [&] { SimOpponent::gotHello(talk); });
    }
    void askedStatus(SimTalk& talk) override {
        goOn(talk, [&] { SimOpponent::askedStatus(talk); });
    }
    void askedHashSet(SimTalk& talk) override {
        goOn(talk, [&] { SimOpponent::askedHashSet(talk); });
    }
    void askedSlot(SimTalk& talk) override {
        goOn(talk, [&] { SimOpponent::askedSlot(talk); });
    }
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        goOn(talk, [&] { sendData(talk, start, end); });
    }
    template <class Answer>
    void goOn(SimTalk& talk, Answer answer) {
        if (++questions_ >= patience_) {
            talk.hangUp();
            questions_ = 0;
            ++patience_;
        } else {
            answer();
        }
    }
    int questions_ = 0;
    int patience_ = 1;
};

// Grants a slot and sends an empty packet now and then.
class Miser : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32) override { sendData(talk, start, start, {}); }
    void eachSecond(SimTalk& talk) override { sendData(talk, 0, 0, {}); }
};

// Accepts connections and never sends anything.
class Mute : public SimOpponent {
    using SimOpponent::SimOpponent;
    void gotHello(SimTalk&) override {}
    void askedStatus(SimTalk&) override {}
    void askedHashSet(SimTalk&) override {}
    void askedSlot(SimTalk&) override {}
    void askedRange(SimTalk&, u32, u32) override {}
};

// Asks and asks, and never says who it is.
class Nameless : public SimOpponent {
    using SimOpponent::SimOpponent;
    void sayHello(SimTalk&) override {}
    void eachSecond(SimTalk& talk) override { talk.say(OP_GET_FILE_NAME, aboutFile()); }
};

// Says hello, and then what is no packet at all.
class Babbler : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedSlot(SimTalk& talk) override { talk.sendRaw(garbage(5000)); }
    void heard(SimTalk& talk, u8) override { talk.sendRaw(garbage(50)); }
};

// Sends packets with known opcodes and random bodies.
class Mumbler : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedSlot(SimTalk& talk) override {
        for (u8 opcode = OP_FILE_DATA; opcode <= OP_FILE_NAME; ++opcode) talk.say(opcode, garbage(40));
    }
};

// Closes the connection in the middle of the first range.
class Quitter : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        sendData(talk, start, std::min(end, start + 1000));
        talk.hangUp();
    }
};

// Sends wrong part hashes.
class Forger : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedHashSet(SimTalk& talk) override {
        std::vector<MD4Hash> parts = offer_.parts;
        for (MD4Hash& part : parts) part.bytes[0] ^= 1;
        sendHashSet(talk, parts);
        parts.resize(parts.size() / 2);
        sendHashSet(talk, parts);
    }
};

// Sends ranges that weren't requested, also beyond the end of the file.
class Stuffer : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32 start, u32 end) override {
        const u32 size = static_cast<u32>(offer_.content.size);
        sendData(talk, end, start, garbage(100));
        sendData(talk, size - 10, size + 90, garbage(100));
        sendData(talk, 0xFFFFFF00, 0xFFFFFFFF, garbage(255));
        sendData(talk, start, end, garbage(1));
        sendData(talk, 0, 100, garbage(100'000));
        sendData(talk, start, end);
    }
};

// Grants slots and takes them back, and says that it doesn't have the file.
class Trickster : public SimOpponent {
    using SimOpponent::SimOpponent;
    void askedRange(SimTalk& talk, u32, u32) override {
        talk.say(OP_SLOT_ENDED);
        talk.say(OP_SLOT_GRANTED);
        talk.say(OP_NO_SUCH_FILE, aboutFile());
    }
};

template <class Opponent>
std::unique_ptr<SimOpponent> make(SimHost& host, const SimFileOffer& offer) {
    return std::make_unique<Opponent>(host, offer);
}

}  // namespace

const SimOpponentKind opponentKinds[] = {
    {"honest", make<SimOpponent>}, {"liar", make<Liar>},         {"flipper", make<Flipper>},
    {"twister", make<Twister>},    {"turncoat", make<Turncoat>}, {"miser", make<Miser>},
    {"trickler", make<Trickler>},  {"mute", make<Mute>},         {"babbler", make<Babbler>},
    {"mumbler", make<Mumbler>},    {"quitter", make<Quitter>},   {"leaver", make<Leaver>},
    {"forger", make<Forger>},      {"stuffer", make<Stuffer>},   {"trickster", make<Trickster>},
    {"nameless", make<Nameless>},
};
const std::size_t opponentKindCount = std::size(opponentKinds);

// What fuzz targets share: a target's entry, its demands, an interface that says nothing, and connections
// that hear what the input says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "i4min/memory/error.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/bytes.h"

// A parser to be fuzzed. All of them are in one program, which runs one of them: targets.cpp.
struct FuzzTarget {
    using Run = void(const std::uint8_t* data, std::size_t size);
    FuzzTarget(const char* name, Run* run);  // adds itself to those that findTarget() knows
    const char* name;
    Run* run;
};

// Null for a name that no target has.
const FuzzTarget* findTarget(std::string_view name);

// FUZZ_TARGET(peer) { ... } is the target "peer" over `data` and `size`; it stands in fuzz_peer.cpp.
#define FUZZ_TARGET(NAME)                                                \
    static void fuzz_##NAME(const std::uint8_t* data, std::size_t size); \
    static const FuzzTarget target_##NAME(#NAME, fuzz_##NAME);           \
    static void fuzz_##NAME(const std::uint8_t* data, std::size_t size)

// Ends the run, so that its input is kept, unless the demand holds.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// Damage is told in lines, which nobody reads here.
class Silence : public CoreUIInterface {
  public:
    void say(Text, const char*, va_list) override {}
};

// The engine behind a target that needs one: made at the first call, which has read the settings of a first
// run. It says nothing.
inline OwnEngine& quietEngine() {
    static Silence& silence = *new Silence;
    static OwnEngine& own = *new OwnEngine(&silence);
    static const bool ready = [] {
        own.preferences.load();
        std::filesystem::create_directories(own.preferences.tempDir().c_str());
        return true;
    }();
    require(ready);
    return own;
}

// A connection in no pool, whose other side says what the input holds.
template <class Base>
class Fuzzed : public Base {
  public:
    using Base::Base;

    // Messages one after the other, each a u16 length and a body, until the connection would be dropped;
    // `after` runs behind each.
    template <class After>
    void hearAll(const std::uint8_t* data, std::size_t size, After after) {
        const std::string text(reinterpret_cast<const char*>(data), size);
        for (std::size_t at = 0; at + 2 < size;) {
            const std::string body = text.substr(at + 2, u16At(text, at));
            at += 2 + body.size();
            if (!hear(body)) break;
            after();
        }
    }

  private:
    bool hear(const std::string& body) {
        i4_owned_ram_file stream;
        stream.write(i4_bytes(body));
        stream.seek(0);
        try {
            const u8 opcode = stream.read_8();
            return this->gotFirst ? this->handleMessage(opcode, stream) : this->firstMessage(opcode, stream);
        } catch (const i4_err&) {
            return false;
        }
    }
};

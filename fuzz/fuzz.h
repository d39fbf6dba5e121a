// What fuzz targets share: their registration, checks, a silent user interface, and connections fed by the
// input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "i4min/memory/error.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/bytes.h"

// A parser to fuzz. All targets are in one program, which runs one of them: targets.cpp. Constant.
struct FuzzTarget {
    using Run = void(const std::uint8_t* data, std::size_t size);
    FuzzTarget(const char* name, Run* run);  // registers itself for findTarget()
    const char* name;
    Run* run;
};

// Null if there is no such target.
const FuzzTarget* findTarget(std::string_view name);

// FUZZ_TARGET(peer) { ... } in fuzz_peer.cpp defines the target "peer", a function of `data` and `size`.
#define FUZZ_TARGET(NAME)                                                \
    static void fuzz_##NAME(const std::uint8_t* data, std::size_t size); \
    static const FuzzTarget target_##NAME(#NAME, fuzz_##NAME);           \
    static void fuzz_##NAME(const std::uint8_t* data, std::size_t size)

// Aborts the run unless `holds`, so that its input is kept.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// Discards all output. Thread: any.
class Silence : public CoreUIInterface {
  public:
    void say(Text, const char*, va_list) override {}
};

// The engine of targets that need one, made at the first call. It has read the settings of a first run and
// prints nothing.
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

// A connection that isn't in a pool and receives what the input holds. Thread: one.
template <class Base>
class Fuzzed : public Base {
  public:
    using Base::Base;

    // Feeds messages, each a u16 length and a body, until the connection would be closed. Calls `after` after
    // each.
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

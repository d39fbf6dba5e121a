// Views of bytes: what streams read into and write from.
#pragma once

#include <span>
#include <string_view>

#include "i4min/memory/types.h"

// The bytes of a text, to be written.
inline std::span<const u8> i4_bytes(std::string_view text) {
    return {reinterpret_cast<const u8*>(text.data()), text.size()};
}

// The characters of a text, to be read into.
inline std::span<u8> i4_room(std::span<char> text) {
    return {reinterpret_cast<u8*>(text.data()), text.size()};
}

// Bytes as a text.
inline std::string_view i4_text(std::span<const u8> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

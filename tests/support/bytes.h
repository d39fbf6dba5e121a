// Streams and bytes for tests of formats.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "i4min/file/file.h"

using Bytes = std::vector<std::uint8_t>;

// A memory stream over exactly these bytes, for reading.
class BytesFile : public i4_ram_file_class {
  public:
    explicit BytesFile(std::span<const std::uint8_t> bytes)
        : i4_ram_file_class(const_cast<std::uint8_t*>(bytes.data()), static_cast<u32>(bytes.size()), 0) {}
};

// What `write` puts onto a stream.
template <class Write>
Bytes written(Write write) {
    i4_owned_ram_file file;
    write(file);
    return Bytes(file.buffer(), file.buffer() + file.size());
}

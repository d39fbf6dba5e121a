// Streams and bytes for tests of formats.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "i4min/file/file.h"

using Bytes = std::vector<std::uint8_t>;

// A memory stream over a copy of exactly these bytes, for reading.
class BytesFile : public i4_ram_file_class {
  public:
    explicit BytesFile(std::span<const std::uint8_t> bytes)
        : i4_ram_file_class(nullptr, 0, 0), bytes_(bytes.begin(), bytes.end()) {
        reset(bytes_.data(), static_cast<u32>(bytes_.size()), 0);
    }

  private:
    Bytes bytes_;
};

// What `write` puts onto a stream.
template <class Write>
Bytes written(Write write) {
    i4_owned_ram_file file;
    write(file);
    return Bytes(file.buffer(), file.buffer() + file.size());
}

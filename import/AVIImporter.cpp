#include "import/AVIImporter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "i4min/file/file.h"
#include "meta/FileMeta.h"

namespace {

// Real header lists take some kilobytes, or some hundred with large indexes.
constexpr u32 maxHeaderList = 16 * 1024 * 1024;
// In real files, stream lists aren't nested.
constexpr int maxDepth = 4;
constexpr u32 mainHeaderBytes = 56;

using Bytes = std::span<const u8>;

// The start of a video stream's header; zeros where its chunk is too short. Numbers are little-endian.
//
//     offset  bytes  field
//     0       4      "vids"
//     4       4      the codec's four characters
//     20      4      scale
//     24      4      rate; rate / scale is the number of frames a second
//     32      4      length in frames
using VideoHeader = std::array<u8, 36>;

// `bytes` must have at least four bytes from `at` on.
u32 littleEndian(Bytes bytes, std::size_t at) {
    return u32{bytes[at]} | u32{bytes[at + 1]} << 8 | u32{bytes[at + 2]} << 16 | u32{bytes[at + 3]} << 24;
}

bool beginsWith(Bytes bytes, std::string_view word) {
    return bytes.size() >= word.size() && std::memcmp(bytes.data(), word.data(), word.size()) == 0;
}

// The text is null-terminated.
std::array<char, 5> codecOf(const VideoHeader& video) {
    std::array<char, 5> text{};
    std::memcpy(text.data(), video.data() + 4, 4);
    return text;
}

// Returns empty if it can't be computed.
std::optional<u32> secondsOf(const VideoHeader& video) {
    const u32 scale = littleEndian(video, 20);
    const u32 rate = littleEndian(video, 24);
    const u32 frames = littleEndian(video, 32);
    if (scale == 0 || rate == 0) return std::nullopt;
    const double length = frames / (static_cast<double>(rate) / scale);
    return static_cast<u32>(std::min<double>(length, std::numeric_limits<i32>::max()));
}

// Walks the consecutive chunks in `bytes`, and into stream lists, and stores the header of the last video
// stream. A chunk that exceeds its parent is cut there. Prints the reason and returns false if the file is to
// be refused.
bool walk(i4_file& file, Bytes bytes, std::optional<VideoHeader>& video, int depth = 0) {
    while (bytes.size() >= 8) {
        const u64 size = littleEndian(bytes, 4);  // no padding to an even number
        const Bytes chunk = bytes.first(static_cast<std::size_t>(std::min<u64>(8 + size, bytes.size())));
        const Bytes data = chunk.subspan(8);
        if (beginsWith(chunk, "avih") && size != mainHeaderBytes) {
            file.tell(i4_log::Tone::plain, "AVI header not correct size!\n");
            return false;
        }
        if (beginsWith(chunk, "LIST") && beginsWith(data, "strl") && depth < maxDepth) {
            if (!walk(file, data.subspan(4), video, depth + 1)) return false;
        }
        if (beginsWith(chunk, "strh") && beginsWith(data, "vids")) {
            VideoHeader& header = video.emplace();
            std::copy_n(data.begin(), std::min(data.size(), header.size()), header.begin());
        }
        bytes = bytes.subspan(chunk.size());
    }
    return true;
}

// Returns false unless the file is a RIFF AVI file that begins with a complete header list.
bool readHeaderList(i4_file& file, std::optional<VideoHeader>& video) {
    const std::vector<u8> start = readBlock(file, 24);
    const Bytes bytes = start;
    if (bytes.size() < 24 || !beginsWith(bytes, "RIFF") || !beginsWith(bytes.subspan(8), "AVI LIST") ||
        !beginsWith(bytes.subspan(20), "hdrl")) {
        return false;
    }
    const u32 size = littleEndian(bytes, 16);
    if (size < 4 || size - 4 > maxHeaderList) return false;
    const std::vector<u8> list = readBlock(file, size - 4);
    return list.size() == size - 4 && walk(file, list, video);
}

}  // namespace

bool AVIImporter::import(FileMeta& meta, const char* name, i4_file& file) const {
    const char* format = hasExtension(name, ".avi") ? "avi" : hasExtension(name, ".divx") ? "divx" : nullptr;
    std::optional<VideoHeader> video;
    if (!format || !readHeaderList(file, video)) return false;
    addTypeTags(meta, "Video", format);
    if (!video) return true;
    const std::array<char, 5> codec = codecOf(*video);
    file.tell(i4_log::Tone::plain, "      Compression: %s\n", codec.data());
    addTextTag(meta, "codec", codec.data());
    if (const std::optional<u32> seconds = secondsOf(*video)) {
        const u32 minutes = *seconds / 60;
        char length[32];
        std::snprintf(length, sizeof length, "%u:%2u", minutes / 60, minutes % 60);
        addTextTag(meta, "length", length);
    }
    return true;
}

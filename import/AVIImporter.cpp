#include "import/AVIImporter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "app/UIInterface.h"
#include "i4min/file/file.h"
#include "meta/FileMeta.h"

namespace {

// A true header list takes some kilobytes, with large indexes some hundred.
constexpr u32 maxHeaderList = 16 * 1024 * 1024;
// In a true file stream lists don't hold stream lists.
constexpr int maxDepth = 4;
constexpr u32 mainHeaderBytes = 56;

using Bytes = std::span<const u8>;

// `bytes` has at least four more behind `at`.
u32 littleEndian(Bytes bytes, std::size_t at) {
    return u32{bytes[at]} | u32{bytes[at + 1]} << 8 | u32{bytes[at + 2]} << 16 | u32{bytes[at + 3]} << 24;
}

bool beginsWith(Bytes bytes, std::string_view word) {
    return bytes.size() >= word.size() && std::memcmp(bytes.data(), word.data(), word.size()) == 0;
}

// What one file's header list holds. All zero at first: what a chunk is too short for stays zero.
class HeaderList {
  public:
    // Walks the chunks that stand side by side in `bytes`. False if the file isn't to be taken. A chunk that
    // runs past the end of what holds it is cut there.
    bool walk(Bytes bytes, int depth = 0) {
        while (bytes.size() >= 8) {
            const u64 step = u64{littleEndian(bytes, 4)} + 8;  // no padding to an even number
            const Bytes chunk = bytes.first(static_cast<std::size_t>(std::min<u64>(step, bytes.size())));
            if (!readChunk(chunk, step - 8, depth)) return false;
            bytes = bytes.subspan(chunk.size());
        }
        return true;
    }

    bool hasVideo() const { return hasVideo_; }
    // The four characters that name the codec, terminated.
    std::array<char, 5> codec() const {
        std::array<char, 5> text{};
        std::memcpy(text.data(), videoHeader_.data() + 4, 4);
        return text;
    }
    // Nothing if it can't be reckoned.
    std::optional<u32> seconds() const {
        const u32 scale = littleEndian(videoHeader_, 20);
        const u32 rate = littleEndian(videoHeader_, 24);
        const u32 frames = littleEndian(videoHeader_, 32);
        if (scale == 0 || rate == 0) return std::nullopt;
        const double length = frames / (static_cast<double>(rate) / scale);
        return static_cast<u32>(std::min<double>(length, std::numeric_limits<i32>::max()));
    }

  private:
    enum class Stream { none, video, audio };

    // `chunk` is id, size and the data that are there; `size` is what the chunk says of itself.
    bool readChunk(Bytes chunk, u64 size, int depth) {
        const Bytes data = chunk.subspan(8);
        if (beginsWith(chunk, "avih")) {
            if (size != mainHeaderBytes) {
                theLog->print("AVI header not correct size!\n");
                return false;
            }
            take(mainHeader_, data);
        } else if (beginsWith(chunk, "LIST")) {
            if (beginsWith(data, "strl") && depth < maxDepth) return walk(data.subspan(4), depth + 1);
        } else if (beginsWith(chunk, "strh")) {
            readStreamHeader(data);
        } else if (beginsWith(chunk, "strf")) {
            if (stream_ == Stream::video) take(videoFormat_, data);
            if (stream_ == Stream::audio) take(audioFormat_, data);
        } else if (beginsWith(chunk, "strn")) {
            if (stream_ == Stream::video) takeText(videoName_, data);
            if (stream_ == Stream::audio) takeText(audioName_, data);
        }
        return true;
    }

    void readStreamHeader(Bytes data) {
        stream_ = Stream::none;
        if (beginsWith(data, "vids")) {
            take(videoHeader_, data);
            stream_ = Stream::video;
            hasVideo_ = true;
        } else if (beginsWith(data, "auds")) {
            take(audioHeader_, data);
            stream_ = Stream::audio;
        }
    }

    template <std::size_t N>
    static void take(std::array<u8, N>& to, Bytes data) {
        to.fill(0);
        std::copy_n(data.begin(), std::min(N, data.size()), to.begin());
    }
    template <std::size_t N>
    static void takeText(std::array<u8, N>& to, Bytes data) {
        take(to, data);
        to[N - 1] = 0;
    }

    std::array<u8, mainHeaderBytes> mainHeader_{};
    std::array<u8, 64> videoHeader_{};  // of the last video stream
    std::array<u8, 64> audioHeader_{};  // of the last audio stream
    std::array<u8, 40> videoFormat_{};
    std::array<u8, 20> audioFormat_{};
    std::array<u8, 1024> videoName_{};
    std::array<u8, 1024> audioName_{};
    Stream stream_ = Stream::none;  // where a format and a name belong
    bool hasVideo_ = false;
};

// False for anything but a RIFF file of AVI that begins with its whole header list.
bool readHeaderList(i4_file& file, HeaderList& headers) {
    const std::vector<u8> start = readBlock(file, 24);
    const Bytes bytes = start;
    if (bytes.size() < 24 || !beginsWith(bytes, "RIFF") || !beginsWith(bytes.subspan(8), "AVI LIST") ||
        !beginsWith(bytes.subspan(20), "hdrl")) {
        return false;
    }
    const u32 size = littleEndian(bytes, 16);
    if (size < 4 || size - 4 > maxHeaderList) return false;
    const std::vector<u8> list = readBlock(file, size - 4);
    return list.size() == size - 4 && headers.walk(list);
}

}  // namespace

bool AVIImporter::import(FileMeta& meta, const char* name, const char*, i4_file& file) const {
    const char* format = hasExtension(name, ".avi") ? "avi" : hasExtension(name, ".divx") ? "divx" : nullptr;
    HeaderList headers;
    if (!format || !readHeaderList(file, headers)) return false;
    addTypeTags(meta, "Video", format);
    if (!headers.hasVideo()) return true;
    const std::array<char, 5> codec = headers.codec();
    theLog->print("      Compression: %s\n", codec.data());
    addTextTag(meta, "codec", codec.data());
    if (const std::optional<u32> seconds = headers.seconds()) {
        const u32 minutes = *seconds / 60;
        char length[32];
        std::snprintf(length, sizeof length, "%u:%2u", minutes / 60, minutes % 60);
        addTextTag(meta, "length", length);
    }
    return true;
}

#include "import/MP3Info.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

#include "i4min/file/Disk.h"
#include "import/Importer.h"

namespace {

constexpr u32 scanOffsets = 204'801;  // a header may start at any of these offsets
constexpr u32 headerBytes = 4;
constexpr u32 xingBytes = 12;

// The optional ID3v2 block before the frames. Its size excludes header and footer, and has seven bits per
// byte.
//
//     offset  bytes  field
//     0       3      "ID3"
//     3       2      version
//     5       1      flags; 16: a footer of ten bytes follows the data
//     6       4      size
constexpr u32 id3v2HeaderBytes = 10;
constexpr u8 id3v2HasFooter = 16;

// The fields of a frame header.
constexpr u32 versionOf(u32 header) { return header >> 19 & 3; }  // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
constexpr u32 layerOf(u32 header) { return header >> 17 & 3; }    // 3 Layer I, 2 Layer II, 1 Layer III
constexpr u32 bitrateIndexOf(u32 header) { return header >> 12 & 15; }
constexpr u32 rateIndexOf(u32 header) { return header >> 10 & 3; }
constexpr u32 modeOf(u32 header) { return header >> 6 & 3; }
constexpr u32 emphasisOf(u32 header) { return header & 3; }

constexpr u32 mpeg1 = 3;
constexpr u32 reservedVersion = 1;
constexpr u32 layerI = 3;
constexpr u32 singleChannel = 3;

bool isValid(u32 header) {
    return header >> 21 == 0x7FF && versionOf(header) != reservedVersion && layerOf(header) != 0 &&
           bitrateIndexOf(header) != 0 && bitrateIndexOf(header) != 15 && rateIndexOf(header) < 3 &&
           emphasisOf(header) != 2;
}

// kbit/s by the version's low bit, the layer and the index.
constexpr u16 bitrates[2][4][16] = {
    {{},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0}},
    {{},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
     {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0}},
};

// Hz by version and index. The first row isn't the true rates of MPEG-2.5 but what the network's clients use;
// see frameFactor.
constexpr u16 sampleRates[4][3] = {
    {32000, 16000, 8000}, {0, 0, 0}, {22050, 24000, 16000}, {44100, 48000, 32000}};

u32 tableBitrate(u32 header) {
    return bitrates[versionOf(header) & 1][layerOf(header)][bitrateIndexOf(header)];
}

f32 sampleRate(u32 header) { return sampleRates[versionOf(header)][rateIndexOf(header)]; }

// Bytes per frame for one bit per sample. The same for all versions, as in the network's other clients, so
// that a file has the same details everywhere.
double frameFactor(u32 header) { return layerOf(header) == layerI ? 12.0 : 144.0; }

u32 bigEndian(const u8* bytes) {
    return u32{bytes[0]} << 24 | u32{bytes[1]} << 16 | u32{bytes[2]} << 8 | bytes[3];
}

// Returns the total size that the ID3v2 block at the start of `bytes` claims, which may exceed them; 0 if
// there is none.
u32 id3v2Bytes(std::span<const u8> bytes) {
    if (bytes.size() < id3v2HeaderBytes || std::memcmp(bytes.data(), "ID3", 3) != 0) return 0;
    u32 size = 0;
    for (const u8 byte : bytes.subspan(6, 4)) {
        if (byte & 0x80) return 0;
        size = size << 7 | byte;
    }
    return size + (bytes[5] & id3v2HasFooter ? 2 * id3v2HeaderBytes : id3v2HeaderBytes);
}

// Where the search for the first frame starts: after the ID3v2 block, since its UTF-16 text can look like a
// frame header. 0 if the block exceeds the range that is searched.
u32 firstOffset(std::span<const u8> bytes) {
    const u32 start = id3v2Bytes(bytes);
    return start + headerBytes <= bytes.size() ? start : 0;
}

// Bytes from the start of a frame to a Xing header, which follows the side information.
u32 xingDistance(u32 header) {
    const bool mono = modeOf(header) == singleChannel;
    if (versionOf(header) == mpeg1) return headerBytes + (mono ? 17 : 32);
    return headerBytes + (mono ? 9 : 17);
}

void copyText(char (&out)[31], const u8* from, std::size_t length) {
    while (length > 0 && (from[length - 1] == ' ' || from[length - 1] == 0)) --length;
    std::memcpy(out, from, length);
    out[length] = 0;
}

constexpr const char* genres[] = {"Blues",
                                  "Classic Rock",
                                  "Country",
                                  "Dance",
                                  "Disco",
                                  "Funk",
                                  "Grunge",
                                  "Hip-Hop",
                                  "Jazz",
                                  "Metal",
                                  "New Age",
                                  "Oldies",
                                  "Other",
                                  "Pop",
                                  "R&B",
                                  "Rap",
                                  "Reggae",
                                  "Rock",
                                  "Techno",
                                  "Industrial",
                                  "Alternative",
                                  "Ska",
                                  "Death Metal",
                                  "Pranks",
                                  "Soundtrack",
                                  "Euro-Techno",
                                  "Ambient",
                                  "Trip-Hop",
                                  "Vocal",
                                  "Jazz+Funk",
                                  "Fusion",
                                  "Trance",
                                  "Classical",
                                  "Instrumental",
                                  "Acid",
                                  "House",
                                  "Game",
                                  "Sound Clip",
                                  "Gospel",
                                  "Noise",
                                  "AlternRock",
                                  "Bass",
                                  "Soul",
                                  "Punk",
                                  "Space",
                                  "Meditative",
                                  "Instrumental Pop",
                                  "Instrumental Rock",
                                  "Ethnic",
                                  "Gothic",
                                  "Darkwave",
                                  "Techno-Industrial",
                                  "Electronic",
                                  "Pop-Folk",
                                  "Eurodance",
                                  "Dream",
                                  "Southern Rock",
                                  "Comedy",
                                  "Cult",
                                  "Gangsta",
                                  "Top 40",
                                  "Christian Rap",
                                  "Pop/Funk",
                                  "Jungle",
                                  "Native American",
                                  "Cabaret",
                                  "New Wave",
                                  "Psychedelic",
                                  "Rave",
                                  "Showtunes",
                                  "Trailer",
                                  "Lo-Fi",
                                  "Tribal",
                                  "Acid Punk",
                                  "Acid Jazz",
                                  "Polka",
                                  "Retro",
                                  "Musical",
                                  "Rock & Roll",
                                  "Hard Rock",
                                  "Folk",
                                  "Folk-Rock",
                                  "National Folk",
                                  "Swing",
                                  "Fast Fusion",
                                  "Bebop",
                                  "Latin",
                                  "Revival",
                                  "Celtic",
                                  "Bluegrass",
                                  "Avantgarde",
                                  "Gothic Rock",
                                  "Progressive Rock",
                                  "Psychedelic Rock",
                                  "Symphonic Rock",
                                  "Slow Rock",
                                  "Big Band",
                                  "Chorus",
                                  "Easy Listening",
                                  "Acoustic",
                                  "Humour",
                                  "Speech",
                                  "Chanson",
                                  "Opera",
                                  "Chamber Music",
                                  "Sonata",
                                  "Symphony",
                                  "Booty Bass",
                                  "Primus",
                                  "Porn Groove",
                                  "Satire",
                                  "Slow Jam",
                                  "Club",
                                  "Tango",
                                  "Samba",
                                  "Folklore",
                                  "Ballad",
                                  "Power Ballad",
                                  "Rhythmic Soul",
                                  "Freestyle",
                                  "Duet",
                                  "Punk Rock",
                                  "Drum Solo",
                                  "A capella",
                                  "Euro-House",
                                  "Dance Hall"};
static_assert(std::size(genres) == 126);

}  // namespace

bool ID3Tag::parse(const u8* block) {
    if (std::memcmp(block, "TAG", 3) != 0) return false;
    copyText(title, block + 3, 30);
    copyText(artist, block + 33, 30);
    copyText(album, block + 63, 30);
    char digits[5] = {};
    std::memcpy(digits, block + 93, 4);
    year = std::atoi(digits);
    const bool hasTrack = block[125] == 0 && block[126] != 0;
    version = hasTrack ? 1.1F : 1.0F;
    track = hasTrack ? block[126] : 0;
    copyText(comment, block + 97, hasTrack ? 28 : 30);
    genre = block[127];
    return true;
}

const char* genreName(u8 genre) { return genre < std::size(genres) ? genres[genre] : "not supported"; }

MP3Info::Result MP3Info::open(Disk& disk, const char* name) {
    path = name;
    const std::unique_ptr<i4_file> file = disk.open(name, I4_FILE_READ);
    return file ? read(*file) : notOpened;
}

MP3Info::Result MP3Info::read(i4_file& file) {
    fileSize = file.size();
    file.seek(0);
    const std::vector<u8> block = readBlock(file, scanOffsets - 1 + headerBytes);
    for (u32 at = firstOffset(block); at + headerBytes <= block.size(); ++at) {
        header = bigEndian(block.data() + at);
        if (!isValid(header)) continue;
        readXing(file, at);
        readTag(file);
        return found;
    }
    return noHeader;
}

void MP3Info::readXing(i4_file& file, u32 headerOffset) {
    hasXing = false;
    frames = -1;
    file.seek(headerOffset + xingDistance(header));
    const std::vector<u8> block = readBlock(file, xingBytes);
    if (block.size() < xingBytes || std::memcmp(block.data(), "Xing", 4) != 0 || !(block[7] & 1)) return;
    const u32 count = bigEndian(block.data() + 8);
    if (count < 1 || count > u32{std::numeric_limits<i32>::max()}) return;
    hasXing = true;
    frames = static_cast<i32>(count);
}

void MP3Info::readTag(i4_file& file) {
    hasTag = false;
    if (fileSize < ID3Tag::bytes) return;
    file.seek(fileSize - ID3Tag::bytes);
    const std::vector<u8> block = readBlock(file, ID3Tag::bytes);
    hasTag = block.size() == ID3Tag::bytes && tag.parse(block.data());
}

i32 MP3Info::frameCount() const {
    if (hasXing) return frames;
    const u32 rate = tableBitrate(header);
    if (rate == 0) return 0;
    const f32 perSample = 1000 * static_cast<f32>(rate) / sampleRate(header);
    const auto frameSize = static_cast<f32>(frameFactor(header) * perSample);
    return static_cast<i32>(static_cast<f32>(fileSize) / frameSize);
}

u32 MP3Info::bitrate() const {
    if (!hasXing) return tableBitrate(header);
    const f32 frameSize = static_cast<f32>(fileSize) / static_cast<f32>(frames);
    const double rate = frameSize * sampleRate(header) / (1000.0 * frameFactor(header));
    return static_cast<u32>(std::min<double>(rate, std::numeric_limits<i32>::max()));
}

u32 MP3Info::lengthSeconds() const {
    const u32 rate = bitrate();
    return rate == 0 ? 0 : fileSize / 125 / rate;
}

void MP3Info::lengthText(char* out, std::size_t size) const {
    const u32 length = lengthSeconds();
    const u32 seconds = length % 60;
    const u32 minutes = length / 60 % 60;
    const u32 hours = length / 3600;
    if (hours >= 1) {
        std::snprintf(out, size, "%02u:%02u:%02u", hours, minutes, seconds);
    } else {
        std::snprintf(out, size, "%02u:%02u", minutes, seconds);
    }
}

void MP3Info::getChannelMode(char* out, std::size_t size) const {
    static constexpr const char* names[] = {"Stereo", "Joint Stereo", "Dual Channel", "Single Channel"};
    i4_strncpy(out, names[modeOf(header)], size);
}

void MP3Info::getVersion(char* out, std::size_t size) const {
    static constexpr double versions[] = {2.5, 0, 2.0, 1.0};
    static constexpr const char* layers[] = {"", "III", "II", "I"};
    std::snprintf(out, size, "MPEG %g Layer %s", versions[versionOf(header)], layers[layerOf(header)]);
}

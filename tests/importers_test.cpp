// What the importers tell of a file: by its name, and by what stands in audio and video files, sound or not.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "import/AVIImporter.h"
#include "import/ImporterList.h"
#include "import/MP3Info.h"
#include "meta/FileMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

namespace {

constexpr u32 stereo128 = 0xFFFB9000;  // MPEG-1 Layer III, 128 kbit/s, 44,100 Hz
constexpr u32 mono = 0xC0;

std::string bigEndian32(u32 value) {
    const std::string bytes = le32(value);
    return {bytes.rbegin(), bytes.rend()};
}

// A RIFF chunk, unpadded. Its size is that of the data unless another one is given.
std::string chunk(const std::string& id, const std::string& data) { return id + le32(data.size()) + data; }
std::string lyingChunk(const std::string& id, u32 size, const std::string& data) {
    return id + le32(size) + data;
}

// The 56 bytes of a stream header.
std::string streamHeader(const std::string& type, const std::string& codec, u32 scale, u32 rate, u32 length) {
    return chunk("strh", type + codec + std::string(12, 0) + le32(scale) + le32(rate) + std::string(4, 0) +
                             le32(length) + std::string(20, 0));
}

std::string streamList(const std::string& chunks) { return chunk("LIST", "strl" + chunks); }

// An AVI file whose header list is a main header and these chunks.
std::string aviFile(const std::string& chunks) {
    const std::string headers = chunk("LIST", "hdrl" + chunk("avih", std::string(56, 1)) + chunks);
    return chunk("RIFF", "AVI " + headers + chunk("LIST", "movi"));
}

// An MPEG audio file of `size` bytes that begins with this frame header; a Xing header stands `distance`
// bytes behind it.
std::string audioFile(u32 header, std::size_t size, std::size_t distance = 0, u32 flags = 1, u32 frames = 0) {
    std::string file = bigEndian32(header);
    if (distance > 0) {
        file.resize(distance);
        file += "Xing" + bigEndian32(flags) + bigEndian32(frames);
    }
    file.resize(size);
    return file;
}

class Importers : public testing::Test {
  protected:
    // Imports a file of that name and content, and gives its tags behind name and size as "name=value|".
    std::string import(const std::string& name, const std::string& bytes) {
        writeFile(home_.file(name), bytes);
        FileMeta meta;
        EXPECT_TRUE(importers_.importFile(meta, home_.file(name).c_str(), name.c_str()));
        EXPECT_STREQ(meta.path.c_str(), home_.file(name).c_str());
        const std::string start = "Name=" + name + "|Size=" + std::to_string(bytes.size()) + "|";
        const std::string tags = tagsOf(meta);
        EXPECT_EQ(tags.substr(0, start.size()), start);
        return tags.substr(start.size());
    }
    static std::string tagsOf(const FileMeta& meta) {
        std::string tags;
        for (LL<MetaTag>::Cursor c; const MetaTag* tag = meta.getTags().next(c);) {
            char text[256];
            tags += std::string(tag->displayName()) + "=" + tag->printable(text, sizeof text) + "|";
        }
        return tags;
    }

    TemporaryDirectory home_;
    CapturedLog log_;
    const ImporterList importers_;
};

TEST_F(Importers, KnowFilesByTheirNames) {
    const std::pair<const char*, const char*> taken[] = {
        {"a.ogg", "Type=Audio|Format=ogg|"},         {"a.mod", "Type=Audio|Format=mod|"},
        {"a.rm", "Type=Video|Format=rm|"},           {"a.mov", "Type=Video|Format=mov|"},
        {"a.asf", "Type=Video|Format=asf|"},         {"a.mpg", "Type=Video|Format=mpg|"},
        {"clip.mpeg", "Type=Video|Format=mpeg|"},    {"a.m2v", "Type=Video|Format=m2v|"},
        {"a.wmv", "Type=Video|Format=wmv|"},         {"a.vcd", "Type=Video|Format=vcd|"},
        {"a.bmp", "Type=Image|Format=bmp|Artist=|"}, {"a.gif", "Type=Image|Format=gif|Artist=|"},
        {"a.png", "Type=Image|Format=png|Artist=|"}, {"photo.jpg", "Type=Image|Format=jpeg|Artist=|"},
        {"a.exe", "Type=Pro|Format=exe|"},           {"A.ZIP", "Type=Pro|Format=zip|"},
        {"a.b.RaR", "Type=Pro|Format=rar|"},         {"a.ace", "Type=Pro|Format=ace|"},
        {"a.sit", "Type=Pro|Format=sit|"},           {"Max: a\\b.iso", "Type=Pro|Format=iso|"},
    };
    for (const auto& [name, tags] : taken) EXPECT_EQ(import(name, ""), tags) << name;
    for (const char* name :
         {".zip", ".ogg", "photo.jpeg", "zip", "azip", "a.zip.txt", "a.zip ", "a.mp3", "a.avi"}) {
        EXPECT_EQ(import(name, "neither audio nor video"), "") << name;
        EXPECT_EQ(import(name, ""), "") << name;
    }
}

TEST_F(Importers, AFileThatIsGoneOrTooShortToBeAnything) {
    FileMeta meta;
    EXPECT_FALSE(importers_.importFile(meta, home_.file("gone.zip").c_str(), "gone.zip"));
    EXPECT_EQ(tagsOf(meta), "");
    EXPECT_EQ(meta.path.length(), 0u);
    log_.verbose = 1;
    EXPECT_EQ(import("note.txt", "short"), "");
    EXPECT_EQ(log_.take(), "Exception in import\n");
    // A directory opens but can't be read.
    EXPECT_TRUE(importers_.importFile(meta, home_.path().c_str(), "films.avi"));
    EXPECT_EQ(meta.getText(TAG_TYPE), nullptr);
}

TEST_F(Importers, RandomBytesUnderTheRightNames) {
    std::mt19937 random(10);
    for (int round = 0; round < 40; ++round) {
        std::string bytes(random() % 5000, 0);
        for (char& byte : bytes) byte = static_cast<char>(random());
        if (round % 2) bytes.replace(0, std::min<std::size_t>(24, bytes.size()), aviFile("").substr(0, 24));
        for (const char* name : {"x.mp3", "x.avi", "x.divx", "x.bin"}) import(name, bytes);
    }
}

std::string described(const MP3Info& info) {
    char version[32];
    char mode[32];
    char length[32];
    info.getVersion(version, sizeof version);
    info.getChannelMode(mode, sizeof mode);
    info.lengthText(length, sizeof length);
    return std::string(version) + ", " + mode + ", " + std::to_string(info.bitrate()) + " kbit/s, " +
           std::to_string(info.frameCount()) + " frames, " + length;
}

std::span<const std::uint8_t> spanOf(const std::string& bytes) {
    return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

MP3Info read(const std::string& bytes) {
    BytesFile stream(spanOf(bytes));
    MP3Info info;
    if (info.read(stream) != MP3Info::found) info.header = 0;
    return info;
}

// What the headers of a file with these bytes tell; nothing where it has none.
std::string told(const std::string& bytes) {
    const MP3Info info = read(bytes);
    return info.header ? described(info) : "";
}

TEST(MP3Info, FrameHeaders) {
    const std::pair<u32, const char*> table[] = {
        {stereo128, "MPEG 1 Layer III, Stereo, 128 kbit/s, 2392 frames, 01:02"},
        {0xFFFAE0C1, "MPEG 1 Layer III, Single Channel, 320 kbit/s, 957 frames, 00:25"},
        {0xFFF39040, "MPEG 2 Layer III, Joint Stereo, 80 kbit/s, 1914 frames, 01:40"},
        {0xFFE31880, "MPEG 2.5 Layer III, Dual Channel, 8 kbit/s, 6944 frames, 16:40"},
        {0xFFFDE400, "MPEG 1 Layer II, Stereo, 384 kbit/s, 868 frames, 00:20"},
        {0xFFFFE800, "MPEG 1 Layer I, Stereo, 448 kbit/s, 5952 frames, 00:17"},
        {0xFFF7E003, "MPEG 2 Layer I, Stereo, 256 kbit/s, 7177 frames, 00:31"},
        {0xFFF5E000, "MPEG 2 Layer II, Stereo, 160 kbit/s, 957 frames, 00:50"},
    };
    for (const auto& [header, text] : table) EXPECT_EQ(told(audioFile(header, 1'000'000)), text);
    for (const u32 invalid : {0xFFDB9000U, 0xFEFB9000U, 0xFFEB9000U, 0xFFF99000U, 0xFFFB0000U, 0xFFFBF000U,
                              0xFFFB9C00U, 0xFFFB9002U}) {
        EXPECT_EQ(told(audioFile(invalid, 1000)), "");
    }
    EXPECT_EQ(MP3Info().open("/nowhere/at all.mp3"), MP3Info::notOpened);
}

// An ID3v2 block of `size` bytes behind its header. It begins like a text in UTF-16, and like a frame of
// Layer I.
std::string id3v2(u32 size, char flags = 0) {
    std::string block = std::string("ID3\3\0", 5) + flags;
    for (int shift = 21; shift >= 0; shift -= 7) block += static_cast<char>(size >> shift & 0x7F);
    return block + "\xFF\xFET" + std::string(size - 3, 0);
}

TEST(MP3Info, TheFirstHeaderOfTheFirst200KiBAndBehindID3v2) {
    const std::string frame = audioFile(stereo128, 4);
    std::string unsafe = id3v2(1000);  // no size has the upper bit set
    unsafe[9] |= '\x80';
    const std::pair<std::string, u32> table[] = {
        {std::string(204'800, 0) + frame, stereo128},
        {std::string(204'801, 0) + frame, 0},
        {"\xFF\xFF" + frame, stereo128},
        {frame.substr(0, 3), 0},
        {"", 0},
        {id3v2(1000) + frame, stereo128},
        {id3v2(1000, 0x10) + std::string("3DI\3\0\0\xFF\xFET", 10) + frame, stereo128},
        {id3v2(204'790) + frame, stereo128},
        // Not to be skipped: the block goes beyond what is searched or what is there, or is none.
        {id3v2(204'791) + frame, 0xFFFE5400},
        {id3v2(1000).substr(0, 500) + frame, 0xFFFE5400},
        {unsafe + frame, 0xFFFE5400},
        {"TAG" + id3v2(1000) + frame, 0xFFFE5400},
    };
    for (std::size_t i = 0; i < std::size(table); ++i)
        EXPECT_EQ(read(table[i].first).header, table[i].second) << i;
}

TEST(MP3Info, XingHeadersStandBehindTheSideInformation) {
    constexpr u32 mpeg2 = 0xFFF39000;
    const struct {
        u32 header;
        std::size_t distance;
        const char* text;
    } table[] = {
        {stereo128, 4 + 32, "MPEG 1 Layer III, Stereo, 153 kbit/s, 2000 frames, 00:52"},
        {stereo128 | mono, 4 + 17, "MPEG 1 Layer III, Single Channel, 153 kbit/s, 2000 frames, 00:52"},
        {mpeg2, 4 + 17, "MPEG 2 Layer III, Stereo, 76 kbit/s, 2000 frames, 01:45"},
        {mpeg2 | mono, 4 + 9, "MPEG 2 Layer III, Single Channel, 76 kbit/s, 2000 frames, 01:45"}};
    for (const auto& [header, distance, text] : table) {
        EXPECT_EQ(told(audioFile(header, 1'000'000, distance, 0xF, 2000)), text);
        const std::string without[] = {
            audioFile(header, 1000, distance - 1, 1, 2000),
            audioFile(header, 1000, distance + 1, 1, 2000),
            audioFile(header, 1000, distance, 0xE, 2000),
            audioFile(header, 1000, distance, 1, 0),
            audioFile(header, 1000, distance, 1, 0x80000000),
            audioFile(header, distance + 11, distance, 1, 9),
        };
        for (const std::string& bytes : without)
            EXPECT_EQ(told(bytes), told(audioFile(header, bytes.size())));
    }
    EXPECT_EQ(told(audioFile(stereo128, 1000, 36, 1, 0x7FFFFFFF)),
              "MPEG 1 Layer III, Stereo, 0 kbit/s, 2147483647 frames, 00:00");
}

TEST(MP3Info, LengthsUpTo4GB) {
    MP3Info info;
    info.header = 0xFFF31000;  // 8 kbit/s
    const std::pair<u32, const char*> table[] = {
        {999, ", 00:00"},          {3'599'999, ", 59:59"},       {3'600'000, ", 01:00:00"},
        {3'661'000, ", 01:01:01"}, {0xFFFFFFFF, ", 1193:02:47"},
    };
    for (const auto& [size, text] : table) {
        info.fileSize = size;
        EXPECT_TRUE(described(info).ends_with(text)) << described(info);
    }
    info.header = 0xFFFFE400;
    info.fileSize = 0xFFFFFFFF;
    info.hasXing = true;
    info.frames = 1;
    EXPECT_EQ(described(info), "MPEG 1 Layer I, Stereo, 2147483647 kbit/s, 1 frames, 00:00");
}

std::string field(const std::string& text, std::size_t length, char fill) {
    return text + std::string(length - text.size(), fill);
}

TEST_F(Importers, ID3Tags) {
    const std::string start =
        "TAG" + field("A Title", 30, ' ') + field("", 30, ' ') + field("The Album", 30, '\0') + "1987";
    const std::string v10 = start + field("thirty characters of comment..", 30, 0) + '\x7D';
    const std::string v11 = start + field("twenty-eight of them", 28, ' ') + '\0' + '\x07' + '\x7E';
    const std::string untracked = v11.substr(0, 126) + '\0' + '\0';
    const std::string song = audioFile(stereo128, 1000);
    const auto comment = [&](const std::string& tag) {
        const MP3Info info = read(song + tag);
        char text[64];
        std::snprintf(text, sizeof text, "%.1f %d %d %s, %s", info.tag.version, info.tag.year, info.tag.track,
                      info.tag.comment, genreName(info.tag.genre));
        return std::string(text);
    };
    EXPECT_EQ(comment(v10), "1.0 1987 0 thirty characters of comment.., Dance Hall");
    EXPECT_EQ(comment(v11), "1.1 1987 7 twenty-eight of them, not supported");
    EXPECT_EQ(comment(untracked), "1.0 1987 0 twenty-eight of them, Blues");
    EXPECT_STREQ(genreName(79), "Hard Rock");
    EXPECT_FALSE(read(song + v10 + "x").hasTag);
    EXPECT_FALSE(read(song.substr(0, 100)).hasTag);

    // The blank artist is left out.
    EXPECT_EQ(import("Song.MP3", audioFile(stereo128, 1'000'000 - 128) + v10),
              "Type=Audio|Format=mp3|Album=The Album|Title=A Title|length=01:02|bitrate=128|");
    EXPECT_EQ(import("plain.mp3", audioFile(stereo128, 20'000)),
              "Type=Audio|Format=mp3|length=00:01|bitrate=128|");
}

std::string videoStream(const std::string& codec, u32 scale, u32 rate, u32 frames) {
    return streamList(streamHeader("vids", codec, scale, rate, frames));
}

TEST_F(Importers, VideoFiles) {
    const std::string film = videoStream("XVID", 1, 25, 7500 * 25);
    const std::string sound = streamHeader("auds", std::string(4, 0), 1, 8000, 60'000'000);
    const std::string several = videoStream("DIV3", 1, 10, 1) + film +
                                streamList(sound + chunk("strn", std::string(5000, 'n'))) +
                                streamList(streamHeader("txts", "TEXT", 1, 1, 1));
    const std::string bare = "Type=Video|Format=avi|";
    const std::string told = bare + "codec=XVID|length=2: 5|";
    std::string nested;
    for (int level = 0; level < 200'000; ++level) nested += lyingChunk("LIST", 0xFFFFFF, "strl");
    std::vector<std::pair<std::string, std::string>> table = {
        {several, told},
        {chunk("LIST", "odml" + std::string(20, 9)) + film, told},
        {videoStream("mp4v", 1001, 24000, 86'400), bare + "codec=mp4v|length=1: 0|"},
        {videoStream("mp4v", ~0U, 1, ~0U), bare + "codec=mp4v|length=596523:14|"},
        // Nothing of the film before shows.
        {streamList(sound), bare},
        {"", bare},
        {videoStream("XVID", 0, 25, 9), bare + "codec=XVID|"},
        {videoStream("XVID", 1, 0, 9), bare + "codec=XVID|"},
        {videoStream("XVID", 0, 0, 9), bare + "codec=XVID|"},
        {streamList(chunk("strh", "vidsXV")) + "end", bare + "codec=XV|"},
        {chunk("LIST", "st") + chunk("strh", "") + chunk("LIST", ""), bare},
        {nested, bare},
    };
    // What a chunk's size claims beyond the list isn't there; what stands before it counts.
    for (const u32 size : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF7U, 0x80000000U, 2000U}) {
        table.push_back({film + lyingChunk("strn", size, "4 GB of name"), told});
        table.push_back({lyingChunk("LIST", size, film.substr(8)), told});
    }
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(import("film.AVI", aviFile(table[i].first)), table[i].second) << i;
        const bool hasCodec = table[i].second.find("codec") != std::string::npos;
        EXPECT_EQ(log_.take().find("      Compression: ") == 0, hasCodec) << i;
    }
    EXPECT_EQ(import("film.divx", aviFile(film)), "Type=Video|Format=divx|codec=XVID|length=2: 5|");
    EXPECT_EQ(log_.take(), "      Compression: XVID\n");
}

TEST_F(Importers, VideoFilesThatAreNone) {
    const std::string shortHeader = chunk("avih", std::string(52, 0));
    EXPECT_EQ(import("a.avi", chunk("RIFF", "AVI " + chunk("LIST", "hdrl" + shortHeader))), "");
    EXPECT_EQ(log_.take(), "AVI header not correct size!\n");
    const std::pair<std::size_t, std::string> damages[] = {
        {0, "RIFX"},   {8, "AVIX"},   {12, "JUNK"},           {20, "movi"},
        {16, le32(0)}, {16, le32(3)}, {16, le32(0x7FFFFFFF)}, {16, le32(0xFFFFFFFF)},
    };
    for (const auto& [at, bytes] : damages) {
        EXPECT_EQ(import("a.avi", aviFile(videoStream("XVID", 1, 25, 1)).replace(at, 4, bytes)), "") << at;
    }
}

TEST_F(Importers, DamagedHeadersAreReadInBounds) {
    sweepDamage(spanOf(aviFile(videoStream("XVID", 1, 25, 1) + chunk("strn", "name"))), [](auto bytes) {
        BytesFile stream(bytes);
        FileMeta meta;
        AVIImporter().import(meta, "x.avi", "", stream);
    });
    const std::string song = id3v2(40) + audioFile(stereo128, 300, 36, 1, 10) + field("TAGtitle", 128, 0);
    sweepDamage(spanOf(song), [](auto bytes) {
        BytesFile stream(bytes);
        MP3Info info;
        char text[32];
        if (info.read(stream) == MP3Info::found) info.lengthText(text, sizeof text);
    });
}

}  // namespace

// What the importers read from a file: by its name, and from sound and damaged audio and video content.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "import/ImporterList.h"
#include "import/MP3Info.h"
#include "meta/FileMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"
#include "tests/support/systemDisk.h"

namespace {

constexpr u32 stereo128 = 0xFFFB9000;  // MPEG-1 Layer III, 128 kbit/s, 44,100 Hz

std::string bigEndian32(u32 value) {
    const std::string bytes = le32(value);
    return {bytes.rbegin(), bytes.rend()};
}

// A RIFF chunk without padding.
std::string chunk(const std::string& id, const std::string& data) { return id + le32(data.size()) + data; }

// A list with one stream, whose header has 56 bytes.
std::string stream(const std::string& type, const std::string& codec, u32 scale, u32 rate, u32 length) {
    return chunk("LIST", "strl" + chunk("strh", type + codec + std::string(12, 0) + le32(scale) + le32(rate) +
                                                    std::string(4, 0) + le32(length) + std::string(20, 0)));
}

// An AVI file whose header list has a main header and these chunks.
std::string aviFile(const std::string& chunks) {
    const std::string headers = chunk("LIST", "hdrl" + chunk("avih", std::string(56, 1)) + chunks);
    return chunk("RIFF", "AVI " + headers + chunk("LIST", "movi"));
}

// An MPEG audio file of `size` bytes that begins with this frame header. A Xing header has the count
// `frames`.
std::string audioFile(u32 header, std::size_t size, u32 frames = 0) {
    std::string file = bigEndian32(header);
    if (frames > 0) file += std::string(32, 0) + "Xing" + bigEndian32(1) + bigEndian32(frames);
    file.resize(size);
    return file;
}

class Importers : public testing::Test {
  protected:
    // Imports a file and returns its tags after name and size as "name=value|".
    std::string import(const std::string& name, const std::string& bytes) {
        writeFile(home_.file(name), bytes);
        FileMeta meta;
        EXPECT_TRUE(importers_.importFile(meta, systemDisk(), log_, home_.file(name).c_str(), name.c_str()));
        std::string tags;
        for (const auto& tag : meta.getTags()) {
            char text[256];
            tags += std::string(tag->displayName()) + "=" + tag->printable(text, sizeof text) + "|";
        }
        const std::string start = "Name=" + name + "|Size=" + std::to_string(bytes.size()) + "|";
        EXPECT_EQ(tags.substr(0, start.size()), start);
        return tags.substr(start.size());
    }

    TemporaryDirectory home_;
    CapturedLog log_;
    const ImporterList importers_;
};

TEST_F(Importers, KnowFilesByTheirNames) {
    const std::pair<const char*, std::string> rows[] = {
        {"ogg mod", "Type=Audio|Format=%|"},
        {"rm mov asf mpg mpeg m2v wmv vcd", "Type=Video|Format=%|"},
        {"bmp gif png", "Type=Image|Format=%|Artist=|"},
        {"exe zip rar ace sit iso", "Type=Pro|Format=%|"},
        {"txt zip.txt avi mp3 jpeg", ""},  // neither audio nor video, whatever the name
    };
    for (const auto& [endings, tags] : rows) {
        std::istringstream words(endings);
        for (std::string ending; words >> ending;) {
            const std::string said = import("Max: a\\b." + ending, "no such file");
            EXPECT_EQ(said, std::regex_replace(tags, std::regex("%"), ending));
        }
    }
    EXPECT_EQ(import("photo.jpg", ""), "Type=Image|Format=jpeg|Artist=|");
    EXPECT_EQ(import("A.ZIP", ""), "Type=Pro|Format=zip|");
    for (const char* name : {".zip", "zip", "azip"}) EXPECT_EQ(import(name, ""), "");
    FileMeta meta;
    EXPECT_FALSE(importers_.importFile(meta, systemDisk(), log_, home_.file("gone.zip").c_str(), "gone.zip"));
}

MP3Info read(const std::string& bytes) {
    BytesFile file({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    MP3Info info;
    if (info.read(file) != MP3Info::found) info.header = 0;
    return info;
}

// The values from the headers of these bytes; empty if there are none.
std::string told(const std::string& bytes) {
    const MP3Info info = read(bytes);
    char text[3][32];
    if (!info.header) return "";
    info.getVersion(text[0], sizeof text[0]);
    info.getChannelMode(text[1], sizeof text[1]);
    info.lengthText(text[2], sizeof text[2]);
    return std::string(text[0]) + ", " + text[1] + ", " + std::to_string(info.bitrate()) + " kbit/s, " +
           std::to_string(info.frameCount()) + " frames, " + text[2];
}

// Each version and layer with its own table. A constant rate gives the length, up to 4 GB.
TEST(MP3Info, FrameHeaders) {
    const std::pair<u32, const char*> table[] = {
        {stereo128, "MPEG 1 Layer III, Stereo, 128 kbit/s, 2392 frames, 01:02"},
        {0xFFF39040, "MPEG 2 Layer III, Joint Stereo, 80 kbit/s, 1914 frames, 01:40"},
        {0xFFE31880, "MPEG 2.5 Layer III, Dual Channel, 8 kbit/s, 6944 frames, 16:40"},
        {0xFFFDE400, "MPEG 1 Layer II, Stereo, 384 kbit/s, 868 frames, 00:20"},
        {0xFFFFE8C0, "MPEG 1 Layer I, Single Channel, 448 kbit/s, 5952 frames, 00:17"},
        {0xFFF7E003, "MPEG 2 Layer I, Stereo, 256 kbit/s, 7177 frames, 00:31"},
        {0xFFF5E000, "MPEG 2 Layer II, Stereo, 160 kbit/s, 957 frames, 00:50"},
    };
    for (const auto& [header, text] : table) EXPECT_EQ(told(audioFile(header, 1'000'000)), text);
    for (const u32 invalid : {0xFFDB9000U, 0xFEFB9000U, 0xFFEB9000U, 0xFFF99000U, 0xFFFB0000U, 0xFFFBF000U,
                              0xFFFB9C00U, 0xFFFB9002U})
        EXPECT_EQ(told(audioFile(invalid, 1000)), "");
    // The test with real files covers where a variable rate has its header.
    EXPECT_EQ(told(audioFile(stereo128, 1000, 0x7FFFFFFF)),
              "MPEG 1 Layer III, Stereo, 0 kbit/s, 2147483647 frames, 00:00");
    EXPECT_EQ(told(audioFile(stereo128, 1000, 0x80000000)), told(audioFile(stereo128, 1000)));
    MP3Info info;
    info.header = 0xFFF31000;  // 8 kbit/s
    info.fileSize = 0xFFFFFFFF;
    char text[32];
    info.lengthText(text, sizeof text);
    EXPECT_STREQ(text, "1193:02:47");
}

// An ID3v2 block of `size` bytes after its header. It begins like UTF-16 text, and like a frame of Layer I.
std::string id3v2(u32 size, char flags = 0) {
    std::string block = std::string("ID3\3\0", 5) + flags;
    for (int shift = 21; shift >= 0; shift -= 7) block += static_cast<char>(size >> shift & 0x7F);
    return block + "\xFF\xFET" + std::string(size - 3, 0);
}

TEST(MP3Info, TheFirstHeaderOfTheFirst200KiBAndBehindID3v2) {
    const std::string frame = audioFile(stereo128, 4);
    const std::pair<std::string, u32> table[] = {
        {std::string(204'800, 0) + frame, stereo128},
        {std::string(204'801, 0) + frame, 0},
        {"\xFF\xFF" + frame, stereo128},
        {frame.substr(0, 3), 0},
        {id3v2(1000, 0x10) + std::string("3DI\3\0\0\xFF\xFET", 10) + frame, stereo128},
        {id3v2(204'790) + frame, stereo128},
        // Not skipped: the block is invalid, or exceeds the range that is searched or the file.
        {id3v2(204'791) + frame, 0xFFFE5400},
        {id3v2(1000).substr(0, 500) + frame, 0xFFFE5400},
        {id3v2(1000).replace(9, 1, "\xFF") + frame, 0xFFFE5400},
        {"TAG" + id3v2(1000) + frame, 0xFFFE5400},
    };
    for (const auto& [bytes, header] : table) EXPECT_EQ(read(bytes).header, header) << bytes.size();
}

TEST_F(Importers, ID3Tags) {
    const std::string start =
        "TAGA Title" + std::string(23 + 30, ' ') + "The Album" + std::string(21, 0) + "1987";
    const std::string v10 = start + "thirty characters of comment.." + '\x7D';
    const std::string v11 = start + "twenty-eight of them        " + '\0' + '\x07' + '\x7E';
    const std::string song = audioFile(stereo128, 1'000'000 - 128);
    const auto comment = [&](const std::string& tag) {
        const auto& told = read(song + tag).tag;
        char text[64];
        std::snprintf(text, sizeof text, "%.1f %d %d %s, %s", told.version, told.year, told.track,
                      told.comment, genreName(told.genre));
        return std::string(text);
    };
    EXPECT_EQ(comment(v10), "1.0 1987 0 thirty characters of comment.., Dance Hall");
    EXPECT_EQ(comment(v11), "1.1 1987 7 twenty-eight of them, not supported");
    EXPECT_EQ(comment(v11.substr(0, 126) + '\0' + '\0'), "1.0 1987 0 twenty-eight of them, Blues");
    EXPECT_FALSE(read(song + v10 + "x").hasTag);
    // The blank artist is left out.
    EXPECT_EQ(import("Song.MP3", song + v10),
              "Type=Audio|Format=mp3|Album=The Album|Title=A Title|length=01:02|bitrate=128|");
}

TEST_F(Importers, VideoFiles) {
    const std::string film = stream("vids", "XVID", 1, 25, 7500 * 25);
    const std::string sound = stream("auds", std::string(4, 0), 1, 8000, 60'000'000);
    const std::string bare = "Type=Video|Format=avi|";
    const std::string told = bare + "codec=XVID|length=2: 5|";
    std::string nested;
    for (int level = 0; level < 200'000; ++level) nested += "LIST" + le32(0xFFFFFF) + "strl";
    std::vector<std::pair<std::string, std::string>> table = {
        {stream("vids", "DIV3", 1, 10, 1) + film + sound + chunk("strn", std::string(5000, 'n')), told},
        {chunk("LIST", "odml" + std::string(20, 9)) + film, told},
        {stream("vids", "mp4v", 1001, 24000, 86'400), bare + "codec=mp4v|length=1: 0|"},
        {stream("vids", "mp4v", ~0U, 1, ~0U), bare + "codec=mp4v|length=596523:14|"},
        {sound, bare},  // no values of the previous film
        {stream("vids", "XVID", 0, 25, 9), bare + "codec=XVID|"},
        {stream("vids", "XVID", 1, 0, 9), bare + "codec=XVID|"},
        {chunk("LIST", "strl" + chunk("strh", "vidsXV")) + "end", bare + "codec=XV|"},
        {nested, bare},
    };
    // A chunk that claims more than the list has is cut; what precedes it counts.
    for (const u32 size : {0xFFFFFFFFU, 0x80000000U, 2000U}) {
        table.push_back({film + "strn" + le32(size) + "4 GB of name", told});
        table.push_back({"LIST" + le32(size) + film.substr(8), told});
    }
    for (const auto& [chunks, tags] : table) EXPECT_EQ(import("film.AVI", aviFile(chunks)), tags);

    // Files that aren't AVI.
    const std::pair<std::size_t, std::string> damages[] = {{0, "RIFX"},  {8, "AVIX"},   {12, "JUNK"},
                                                           {20, "movi"}, {16, le32(3)}, {28, le32(52)}};
    for (const auto& [at, bytes] : damages)
        EXPECT_EQ(import("a.divx", aviFile(film).replace(at, 4, bytes)), "") << at;
}

// Files from a real encoder, compared with ffprobe.
TEST_F(Importers, SongsOfARealEncoder) {
    if (std::system("for p in ffmpeg ffprobe lame; do command -v $p || exit 1; done >/dev/null") != 0)
        GTEST_SKIP() << "without ffmpeg and lame no files are made";
    const struct {
        std::string encoder;    // options of lame; the sampling rate decides the MPEG version
        double frameRatio = 1;  // ratio of our frame size to the real one: see docs/decisions.md
        int front = 0;          // bytes to which the ID3v2 block is padded
    } songs[] = {
        {"-b 320 -m j --resample 48"},
        {"-b 64 --resample 22.05"},
        {"-b 16 -m m --resample 8"},
        {"-V 2 -m m --resample 44.1"},
        {"-V 4 --resample 22.05", 0.5},
        {"-V 4 -m m --resample 11.025", 0.5 * 32000 / 11025},
        {"-b 128 --resample 44.1", 1, 150'000},
        {"-V 4 --resample 44.1", 1, 100'000},
    };
    const auto run = [&](const std::string& command) {
        const std::string line = "cd " + home_.path() + " && " + command + " >log 2>/dev/null </dev/null";
        EXPECT_EQ(std::system(line.c_str()), 0) << command;
        return contentOf(home_.file("log"));
    };
    // A tone with noise, so that variable rates vary.
    run("ffmpeg -y -f lavfi -i 'sine=frequency=440:duration=20' -f lavfi -i "
        "'anoisesrc=amplitude=0.2:duration=20' -filter_complex "
        "'[1]volume=enable=gt(mod(t\\,10)\\,5):volume=0[n];[0][n]amix' -ar 44100 -ac 2 tone.wav");
    for (const auto& [encoder, frameRatio, front] : songs) {
        SCOPED_TRACE(encoder);
        run("lame --noreplaygain " + encoder + " --add-id3v2 --id3v2-utf16 --pad-id3v2-size " +
            std::to_string(front) + " --ta 'An Artist' tone.wav song.mp3");
        FileMeta meta;
        importers_.importFile(meta, systemDisk(), log_, home_.file("song.mp3").c_str(), "song.mp3");
        EXPECT_STREQ(meta.getText("Artist"), "An Artist");
        unsigned seconds = 0;
        ASSERT_EQ(std::sscanf(orEmpty(meta.getText("length")), "00:%2u", &seconds), 1);

        // A variable rate is that of the whole file, a constant one that of its frames. The length is that of
        // a file that has only frames. Rates are truncated to whole kbit/s, and lengths are computed from
        // them.
        const bool constant = encoder.starts_with("-b");
        const std::string bits = run("ffprobe -v error -of csv=p=0 -select_streams 0 -show_entries " +
                                     std::string(constant ? "stream" : "format") + "=bit_rate song.mp3");
        const double rate = std::stod(bits) / 1000 * frameRatio;
        EXPECT_NEAR(meta.getInt("bitrate"), rate, constant ? 0 : 1 + 0.005 * rate);
        EXPECT_NEAR(seconds, meta.getSize() / 125 / rate, 1 + meta.getSize() / 125 * 1.5 / rate / rate);
    }
}

}  // namespace

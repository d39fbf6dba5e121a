// What the importers tell of a file: by its name, and by what stands in audio and video files, sound or not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "i4min/file/file.h"
#include "import/AVIImporter.h"
#include "import/ImporterList.h"
#include "import/MP3Info.h"
#include "meta/FileMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/damage.h"
#include "tests/support/import_files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr u32 stereo128 = 0xFFFB9000;  // MPEG-1 Layer III, 128 kbit/s, 44,100 Hz

// The tags in order, as "name=value".
std::vector<std::string> tagsOf(const FileMeta& meta) {
    std::vector<std::string> tags;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = meta.getTags().next(c);) {
        char text[256];
        tags.push_back(std::string(tag->displayName()) + "=" + tag->printable(text, sizeof text));
    }
    return tags;
}

class Importers : public testing::Test {
  protected:
    // Imports a file of that name and content, and returns its tags behind name and size.
    std::vector<std::string> import(const std::string& name, const std::string& bytes) {
        writeFile(home_.file(name), bytes);
        FileMeta meta;
        EXPECT_TRUE(importers_.importFile(meta, home_.file(name).c_str(), name.c_str()));
        EXPECT_STREQ(meta.path.c_str(), home_.file(name).c_str());
        std::vector<std::string> tags = tagsOf(meta);
        EXPECT_GE(tags.size(), 2u);
        EXPECT_EQ(tags[0], "Name=" + name);
        EXPECT_EQ(tags[1], "Size=" + std::to_string(bytes.size()));
        return {tags.begin() + 2, tags.end()};
    }

    TemporaryDirectory home_;
    CapturedLog log_;
    const ImporterList importers_;
};

TEST_F(Importers, KnowFilesByTheirNames) {
    const struct {
        const char* name;
        const char* type;  // null: nobody takes the file
        const char* format;
    } table[] = {
        {"a.ogg", "Audio", "ogg"},      {"a.mod", "Audio", "mod"},       {"a.rm", "Video", "rm"},
        {"a.mov", "Video", "mov"},      {"a.asf", "Video", "asf"},       {"a.mpg", "Video", "mpg"},
        {"clip.mpeg", "Video", "mpeg"}, {"a.m2v", "Video", "m2v"},       {"a.wmv", "Video", "wmv"},
        {"a.vcd", "Video", "vcd"},      {"a.bmp", "Image", "bmp"},       {"a.gif", "Image", "gif"},
        {"a.png", "Image", "png"},      {"photo.jpg", "Image", "jpeg"},  {"a.exe", "Pro", "exe"},
        {"A.ZIP", "Pro", "zip"},        {"a.b.RaR", "Pro", "rar"},       {"a.ace", "Pro", "ace"},
        {"a.sit", "Pro", "sit"},        {"a.iso", "Pro", "iso"},         {"Max: a\\b.zip", "Pro", "zip"},
        {".zip", nullptr, nullptr},     {".ogg", nullptr, nullptr},      {"photo.jpeg", nullptr, nullptr},
        {"zip", nullptr, nullptr},      {"a.zip.txt", nullptr, nullptr}, {"a.mp3", nullptr, nullptr},
        {"a.avi", nullptr, nullptr},    {"a.zip ", nullptr, nullptr},    {"azip", nullptr, nullptr},
    };
    for (const auto& row : table) {
        std::vector<std::string> expected;
        if (row.type) expected = {std::string("Type=") + row.type, std::string("Format=") + row.format};
        if (row.type && row.type == std::string("Image")) expected.push_back("Artist=");
        EXPECT_EQ(import(row.name, "neither audio nor video"), expected) << row.name;
        EXPECT_EQ(import(row.name, ""), expected) << row.name << ", empty";
    }
}

TEST_F(Importers, AFileThatIsGoneOrTooShortToBeAnything) {
    FileMeta meta;
    EXPECT_FALSE(importers_.importFile(meta, home_.file("gone.zip").c_str(), "gone.zip"));
    EXPECT_THAT(tagsOf(meta), ElementsAre());
    EXPECT_EQ(meta.path.length(), 0u);
    log_.verbose = 1;
    EXPECT_THAT(import("note.txt", "short"), ElementsAre());
    EXPECT_EQ(log_.take(), "Exception in import\n");
    // A directory opens but can't be read.
    EXPECT_TRUE(importers_.importFile(meta, home_.path().c_str(), "films.avi"));
    EXPECT_STREQ(meta.getName(), "films.avi");
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

MP3Info infoOf(std::string bytes, MP3Info::Result expected = MP3Info::found) {
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(bytes.size()), 0);
    MP3Info info;
    EXPECT_EQ(info.read(stream), expected);
    return info;
}

TEST(MP3Info, FrameHeaders) {
    const struct {
        u32 header;
        u32 bitrate;
        const char* version;
        const char* mode;
        i32 frames;  // of 1,000,000 bytes
    } table[] = {
        {stereo128, 128, "MPEG 1 Layer III", "Stereo", 2392},
        {0xFFFAE0C1, 320, "MPEG 1 Layer III", "Single Channel", 957},
        {0xFFF39040, 80, "MPEG 2 Layer III", "Joint Stereo", 1914},
        {0xFFE31880, 8, "MPEG 2.5 Layer III", "Dual Channel", 6944},
        {0xFFFDE400, 384, "MPEG 1 Layer II", "Stereo", 868},
        {0xFFFFE800, 448, "MPEG 1 Layer I", "Stereo", 5952},
        {0xFFF7E003, 256, "MPEG 2 Layer I", "Stereo", 7177},
        {0xFFF5E000, 160, "MPEG 2 Layer II", "Stereo", 957},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.version);
        const MP3Info info = infoOf(audioFile(row.header, 1'000'000));
        char text[32];
        EXPECT_EQ(info.bitrate(), row.bitrate);
        EXPECT_EQ(info.frameCount(), row.frames);
        info.getVersion(text, sizeof text);
        EXPECT_STREQ(text, row.version);
        info.getChannelMode(text, sizeof text);
        EXPECT_STREQ(text, row.mode);
        EXPECT_EQ(info.lengthSeconds(), 1'000'000 / 125 / row.bitrate);
    }
    for (const u32 invalid : {0xFFDB9000U, 0xFEFB9000U, 0xFFEB9000U, 0xFFF99000U, 0xFFFB0000U, 0xFFFBF000U,
                              0xFFFB9C00U, 0xFFFB9002U}) {
        infoOf(audioFile(invalid, 1000), MP3Info::noHeader);
    }
}

TEST(MP3Info, TheFirstHeaderWithinTheFirst200KiB) {
    EXPECT_EQ(infoOf(std::string(204'800, 0) + audioFile(stereo128, 4)).header, stereo128);
    infoOf(std::string(204'801, 0) + audioFile(stereo128, 400), MP3Info::noHeader);
    infoOf(audioFile(stereo128, 3), MP3Info::noHeader);
    infoOf("", MP3Info::noHeader);
    EXPECT_EQ(infoOf("\xFF\xFF" + audioFile(stereo128, 4)).header, stereo128);
    MP3Info info;
    EXPECT_EQ(info.open("/nowhere/at all.mp3"), MP3Info::notOpened);
}

TEST(MP3Info, XingHeadersStandBehindTheSideInformation) {
    constexpr u32 mono = 0xC0;
    constexpr u32 mpeg2 = 0xFFF39000;
    const struct {
        u32 header;
        std::size_t distance;
        u32 bitrate;
    } table[] = {{stereo128, 4 + 32, 153},
                 {stereo128 | mono, 4 + 17, 153},
                 {mpeg2, 4 + 17, 76},
                 {mpeg2 | mono, 4 + 9, 76}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.header);
        const MP3Info info = infoOf(audioFile(row.header, 1'000'000, row.distance, 0xF, 2000));
        EXPECT_TRUE(info.hasXing);
        EXPECT_EQ(info.frameCount(), 2000);
        EXPECT_EQ(info.bitrate(), row.bitrate);
        EXPECT_EQ(info.lengthSeconds(), 8000 / row.bitrate);
        for (const std::size_t wrong : {row.distance - 1, row.distance + 1}) {
            EXPECT_FALSE(infoOf(audioFile(row.header, 1000, wrong, 1, 2000)).hasXing);
        }
        EXPECT_FALSE(infoOf(audioFile(row.header, 1000, row.distance, 0xE, 2000)).hasXing)
            << "no frame count";
        for (const u32 frames : {0U, 0x80000000U, 0xFFFFFFFFU}) {
            const MP3Info without = infoOf(audioFile(row.header, 1000, row.distance, 1, frames));
            EXPECT_FALSE(without.hasXing);
            EXPECT_EQ(without.frames, -1);
        }
        EXPECT_FALSE(infoOf(audioFile(row.header, row.distance + 11, row.distance, 1, 9)).hasXing) << "cut";
    }
    char text[32];
    const MP3Info endless = infoOf(audioFile(stereo128, 1000, 36, 1, 0x7FFFFFFF));
    EXPECT_EQ(endless.bitrate(), 0u);
    endless.lengthText(text, sizeof text);
    EXPECT_STREQ(text, "00:00");
}

TEST(MP3Info, LengthTexts) {
    const struct {
        u32 header;
        u32 size;
        const char* text;
    } table[] = {
        {stereo128, 1'000'000, "01:02"},
        {0xFFF31000, 3'661'000, "01:01:01"},
        {0xFFF31000, 3'599'999, "59:59"},
        {0xFFF31000, 3'600'000, "01:00:00"},
        {0xFFF31000, 999, "00:00"},
        {0xFFF31000, 3'000'000'000, "833:20:00"},
        {0xFFF31000, 0xFFFFFFFF, "1193:02:47"},
    };
    for (const auto& row : table) {
        MP3Info info;
        info.header = row.header;
        info.fileSize = row.size;
        char text[32];
        info.lengthText(text, sizeof text);
        EXPECT_STREQ(text, row.text);
    }
    MP3Info largest;  // one frame of Layer I that fills 4 GB
    largest.header = 0xFFFFE400;
    largest.fileSize = 0xFFFFFFFF;
    largest.hasXing = true;
    largest.frames = 1;
    EXPECT_EQ(largest.bitrate(), 0x7FFFFFFFu);
    EXPECT_EQ(largest.lengthSeconds(), 0u);
}

std::string field(const std::string& text, std::size_t length, char fill) {
    return text + std::string(length - text.size(), fill);
}

TEST_F(Importers, ID3Tags) {
    const std::string start =
        "TAG" + field("A Title", 30, ' ') + field("", 30, ' ') + field("The Album", 30, '\0') + "1987";
    const std::string v10 = start + field("thirty characters of comment..", 30, 0) + '\x7D';
    const std::string v11 = start + field("twenty-eight of them", 28, ' ') + '\0' + '\x07' + '\x7E';
    char text[64];

    MP3Info info = infoOf(audioFile(stereo128, 1000) + v10);
    ASSERT_TRUE(info.hasTag);
    EXPECT_EQ(info.tag.version, 1.0F);
    EXPECT_EQ(info.tag.year, 1987);
    EXPECT_EQ(info.tag.track, 0);
    EXPECT_STREQ(info.tag.comment, "thirty characters of comment..");
    info.getGenre(text, sizeof text);
    EXPECT_STREQ(text, "Dance Hall");
    info.getTitle(text, 4);
    EXPECT_STREQ(text, "A T");

    info = infoOf(audioFile(stereo128, 1000) + v11);
    EXPECT_EQ(info.tag.version, 1.1F);
    EXPECT_EQ(info.tag.track, 7);
    EXPECT_STREQ(info.tag.comment, "twenty-eight of them");
    info.getGenre(text, sizeof text);
    EXPECT_STREQ(text, "not supported");
    EXPECT_STREQ(genreName(0), "Blues");
    EXPECT_STREQ(genreName(79), "Hard Rock");

    std::string untracked = v11;
    untracked[126] = 0;
    EXPECT_EQ(infoOf(audioFile(stereo128, 1000) + untracked).tag.version, 1.0F);
    EXPECT_FALSE(infoOf(audioFile(stereo128, 1000) + v10 + "x").hasTag);
    EXPECT_FALSE(infoOf(audioFile(stereo128, 100)).hasTag);

    // The blank artist is left out.
    EXPECT_THAT(import("Song.MP3", audioFile(stereo128, 1'000'000 - 128) + v10),
                ElementsAre("Type=Audio", "Format=mp3", "Album=The Album", "Title=A Title", "length=01:02",
                            "bitrate=128"));
    EXPECT_THAT(import("plain.mp3", audioFile(stereo128, 20'000)),
                ElementsAre("Type=Audio", "Format=mp3", "length=00:01", "bitrate=128"));
}

const std::string video = streamHeader("vids", "XVID", 1, 25, 7500 * 25);

TEST_F(Importers, VideoFiles) {
    const std::string sound = streamHeader("auds", std::string(4, 0), 1, 8000, 60'000'000);
    const std::string two =
        streamList(streamHeader("vids", "DIV3", 1, 10, 1)) +
        streamList(video + chunk("strf", std::string(39, 2)) + chunk("strn", "odd")) +
        streamList(sound + chunk("strf", std::string(60, 3)) + chunk("strn", std::string(5000, 'n'))) +
        streamList(streamHeader("txts", "TEXT", 1, 1, 1) + chunk("strf", "x"));
    EXPECT_THAT(import("film.AVI", aviFile(two)),
                ElementsAre("Type=Video", "Format=avi", "codec=XVID", "length=2: 5"));
    EXPECT_EQ(log_.take(), "      Compression: XVID\n");
    EXPECT_THAT(import("film.divx", aviFile(chunk("LIST", "odml" + std::string(20, 9)) + streamList(video))),
                ElementsAre("Type=Video", "Format=divx", "codec=XVID", "length=2: 5"));
    EXPECT_THAT(import("odd.avi", aviFile(streamList(streamHeader("vids", "mp4v", 1001, 24000, 86'400)))),
                ElementsAre("Type=Video", "Format=avi", "codec=mp4v", "length=1: 0"));
    EXPECT_THAT(import("long.avi", aviFile(streamList(streamHeader("vids", "mp4v", ~0U, 1, ~0U)))),
                ElementsAre("Type=Video", "Format=avi", "codec=mp4v", "length=596523:14"));
    log_.take();

    // Nothing of the film before shows in what follows.
    EXPECT_THAT(import("sound.avi", aviFile(streamList(sound))), ElementsAre("Type=Video", "Format=avi"));
    EXPECT_THAT(import("bare.avi", aviFile("")), ElementsAre("Type=Video", "Format=avi"));
    EXPECT_EQ(log_.take(), "");
    for (const auto& [scale, rate] : {std::pair{0U, 25U}, std::pair{1U, 0U}, std::pair{0U, 0U}}) {
        EXPECT_THAT(import("rate.avi", aviFile(streamList(streamHeader("vids", "XVID", scale, rate, 9)))),
                    ElementsAre("Type=Video", "Format=avi", "codec=XVID"));
    }
}

TEST_F(Importers, VideoFilesWithWrongSizes) {
    EXPECT_THAT(
        import("a.avi", chunk("RIFF", "AVI " + chunk("LIST", "hdrl" + chunk("avih", std::string(52, 0))))),
        ElementsAre());
    EXPECT_EQ(log_.take(), "AVI header not correct size!\n");
    const std::string good = aviFile(streamList(video));
    for (const auto& [at, word] :
         {std::pair{0, "RIFX"}, std::pair{8, "AVIX"}, std::pair{12, "JUNK"}, std::pair{20, "movi"}}) {
        std::string bad = good;
        bad.replace(static_cast<std::size_t>(at), 4, word);
        EXPECT_THAT(import("a.avi", bad), ElementsAre()) << word;
    }
    for (const u32 size : {0U, 3U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        std::string bad = good;
        bad.replace(16, 4, littleEndian32(size));
        EXPECT_THAT(import("a.avi", bad), ElementsAre()) << size;
    }
    log_.take();
    // What a chunk's size claims beyond the list isn't there; what stands before it counts.
    for (const u32 size : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF7U, 0x80000000U, 2000U}) {
        EXPECT_THAT(import("a.avi", aviFile(streamList(video + lyingChunk("strn", size, "4 GB of name")))),
                    ElementsAre("Type=Video", "Format=avi", "codec=XVID", "length=2: 5"))
            << size;
        EXPECT_THAT(import("a.avi", aviFile(lyingChunk("LIST", size, "strl" + video))),
                    ElementsAre("Type=Video", "Format=avi", "codec=XVID", "length=2: 5"))
            << size;
    }
    EXPECT_THAT(import("a.avi", aviFile(streamList(chunk("strh", "vidsXV")) + "end")),
                ElementsAre("Type=Video", "Format=avi", "codec=XV"));
    EXPECT_THAT(import("a.avi", aviFile(chunk("LIST", "st") + chunk("strh", "") + chunk("LIST", ""))),
                ElementsAre("Type=Video", "Format=avi"));
    std::string nested;
    for (int level = 0; level < 200'000; ++level) nested += lyingChunk("LIST", 0xFFFFFF, "strl");
    EXPECT_THAT(import("a.avi", aviFile(nested)), ElementsAre("Type=Video", "Format=avi"));
}

TEST_F(Importers, DamagedHeadersAreReadInBounds) {
    const auto readAVI = [](std::span<const std::uint8_t> bytes) {
        std::vector<u8> copy(bytes.begin(), bytes.end());
        i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
        FileMeta meta;
        AVIImporter().import(meta, "x.avi", "", stream);
    };
    const auto readMP3 = [](std::span<const std::uint8_t> bytes) {
        std::vector<u8> copy(bytes.begin(), bytes.end());
        i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
        MP3Info info;
        char text[32];
        if (info.read(stream) == MP3Info::found) info.lengthText(text, sizeof text);
    };
    const auto bytesOf = [](const std::string& text) {
        return std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    };
    const std::string film =
        aviFile(streamList(video + chunk("strf", std::string(40, 1)) + chunk("strn", "name")));
    const std::string song = audioFile(stereo128, 300, 36, 1, 10) + field("TAGtitle", 128, 0);
    sweepDamage(bytesOf(film), readAVI);
    sweepDamage(bytesOf(song), readMP3);
}

}  // namespace

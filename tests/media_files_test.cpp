// The details of audio and video files that real encoders made, beside what ffprobe says of them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>

#include "import/ImporterList.h"
#include "meta/FileMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Network.h"

namespace {

using namespace std::string_literals;

class MediaFiles : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* program : {"ffmpeg", "ffprobe", "lame"}) {
            if (std::system(("command -v " + std::string(program) + " >/dev/null").c_str()) != 0) {
                GTEST_SKIP() << program << " isn't installed: no files are made";
            }
        }
    }

    void run(const std::string& command) {
        ASSERT_EQ(std::system(("cd " + home_.path() + " && " + command + " >log 2>&1 </dev/null").c_str()), 0)
            << command;
    }
    // A field of the format or of the first stream, such as "format=duration".
    std::string probe(const std::string& name, const std::string& entry) {
        run("ffprobe -v error -select_streams 0 -of default=noprint_wrappers=1:nokey=1 -show_entries " +
            entry + " " + name);
        std::string field;
        std::getline(std::ifstream(home_.file("log")), field);
        return field;
    }
    void import(FileMeta& meta, const std::string& name) {
        ASSERT_TRUE(importers_.importFile(meta, home_.file(name).c_str(), name.c_str()));
    }

    TemporaryDirectory home_;
    CapturedLog log_;
    const ImporterList importers_;
};

u32 secondsOf(const char* length) {
    unsigned minutes = 0;
    unsigned seconds = 0;
    EXPECT_EQ(std::sscanf(length, "%2u:%2u", &minutes, &seconds), 2) << length;
    return 60 * minutes + seconds;
}

struct Song {
    const char* name;
    int rate;  // Hz, which decides the version of MPEG
    int channels;
    std::string encoder;    // options of lame
    double frameRatio = 1;  // bytes of a frame as we reckon, by what they are: see docs/decisions.md
    int front = 0;          // bytes that the ID3v2 block is padded to
};

TEST_F(MediaFiles, Songs) {
    const Song songs[] = {
        {"cbr128", 44100, 2, "-b 128"},
        {"cbr320joint", 48000, 2, "-b 320 -m j"},
        {"cbr64mono", 32000, 1, "-b 64 -m m"},
        {"mpeg2", 22050, 2, "-b 64"},
        {"mpeg2mono", 16000, 1, "-b 24 -m m"},
        {"mpeg25", 11025, 2, "-b 32"},
        {"mpeg25mono", 8000, 1, "-b 16 -m m"},
        {"vbr", 44100, 2, "-V 4"},
        {"vbrmono", 44100, 1, "-V 2 -m m"},
        {"vbr48", 48000, 2, "-V 0"},
        {"abr", 44100, 2, "--abr 150"},
        {"vbr2", 22050, 2, "-V 4", 0.5},
        {"vbr25", 11025, 1, "-V 4 -m m", 0.5 * 32000 / 11025},
        {"front", 44100, 2, "-b 128", 1, 150'000},
        {"vbrfront", 44100, 2, "-V 4", 1, 100'000},
    };
    for (const Song& song : songs) {
        SCOPED_TRACE(song.name);
        const std::string name = std::string(song.name) + ".mp3";
        // A tone over noise, so that variable rates vary.
        run("ffmpeg -y -f lavfi -i 'sine=frequency=440:duration=75' -f lavfi -i "
            "'anoisesrc=amplitude=0.2:duration=75' -filter_complex "
            "'[1]volume=enable=gt(mod(t\\,10)\\,5):volume=0[n];[0][n]amix' -ar " +
            std::to_string(song.rate) + " -ac " + std::to_string(song.channels) + " tone.wav");
        run("lame --noreplaygain " + song.encoder + " --resample " + std::to_string(song.rate / 1000.0) +
            " --add-id3v2 --id3v2-utf16 --pad-id3v2-size " + std::to_string(song.front) +
            " --tt 'The Title' --ta 'An Artist' tone.wav " + name);
        FileMeta meta;
        import(meta, name);
        EXPECT_STREQ(meta.getText(TAG_TYPE), "Audio");
        EXPECT_STREQ(meta.getText(TAG_FORMAT), "mp3");
        EXPECT_STREQ(meta.getText("Artist"), "An Artist");
        EXPECT_STREQ(meta.getText("Title"), "The Title");
        ASSERT_NE(meta.getText("length"), nullptr);

        // A variable rate is that of the whole file, a constant one that of its frames; the length is that of
        // a file of nothing but frames. Rates are cut to whole kbit/s, and lengths reckoned from them.
        const bool constant = song.encoder.starts_with("-b");
        const double rate = std::stod(probe(name, constant ? "stream=bit_rate" : "format=bit_rate")) / 1000;
        const double size = static_cast<double>(std::filesystem::file_size(home_.file(name)));
        const double expected = rate * song.frameRatio;
        EXPECT_NEAR(meta.getInt("bitrate"), expected, constant ? 0 : 1 + 0.005 * expected);
        const double length = size / 125 / expected;
        EXPECT_NEAR(secondsOf(meta.getText("length")), length, 1 + length * 1.5 / expected);
        if (song.front == 0 && song.frameRatio == 1) {
            EXPECT_NEAR(secondsOf(meta.getText("length")), std::stod(probe(name, "format=duration")), 2);
        }
    }
}

const std::string picture = "ffmpeg -y -f lavfi -i testsrc=size=32x32:rate=";
const std::string sound = " -f lavfi -i sine=frequency=440:duration=100:sample_rate=8000";

TEST_F(MediaFiles, Films) {
    const struct {
        const char* name;
        std::string command;
    } films[] = {
        {"silent.avi", picture + "1:duration=7500 -c:v mpeg4 -vtag XVID"},
        {"sound.avi", picture + "25:duration=100" + sound + " -c:v mpeg4 -vtag DIVX -c:a libmp3lame"},
        {"ntsc.avi",
         picture + "30000/1001:duration=100" + sound + " -c:v mjpeg -c:a pcm_s16le -metadata title=odd"},
        {"film.divx", picture + "2:duration=4000 -c:v msmpeg4 -f avi"},
    };
    for (const auto& film : films) {
        SCOPED_TRACE(film.name);
        run(film.command + " " + film.name);
        FileMeta meta;
        import(meta, film.name);
        EXPECT_STREQ(meta.getText(TAG_TYPE), "Video");
        EXPECT_STREQ(meta.getText(TAG_FORMAT), std::string(film.name).ends_with(".divx") ? "divx" : "avi");
        EXPECT_EQ(meta.getText("codec"), probe(film.name, "stream=codec_tag_string"));
        const int minutes = static_cast<int>(std::stod(probe(film.name, "stream=duration"))) / 60;
        char length[32];
        std::snprintf(length, sizeof length, "%d:%2d", minutes / 60, minutes % 60);
        EXPECT_STREQ(meta.getText("length"), length);
    }
    run("ffmpeg -y" + sound + " -c:a pcm_s16le only.avi");
    FileMeta meta;
    import(meta, "only.avi");
    EXPECT_STREQ(meta.getText(TAG_TYPE), "Video");
    EXPECT_EQ(meta.getText("codec"), nullptr);
    EXPECT_EQ(meta.getText("length"), nullptr);
}

TEST_F(MediaFiles, SearchesByTypeFindThem) {
    std::filesystem::create_directory(home_.file("shared"));
    run("ffmpeg -y" + sound + " 'shared/owl call.mp3'");
    run(picture + "5:duration=10 'shared/owl flight.avi'");
    run(picture + "4:duration=10 -f avi 'shared/owl night.divx'");
    for (const char* name : {"noise.mp3", "noise.avi", "noise.divx", "noise.bin"}) {
        writeFile(home_.file("shared/owl "s + name), "neither audio nor video: "s + name);
    }
    IndexServerProcess index;
    Client sharer("sharer", index);
    sharer.start();
    sharer.logOn();
    sharer.share(home_.file("shared"), index);
    Client seeker("seeker", index);
    seeker.start();
    seeker.logOn();

    using Names = std::set<std::string>;
    const Names songs{"owl call.mp3"};
    const Names films{"owl flight.avi", "owl night.divx"};
    const Names all{"owl call.mp3",  "owl flight.avi", "owl night.divx", "owl noise.mp3",
                    "owl noise.avi", "owl noise.divx", "owl noise.bin"};
    const std::pair<const char*, Names> searches[] = {
        {"s owl", all}, {"s owl -Audio", songs}, {"s owl -Video", films}};
    for (const auto& [line, expected] : searches) {
        std::string results;
        EXPECT_TRUE(eventually([&, line = line, expected = expected] {
            if (!seeker.type(line, "Results returned\n")) return false;
            results = seeker.view("vr", "> ");
            Names found;
            for (std::size_t at = 0; (at = results.find(") owl", at)) != std::string::npos; ++at) {
                found.insert(results.substr(at + 2, results.find('\t', at) - at - 2));
            }
            return found == expected;
        })) << line
            << results;
    }
    seeker.quit();
}

}  // namespace

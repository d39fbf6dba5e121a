// The details of audio and video files that real encoders made, beside what ffprobe says of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "import/ImporterList.h"
#include "meta/FileMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"

namespace {

using namespace std::string_literals;

bool isInstalled(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return output;
    char text[256];
    while (std::fgets(text, sizeof text, pipe)) output += text;
    ::pclose(pipe);
    while (!output.empty() && output.back() == '\n') output.pop_back();
    return output;
}

class MediaFiles : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* program : {"ffmpeg", "ffprobe", "lame"}) {
            if (!isInstalled(program)) GTEST_SKIP() << program << " isn't installed: no files are made";
        }
    }

    void make(const std::string& command) {
        ASSERT_EQ(
            std::system(("cd " + home_.path() + " && " + command + " >/dev/null 2>&1 </dev/null").c_str()), 0)
            << command;
    }
    // A field of the format or of the first stream, such as "format=duration".
    std::string probe(const std::string& name, const std::string& entry) {
        return outputOf("ffprobe -v error -select_streams 0 -show_entries " + entry +
                        " -of default=noprint_wrappers=1:nokey=1 " + home_.file(name));
    }
    void import(FileMeta& meta, const std::string& name) {
        ASSERT_TRUE(importers_.importFile(meta, home_.file(name).c_str(), name.c_str()));
    }

    TemporaryDirectory home_;
    CapturedLog log_;
    const ImporterList importers_;
};

u32 secondsOf(const char* text) {
    u32 seconds = 0;
    for (const char* at = text; *at; ++at) {
        if (*at == ':') continue;
        const bool tens = at[1] && at[1] != ':';
        if (tens) seconds = seconds * 60 + static_cast<u32>(*at - '0') * 10 + static_cast<u32>(at[1] - '0');
        at += tens ? 1 : 0;
    }
    return seconds;
}

struct Song {
    const char* name;
    int rate;  // Hz, which decides the version of MPEG
    int channels;
    const char* encoder;    // options of lame
    double frameRatio = 1;  // bytes of a frame as we reckon, by what they are: see docs/decisions.md
    int front = 0;          // bytes of an ID3v2 block
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
        make(
            "ffmpeg -y -f lavfi -i 'sine=frequency=440:duration=75' -f lavfi -i "
            "'anoisesrc=amplitude=0.2:duration=75' -filter_complex "
            "'[1]volume=enable=gt(mod(t\\,10)\\,5):volume=0[n];[0][n]amix' -ar " +
            std::to_string(song.rate) + " -ac " + std::to_string(song.channels) + " tone.wav");
        make(std::string("lame --silent --noreplaygain ") + song.encoder + " --resample " +
             std::to_string(song.rate / 1000.0) +
             (song.front ? " --add-id3v2 --id3v2-latin1 --pad-id3v2-size " + std::to_string(song.front)
                         : " --id3v1-only"s) +
             " --tt 'The Title' --ta 'An Artist' tone.wav " + name);
        FileMeta meta;
        import(meta, name);
        EXPECT_STREQ(meta.getText(TAG_TYPE), "Audio");
        EXPECT_STREQ(meta.getText(TAG_FORMAT), "mp3");
        EXPECT_STREQ(meta.getText("Artist"), "An Artist");
        EXPECT_STREQ(meta.getText("Title"), "The Title");
        ASSERT_NE(meta.getText("length"), nullptr);

        // Whole kbit/s, and whole seconds of a file of nothing but frames: tags count as sound.
        const double duration = std::stod(probe(name, "format=duration"));
        const double kbits = std::stod(probe(name, "stream=bit_rate")) / 1000;
        const auto size = static_cast<double>(std::filesystem::file_size(home_.file(name)));
        EXPECT_NEAR(duration, 75, 0.3);
        const double sound = (size - song.front) / size;
        const double expectedRate = kbits * song.frameRatio / (song.encoder[1] == 'b' ? 1 : sound);
        EXPECT_NEAR(meta.getInt("bitrate"), expectedRate,
                    song.encoder[1] == 'b' ? 0 : 1 + 0.015 * expectedRate);
        const double expectedLength = size / 125 / expectedRate;
        // A rate cut to whole kbit/s makes the length that much longer.
        const double cut = (1 + 0.015 * expectedRate) / (expectedRate - 1);
        EXPECT_NEAR(secondsOf(meta.getText("length")), expectedLength, 1 + cut * expectedLength);
        if (song.front == 0 && song.frameRatio == 1) {
            EXPECT_NEAR(secondsOf(meta.getText("length")), duration, 2);
        }
    }
}

TEST_F(MediaFiles, Films) {
    const std::string picture = "ffmpeg -y -f lavfi -i testsrc=size=32x32:rate=";
    const std::string sound = " -f lavfi -i sine=frequency=440:duration=100:sample_rate=8000";
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
        make(film.command + " " + film.name);
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
    make("ffmpeg -y" + sound + " -c:a pcm_s16le only.avi");
    FileMeta meta;
    import(meta, "only.avi");
    EXPECT_STREQ(meta.getText(TAG_TYPE), "Video");
    EXPECT_EQ(meta.getText("codec"), nullptr);
    EXPECT_EQ(meta.getText("length"), nullptr);
}

}  // namespace

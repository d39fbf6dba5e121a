// Settings and identity, the program's options, texts by number and the filter: their files when read,
// written, missing and damaged, and the rules between settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <sstream>
#include <thread>

#include "app/options.h"
#include "core/Preferences.h"
#include "core/Settings.h"
#include "core/StringTable.h"
#include "engine/FilterList.h"
#include "i4min/network/proxy.h"
#include "meta/FileList.h"
#include "meta/UserMeta.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/Process.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"
#include "tests/support/records.h"
#include "tests/support/systemDisk.h"

namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

// The two sections of a pref.met: valid ones, or those that the bytes contain.
struct File {
    File() {
        self.id = 0x0100007F;
        self.port = 5000;
        self.hash.bytes.fill(7);
        self.setName("somebody");
        self.setInt(TAG_VERSION, 59);
        self.setInt(TAG_PORT, 5000);
    }
    explicit File(const Bytes& bytes) {
        BytesFile stream(bytes);
        EXPECT_TRUE(self.fromDisk(stream) && settings.fromDisk(stream));
        EXPECT_EQ(stream.bytesLeft(), 0u);
    }
    Bytes bytes() {
        return written([this](i4_file& out) { EXPECT_TRUE(self.toDisk(out) && settings.toDisk(out)); });
    }
    void setFloat(const char* key, f32 value) { settings.setTag(key, value); }

    UserMeta self;
    Meta settings;
};

bool decode(Preferences& settings, std::span<const u8> bytes) {
    BytesFile stream(bytes);
    return settings.fromDisk(stream);
}

Bytes encode(Preferences& settings) {
    return written([&](i4_file& out) { EXPECT_TRUE(settings.toDisk(out)); });
}

class PreferencesTest : public testing::Test, protected OwnEngine {
  protected:
    std::unique_ptr<Preferences> loaded() {
        auto settings =
            std::make_unique<Preferences>(host.host, log, engine.stringTable, directory.path().c_str());
        settings->load();
        return settings;
    }
    const std::string pref_ = directory.file("pref.met");
};

MD4Hash hashOf(const Preferences& settings) {
    UserMeta self;
    settings.copySelf(self);
    return self.hash;
}

TEST_F(PreferencesTest, AFirstRunMakesAnIdentityAndSavesItOnlyWhenTold) {
    const auto first = loaded();
    EXPECT_THAT(first->getName().c_str(), testing::MatchesRegex("[a-y]{5}"));
    EXPECT_EQ(first->incomingDir(), directory.file("incoming").c_str());
    EXPECT_STREQ(engine.stringTable.get(1), "Queued");
    EXPECT_NE(hashOf(*loaded()), hashOf(*first)) << "two fresh clients are two users";
    EXPECT_FALSE(exists(pref_));

    first->save();
    const std::string saved = contentOf(pref_);
    loaded()->save();
    EXPECT_EQ(contentOf(pref_), saved);
    EXPECT_EQ(log.take(), "");
}

TEST_F(PreferencesTest, AFileOfAnyOrderIsTakenAndComesBackByteForByte) {
    // Every key with a value other than its default, in an unusual order, and an unknown key.
    File file;
    for (const char* text : {"pUPass", "pUName", "pSName", "somebodyElses", "password", "userName",
                             "adminPass", "adminName", "temp", "incoming", "lang"}) {
        file.settings.setText(text, text);
    }
    u32 value = 7000;
    for (const char* key :
         {"pPort", "maxDownSpeed", "maxUpSpeed", "saveCor", "trayCheck", "verifyCancel", "servRemove",
          "ipOver", "auto", "pmAllow", "adminDoorPort", "maxCon", "maxDown"}) {
        file.settings.setInt(key, ++value);
    }
    file.settings.setInt("pType", 2);
    file.settings.setInt("pSize", 184'320);
    file.settings.setInt("maxNumUp", 5);
    file.settings.setInt("maxUpSpeed", 8004);  // thousandths that a float can't represent
    file.setFloat("lineDown", 50.5F);
    file.setFloat("userMaxUpF", 12.25F);
    file.setFloat("userMaxDownF", 100.0F);
    writeFile(pref_, viewOf(file.bytes()));
    const auto settings = loaded();
    settings->save();
    EXPECT_EQ(contentOf(pref_), viewOf(file.bytes()));

    // Detects fields that are swapped on both reading and writing.
    EXPECT_EQ(settings->incomingDir(), "incoming");
    EXPECT_EQ(settings->adminName(), "adminName");
    EXPECT_EQ(settings->proxy().server, "pSName");
    EXPECT_EQ(settings->proxy().user, "pUName");
    EXPECT_EQ(settings->stringFile(), "lang");
    EXPECT_EQ(settings->doorPort, 5000);
    EXPECT_EQ(settings->autoConnect, 7009);
    EXPECT_EQ(settings->userMaxUpF, 12.25F);
    EXPECT_FLOAT_EQ(settings->maxUpSpeed, 8.004F);
}

TEST_F(PreferencesTest, KeysThatAreMissingOrMakeNoSenseTakeTheirDefaults) {
    File file;
    file.self.setInt(TAG_PORT, 0);
    file.settings.setText("maxCon", "many");
    file.settings.setInt("incoming", 3);
    file.settings.setText("temp", "");
    for (const char* zero : {"adminDoorPort", "maxUpSpeed"}) file.settings.setInt(zero, 0);
    for (const char* neverReadBack : {"maxNumUp", "pSize"}) file.settings.setInt(neverReadBack, 77);
    file.setFloat("lineDown", std::numeric_limits<f32>::quiet_NaN());
    writeFile(pref_, viewOf(file.bytes()));
    const auto settings = loaded();
    EXPECT_EQ(settings->incomingDir(), directory.file("incoming").c_str());
    EXPECT_EQ(settings->tempDir(), directory.file("temp").c_str());
    EXPECT_EQ(settings->doorPort, 4662);
    EXPECT_EQ(settings->adminDoorPort, 4663);
    EXPECT_EQ(settings->maxCon, 45);
    EXPECT_EQ(settings->maxNumUp, 5);
    EXPECT_EQ(settings->pSize, 184'320);
    EXPECT_EQ(settings->maxUpSpeed, 5.0F);
    EXPECT_EQ(settings->lineDown, 0.0F);
}

TEST_F(PreferencesTest, AFileWithoutAHashIsSetAsideButItsSettingsStay) {
    File zeroHash;
    zeroHash.self.hash.clear();
    zeroHash.settings.setInt("kept", 1);
    writeFile(pref_, viewOf(zeroHash.bytes()));
    const auto settings = loaded();
    EXPECT_EQ(log.take(), "Error loading: " + pref_ + "\n");
    EXPECT_FALSE(exists(pref_));
    EXPECT_FALSE(hashOf(*settings).isZero());
    EXPECT_EQ(settings->clientId(), 0u);
    settings->save();
    EXPECT_EQ(contentOf(pref_ + ".bad"), viewOf(zeroHash.bytes()));
    EXPECT_EQ(File(encode(*settings)).settings.getInt("kept"), 1u);
}

TEST_F(PreferencesTest, AChangedClientIdIsToldAndOnlyAHighOneIsSaved) {
    static int changes = 0;
    const auto settings = loaded();
    settings->onClientIdChanged = [] { ++changes; };
    settings->setDoorPort(5555);
    for (const auto& [id, savedId, savedPort] :
         {std::array<u32, 3>{0xFFFFFF, 0, 0}, {0xFFFFFF, 0, 0}, {0x1000000, 0x1000000, 5555}}) {
        settings->setClientId(id);
        const File saved(encode(*settings));
        EXPECT_EQ(saved.self.id, savedId);
        EXPECT_EQ(saved.self.port, savedPort);
        EXPECT_EQ(saved.self.getInt(TAG_PORT), 5555u);
    }
    EXPECT_EQ(changes, 2);
    settings->setName(std::string(66, 'c').c_str());
    EXPECT_EQ(settings->getName(), std::string(64, 'c').c_str());
}

TEST_F(PreferencesTest, TheDownloadLimitKeepsInProportionToASmallUploadLimit) {
    const struct {
        f32 up, down, thenDown, thenUp;  // limits; the download limit after each was set last; 0 is none
    } rows[] = {{4, 20, 12, 12}, {4, 14, 14, 12}, {4, 16, 16, 12},     {4, 0, 12, 0},
                {8, 33, 32, 32}, {8, 32, 32, 32}, {4, 12, 12, 12},     {5, 100, 20, 20},
                {10, 0, 0, 0},   {9, 37, 36, 36}, {10, 500, 500, 500}, {-5, 12, 12, 12}};
    for (const auto& [up, down, thenDown, thenUp] : rows) {
        SCOPED_TRACE(std::to_string(up) + " " + std::to_string(down));
        OwnEngine first, second;
        first.preferences.setMaxUp(up);
        first.preferences.setMaxDown(down);
        EXPECT_EQ(first.preferences.userMaxDownF, thenDown);
        second.preferences.setMaxDown(down);
        second.preferences.setMaxUp(up);
        EXPECT_EQ(second.preferences.userMaxDownF, thenUp);
        EXPECT_EQ(second.preferences.userMaxUpF, std::max(up, 0.0F));
    }
    // Values from a file follow the rule, too.
    File file;
    file.setFloat("userMaxUpF", 4);
    file.setFloat("userMaxDownF", 20);
    ASSERT_TRUE(decode(preferences, file.bytes()));
    EXPECT_EQ(preferences.userMaxDownF, 12.0F);
}

// What the program does before its engine starts: real processes, and the pref.met that they write.
class Options : public testing::Test {
  protected:
    // Runs the program to its end and stores its output in `output`.
    int run(const std::vector<std::string>& arguments) {
        Process process(programPath("tarnwick"), arguments, home_.path(), Process::Input::pipe);
        process.closeInput();
        const int status = process.wait();
        output_ = process.output();
        return status;
    }
    std::string stored() const { return contentOf(home_.file("pref.met")); }

    TemporaryDirectory home_;
    std::string output_;
};

TEST_F(Options, HelpAndVersionStartNothingAndOnlyExactWordsAreTaken) {
    EXPECT_EQ(run({"w0", "--help", "nonsense"}), 0);
    EXPECT_THAT(output_, StartsWith("Usage: tarnwick "));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(output_, "tarnwick 16.16.59\n");
    EXPECT_TRUE(std::filesystem::is_empty(home_.path()));
    EXPECT_EQ(run({"-help", "--helpme", "--set-proxy=none", "nonsense"}), 1);
    EXPECT_THAT(output_, HasSubstr("Unrecognized command."));
}

TEST_F(Options, AProxyIsStoredAndNothingElseChanges) {
    EXPECT_EQ(run({"--set-proxy", "none"}), 0);
    const std::string hash = stored().substr(6, 16);
    EXPECT_NE(hash, std::string(16, '\0')) << "a first run has an identity";
    ASSERT_EQ(run({"name kit", "port 4711", "dumax 100 30", "pass a b"}), 1);
    const std::string before = stored();
    EXPECT_EQ(before.substr(6, 16), hash);
    EXPECT_EQ(run({"--set-proxy", "socks5,proxy.example,1080,kit,one,two"}), 0);
    EXPECT_THAT(output_, HasSubstr("SOCKS5 proxy proxy.example, port 1080, user kit"));
    EXPECT_THAT(output_, testing::Not(HasSubstr("one,two")));
    EXPECT_EQ(run({"vo"}), 1);
    EXPECT_THAT(output_, HasSubstr("Door Port:\t\t4711"));
    EXPECT_THAT(stored(), HasSubstr("proxy.example")) << "the client keeps it";
    EXPECT_EQ(run({"--set-proxy", "socks5"}), 2);
    EXPECT_EQ(run({"--set-proxy"}), 2);
    EXPECT_THAT(output_, StartsWith("tarnwick: --set-proxy: "));
    EXPECT_EQ(run({"--set-proxy", "none"}), 0);
    EXPECT_EQ(stored(), before);

    std::filesystem::remove(home_.file("pref.met"));
    writeFile(home_.file("pref.met/full"), "so that nothing can be stored");
    writeFile(home_.file("pref.met.bad/full"), "so that the directory can't be set aside");
    EXPECT_EQ(run({"--set-proxy", "none"}), 2);
}

// Type, host, port, user and password, or the reason of the refusal.
std::string reading(const std::string& value) {
    i4_proxy_settings proxy;
    std::string error;
    if (!readProxySetting(value, proxy, error)) return "refused: " + error;
    const auto text = [](const i4_string& string) { return string.isNull() ? "-" : string.c_str(); };
    std::string all = std::to_string(proxy.pType) + " " + text(proxy.server) + " ";
    return all + std::to_string(proxy.port) + " " + text(proxy.user) + " " + text(proxy.password);
}

TEST(ProxySetting, IsReadOrRefusedWithAReason) {
    const std::string longest(255, 'h');
    for (const auto& [value, reads] : {std::pair{"0,h,1"s, "0 - 0 - -"s},
                                       {"socks4,h,1", "1 h 1 - -"},
                                       {"2,h,65535,u,p", "2 h 65535 u p"},
                                       {"http,h,80,u,:,p", "3 h 80 u :,p"},
                                       {"socks5,h,80,a:b,p", "2 h 80 a:b p"},
                                       {"3," + longest + ",80", "3 " + longest + " 80 - -"}}) {
        EXPECT_EQ(reading(value), reads);
    }
    std::istringstream bad("http,h" + longest + ",80|http,h,80,h" + longest + ",p|http,h,80,u,h" + longest +
                           "|4,h,1|SOCKS5,h,1|socks5,h|socks5,,1080|socks5,h,0|socks5,h,-1|socks5,h,65536|"
                           "socks5,h,80x|socks5,h,99999999999|socks5,a b,80|socks5,h,80,u|socks5,h,80,u,|"
                           "socks5,h,80,,p|http,h,80,a:b,p|http,h,80,a\nb,p");
    for (std::string value; std::getline(bad, value, '|');) {
        EXPECT_THAT(reading(value), testing::MatchesRegex("refused: .+")) << value;
    }
}

struct StringTableTest : testing::Test {
    const char* file(const std::string& text) {
        writeFile(path_, text);
        return path_.c_str();
    }
    StringTable table_;
    TemporaryDirectory folder_;
    const std::string path_ = folder_.file("language.str");
};

TEST_F(StringTableTest, LinesReplaceTextsFromTheFirstNumberOn) {
    for (const char* noFile : {"/nonexistent/fr.str", "/", "/dev/zero"}) {
        table_.reload(systemDisk(), noFile);
        EXPECT_STREQ(table_.get(STRINGS_CONFIRM_CANCEL_TITLE), "Confirm Cancel") << noFile;
    }
    EXPECT_STREQ(table_.get(STRINGS_COUNT), "");
    const std::string longest(1023, 'x');
    const struct {
        std::string text;
        u32 lines, number;
        std::string shown;
    } cases[] = {{"busy\n", 1, 1, "Queued"},
                 {"busy", 1, 0, "busy"},
                 {"busy\r\nwaits\r\n", 2, 1, "waits"},
                 {"bu\rsy\nwaits\n", 2, 0, "bu"},
                 {"bu\0sy\nwaits\n"s, 2, 0, "bu"},
                 {std::string(80, '\n') + "more", 81, 80, ""},
                 {longest + "yyy\nwaits\n", 2, 0, longest},
                 {longest + std::string(9000, 'y') + "\nwaits\n", 2, 1, "waits"}};
    for (const auto& [text, lines, number, shown] : cases) {
        table_.reload(systemDisk(), file(text));
        EXPECT_EQ(table_.get(number), shown) << text;
        EXPECT_EQ(table_.loadFile(systemDisk(), file(text)), lines) << text;
    }
}

TEST_F(StringTableTest, TextsHandedOutOutliveEveryChangeOfLanguage) {
    table_.reload(systemDisk(), "/nonexistent");
    const char* english = table_.get(1);
    const char* path = file("\nEn attente\n");
    table_.reload(systemDisk(), path);
    const char* french = table_.get(1);
    std::jthread changing([&] {
        for (int i = 0; i < 200; ++i) table_.reload(systemDisk(), i % 2 ? path : "/nonexistent");
    });
    for (int i = 0; i < 10'000; ++i) {
        const char* text = table_.get(1);
        ASSERT_TRUE(text == english || text == french) << "a language that comes back costs no memory";
    }
    EXPECT_STREQ(english, "Queued");
    EXPECT_STREQ(french, "En attente");
}

// Those of the names that remain if the filter has the lines of `text`.
std::string filtered(FilterList& filter, const std::string& text, const std::string& names) {
    const TemporaryDirectory folder;
    writeFile(folder.file("filters.txt"), text);
    EXPECT_TRUE(filter.load(systemDisk(), folder.file("filters.txt").c_str()));
    FileList results;
    std::istringstream each(names);
    for (std::string name; std::getline(each, name, '|');) {
        auto file = makeFile(name, 1, static_cast<u8>(results.count() + 1));
        if (results.count() == 0) file->setText(TAG_FORMAT, "exe");
        results.add(file.release());
    }
    filter.filter(results);
    std::string left;
    for (const FileMeta* file : results.snapshot()) {
        EXPECT_EQ(results.find(file->hash), file) << "the index of the list goes with it";
        left += std::string(file->getName()) + "|";
    }
    results.deleteAll();
    return left;
}

TEST(FilterList, AnyLineFoundInAnyTextTakesAFileOut) {
    FilterList filter;
    EXPECT_EQ(filtered(filter, "Spam\r\n\r\nEXE\nfoo bar",
                       "first|spam.mp3|good.mp3|my SPAM|foo  bar|a foo barn|last"),
              "good.mp3|foo  bar|last|");
    const std::string x255(255, 'x');
    EXPECT_EQ(filtered(filter, x255 + "yyy\nz\n", "spam|" + x255 + "!|yyy|" + x255.substr(1)),
              "spam|yyy|" + x255.substr(1) + "|")
        << "the old lines go, and a line counts up to its 255th character";
    // A missing file filters nothing.
    EXPECT_FALSE(filter.load(systemDisk(), "/nonexistent"));
    EXPECT_FALSE(filter.matches(*makeFile("z", 1, 1)));
}

// For each row of the table: a tag of another type, whose bytes would be valid for the right one, counts as
// missing. The next save writes the right type.
TEST_F(PreferencesTest, AValueOfAWrongTypeCountsAsMissing) {
    File wrong;
    for (const Setting& row : setting::table) {
        if (!row.key || row.isInUserRecord()) continue;
        if (row.form.type == META_TAG_INT) {
            wrong.setFloat(row.key, 50);
        } else {
            wrong.settings.setInt(row.key, 50);
        }
    }
    wrong.self.removeTag(TAG_PORT);
    wrong.self.addTag(MetaTag::makeTag("\17", 50.0F));
    OwnEngine own;
    Preferences missing(own.host.host, own.log, own.engine.stringTable, ""),
        settings(own.host.host, own.log, own.engine.stringTable, "");
    ASSERT_TRUE(decode(missing, File().bytes()));
    missing.setDoorPort(4662);
    ASSERT_TRUE(decode(settings, wrong.bytes()));
    EXPECT_EQ(settings.userMaxUpF, 0.0F) << "a limit of next to nothing would silence the client";
    EXPECT_EQ(settings.userMaxDownF, 0.0F);
    EXPECT_EQ(settings.maxUpSpeed, 5.0F);
    EXPECT_EQ(encode(settings), encode(missing));
}

}  // namespace

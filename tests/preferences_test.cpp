// Settings and identity: pref.met read, written, missing and damaged, and the rules between settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "i4min/file/file.h"
#include "i4min/network/proxy.h"
#include "meta/Meta.h"
#include "meta/UserMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/damage.h"

namespace {

using Bytes = std::vector<u8>;

Bytes bytesOf(const i4_ram_file_class& stream) {
    return stream.buffer()
               ? Bytes(stream.buffer(), stream.buffer() + const_cast<i4_ram_file_class&>(stream).size())
               : Bytes();
}

bool decode(Preferences& settings, std::span<const u8> bytes) {
    i4_ram_file_class stream(const_cast<u8*>(bytes.data()), static_cast<u32>(bytes.size()), 0);
    return settings.fromDisk(stream);
}

Bytes encode(Preferences& settings) {
    i4_owned_ram_file stream;
    EXPECT_TRUE(settings.toDisk(stream));
    return bytesOf(stream);
}

// What a test changes in a user record and settings that are good otherwise.
struct File {
    File() {
        self.id = 0x0100007F;
        self.port = 5000;
        self.hash.bytes.fill(7);
        self.setName("somebody");
        self.setInt(TAG_VERSION, 59);
        self.setInt(TAG_PORT, 5000);
    }
    Bytes bytes() const {
        i4_owned_ram_file stream;
        EXPECT_TRUE(const_cast<UserMeta&>(self).toDisk(stream));
        EXPECT_TRUE(const_cast<Meta&>(settings).toDisk(stream));
        return bytesOf(stream);
    }
    UserMeta self;
    Meta settings;
};

// Every key with a value that isn't its default, in an order of its own, and one that isn't ours.
void fillWithOtherValues(Meta& settings) {
    settings.setText("pUPass", "secret");
    settings.setText("pUName", "me");
    settings.setInt("pPort", 1080);
    settings.setText("pSName", "proxy.example");
    settings.setInt("pType", 2);
    settings.setInt("maxDownSpeed", 123'456);
    settings.setInt("maxUpSpeed", 7001);
    settings.setText("somebodyElses", "stays");
    for (const char* zero : {"saveCor", "trayCheck", "verifyCancel", "servRemove"}) settings.setInt(zero, 0);
    for (const char* one : {"ipOver", "auto"}) settings.setInt(one, 1);
    settings.setInt("pmAllow", 2);
    settings.setText("lang", "fr.str");
    for (const char* text : {"password", "userName", "adminPass", "adminName"}) settings.setText(text, text);
    settings.setInt("adminDoorPort", 7000);
    settings.setInt("maxCon", 300);
    settings.setInt("pSize", 184'320);
    settings.setInt("maxNumUp", 5);
    settings.setInt("maxDown", 9);
    const f32 speeds[] = {50.5F, 12.25F, 100.0F};
    settings.setTag("lineDown", &speeds[0], META_TAG_FLOAT);
    settings.setTag("userMaxUpF", &speeds[1], META_TAG_FLOAT);
    settings.setTag("userMaxDownF", &speeds[2], META_TAG_FLOAT);
    settings.setText("temp", "/var/t");
    settings.setText("incoming", "/var/i");
}

class PreferencesTest : public testing::Test {
  protected:
    std::unique_ptr<Preferences> fresh() const {
        auto settings = std::make_unique<Preferences>();
        settings->workDir = folder_.path().c_str();
        return settings;
    }
    std::unique_ptr<Preferences> loaded() const {
        auto settings = fresh();
        settings->load();
        return settings;
    }
    std::string path(const char* name) const { return folder_.path() + "/" + name; }
    void write(const Bytes& bytes) const {
        std::ofstream(path("pref.met"), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    Bytes read(const char* name) const {
        std::ifstream file(path(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }
    bool exists(const char* name) const { return std::filesystem::exists(path(name)); }

    CapturedLog log_;
    TemporaryDirectory folder_;
};

std::string nameOf(const Preferences& settings) { return std::string(settings.getName().view()); }

MD4Hash hashOf(const Preferences& settings) {
    UserMeta self;
    settings.copySelf(self);
    return self.hash;
}

TEST_F(PreferencesTest, AFirstRunMakesAnIdentityAndSavesItOnlyWhenTold) {
    const auto first = loaded();
    EXPECT_THAT(nameOf(*first), testing::MatchesRegex("[a-y][a-y][a-y][a-y][a-y]"));
    EXPECT_FALSE(hashOf(*first).isZero());
    EXPECT_EQ(first->incomingDir(), path("incoming").c_str());
    EXPECT_EQ(first->tempDir(), path("temp").c_str());
    EXPECT_EQ(first->knownPath, path("known.met").c_str());
    EXPECT_EQ(first->filterPath, path("filters.txt").c_str());
    EXPECT_FALSE(exists("pref.met"));
    EXPECT_STREQ(stringTable.get(1), "Queued");

    first->save();
    const Bytes saved = read("pref.met");
    EXPECT_EQ(saved, encode(*first));
    const auto second = loaded();
    EXPECT_EQ(nameOf(*second), nameOf(*first));
    EXPECT_EQ(hashOf(*second), hashOf(*first));
    second->save();
    EXPECT_EQ(read("pref.met"), saved);
    EXPECT_EQ(log_.take(), "");
    EXPECT_FALSE(exists("pref.met.bad"));
}

TEST_F(PreferencesTest, TwoFreshClientsAreNeverTheSameUser) {
    const auto one = loaded();
    const auto other = loaded();
    EXPECT_NE(hashOf(*one), hashOf(*other));
    // The seeds differ too: five letters alike, five times in a row, are no accident.
    std::vector<std::string> names = {nameOf(*one), nameOf(*other)};
    for (int i = 0; i < 4; ++i) names.push_back(nameOf(*loaded()));
    EXPECT_THAT(names, testing::Contains(testing::Ne(names[0])));
}

TEST_F(PreferencesTest, TagsStandInTheOrderInWhichTheyWereFirstAdded) {
    const auto settings = loaded();
    const Bytes bytes = encode(*settings);
    i4_ram_file_class stream(const_cast<u8*>(bytes.data()), static_cast<u32>(bytes.size()), 0);
    UserMeta self;
    Meta tags;
    ASSERT_TRUE(self.fromDisk(stream));
    ASSERT_TRUE(tags.fromDisk(stream));
    EXPECT_EQ(stream.bytesLeft(), 0u);
    std::string order;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = tags.getTags().next(c);)
        order += std::string(tag->name()) + " ";
    EXPECT_EQ(
        order,
        "incoming temp pSize maxNumUp maxDown adminName adminPass pmAllow userMaxUpF userMaxDownF maxCon "
        "auto saveCor verifyCancel trayCheck servRemove userName password ipOver lang lineDown "
        "adminDoorPort maxUpSpeed maxDownSpeed pType pSName pUName pUPass pPort ");
    EXPECT_EQ(self.getInt(TAG_VERSION), 59u);
    EXPECT_EQ(self.getInt(TAG_PORT), 4662u);
}

TEST_F(PreferencesTest, AFileOfAnyOrderComesBackByteForByte) {
    File file;
    fillWithOtherValues(file.settings);
    write(file.bytes());
    const auto settings = loaded();
    settings->save();
    EXPECT_EQ(read("pref.met"), file.bytes());

    EXPECT_EQ(settings->incomingDir(), "/var/i");
    EXPECT_EQ(settings->tempDir(), "/var/t");
    EXPECT_EQ(settings->adminName(), "adminName");
    EXPECT_EQ(settings->adminPass(), "adminPass");
    EXPECT_EQ(settings->stringFile(), "fr.str");
    EXPECT_EQ(nameOf(*settings), "somebody");
    EXPECT_EQ(settings->clientId(), 0x0100007Fu);
    EXPECT_EQ(settings->doorPort, 5000);
    EXPECT_EQ(settings->adminDoorPort, 7000);
    EXPECT_EQ(settings->maxCon, 300);
    EXPECT_EQ(settings->maxDown, 9);
    EXPECT_EQ(settings->pmAllow, 2);
    EXPECT_EQ(settings->autoConnect, 1);
    EXPECT_EQ(settings->ipOver, 1);
    for (const i32 flag : {settings->saveCor.get(), settings->trayCheck.get(), settings->verifyCancel.get(),
                           settings->servRemove.get()}) {
        EXPECT_EQ(flag, 0);
    }
    EXPECT_EQ(settings->lineDown, 50.5F);
    EXPECT_EQ(settings->userMaxUpF, 12.25F);
    EXPECT_EQ(settings->userMaxDownF, 100.0F);
    EXPECT_FLOAT_EQ(settings->maxUpSpeed, 7.001F);
    const i4_proxy_settings proxy = settings->proxy();
    EXPECT_EQ(proxy.pType, 2);
    EXPECT_EQ(proxy.port, 1080);
    EXPECT_EQ(proxy.server, "proxy.example");
    EXPECT_EQ(proxy.user, "me");
    EXPECT_EQ(proxy.password, "secret");
}

TEST_F(PreferencesTest, KeysThatAreMissingOrMakeNoSenseTakeTheirDefaults) {
    const f32 noNumber = std::numeric_limits<f32>::quiet_NaN();
    File file;
    file.self.setInt(TAG_PORT, 0);
    file.settings.setText("maxCon", "many");
    file.settings.setInt("incoming", 3);
    file.settings.setText("temp", "");
    file.settings.setInt("adminDoorPort", 0);
    file.settings.setInt("maxUpSpeed", 0);
    file.settings.setInt("maxNumUp", 77);
    file.settings.setInt("pSize", 77);
    file.settings.setTag("lineDown", &noNumber, META_TAG_FLOAT);
    write(file.bytes());
    const auto settings = loaded();
    EXPECT_EQ(log_.take(), "");
    EXPECT_EQ(settings->doorPort, 4662);
    EXPECT_EQ(settings->maxCon, 45);
    EXPECT_EQ(settings->incomingDir(), path("incoming").c_str());
    EXPECT_EQ(settings->tempDir(), path("temp").c_str());
    EXPECT_EQ(settings->adminDoorPort, 4663);
    EXPECT_EQ(settings->adminName(), "");
    EXPECT_EQ(settings->adminPass(), "");
    EXPECT_EQ(settings->maxUpSpeed, 5.0F);
    EXPECT_EQ(settings->maxNumUp, 5);
    EXPECT_EQ(settings->pSize, 184'320);
    EXPECT_EQ(settings->lineDown, 0.0F);
    EXPECT_EQ(settings->saveCor, 1);
    EXPECT_EQ(settings->stringFile(), "default.str");
    EXPECT_EQ(settings->proxy().pType, 0);

    i4_owned_ram_file saved;
    ASSERT_TRUE(settings->toDisk(saved));
    saved.seek(0);
    UserMeta self;
    Meta tags;
    ASSERT_TRUE(self.fromDisk(saved));
    ASSERT_TRUE(tags.fromDisk(saved));
    EXPECT_EQ(tags.getInt("maxUpSpeed"), 5000u);
    EXPECT_EQ(tags.getInt("maxCon"), 45u);
    EXPECT_EQ(self.port, 4662);
}

TEST_F(PreferencesTest, EstimatesOfTheLineDontDriftFromRunToRun) {
    for (u32 value = 1; value < 4'000'000'000 / 21; value = value * 21 / 20 + 1) {
        File file;
        file.settings.setInt("maxUpSpeed", value);
        Preferences settings;
        ASSERT_TRUE(decode(settings, file.bytes()));
        const Bytes once = encode(settings);
        Preferences again;
        ASSERT_TRUE(decode(again, once));
        EXPECT_EQ(encode(again), once) << value;
    }
}

TEST_F(PreferencesTest, AnUnusableFileIsNamedAndSetAsideOnce) {
    const Bytes good = File().bytes();
    File zeroHash;
    zeroHash.self.hash.clear();
    zeroHash.settings.setInt("kept", 1);
    File nameless;
    nameless.self.removeTag(TAG_NAME);
    File misnamed;
    misnamed.self.setTag("\x01", nullptr, META_TAG_INT);
    const std::pair<const char*, Bytes> cases[] = {
        {"empty", {}},
        {"cut in the record", Bytes(good.begin(), good.begin() + 12)},
        {"cut in the settings", Bytes(good.begin(), good.end() - 1)},
        {"zero hash", zeroHash.bytes()},
        {"no name", nameless.bytes()},
        {"a name that is no text", misnamed.bytes()},
    };
    for (const auto& [what, bytes] : cases) {
        SCOPED_TRACE(what);
        write(bytes);
        const auto settings = loaded();
        EXPECT_EQ(log_.take(), "Error loading: " + path("pref.met") + "\n");
        EXPECT_EQ(read("pref.met.bad"), bytes);
        EXPECT_FALSE(exists("pref.met"));
        EXPECT_THAT(nameOf(*settings), testing::SizeIs(5));
        EXPECT_FALSE(hashOf(*settings).isZero());
        EXPECT_EQ(settings->clientId(), 0u);
        settings->save();
        loaded();
        EXPECT_EQ(log_.take(), "");
        EXPECT_EQ(read("pref.met.bad"), bytes);
        const Bytes saved = read("pref.met");
        const std::string text(saved.begin(), saved.end());
        EXPECT_EQ(text.find("kept") != std::string::npos, bytes == zeroHash.bytes());
    }
}

TEST_F(PreferencesTest, NoDamageDoesMoreThanLoseTheFile) {
    File file;
    fillWithOtherValues(file.settings);
    const Bytes good = file.bytes();
    int read = 0;
    sweepDamage(good, [&](std::span<const u8> bytes) {
        Preferences settings;
        settings.workDir = "/nowhere";
        if (!decode(settings, bytes)) return;
        ++read;
        EXPECT_FALSE(hashOf(settings).isZero());
        const Bytes once = encode(settings);
        Preferences again;
        EXPECT_TRUE(decode(again, once));
        EXPECT_EQ(encode(again), once);
    });
    EXPECT_GT(read, 0);
    // A count that promises more than there is.
    Bytes hostile(good.begin(), good.begin() + 22);
    hostile.insert(hostile.end(), {0xFF, 0xFF, 0xFF, 0x7F});
    Preferences settings;
    EXPECT_FALSE(decode(settings, hostile));
}

TEST_F(PreferencesTest, AFailedSaveIsToldAndKeepsTheOldFile) {
    const auto settings = loaded();
    settings->save();
    const Bytes saved = read("pref.met");
    settings->setName(std::string(70'000, 'x').c_str());
    settings->setAdmin(std::string(70'000, 'x').c_str(), "");  // no tag holds so long a text
    settings->save();
    EXPECT_THAT(log_.take(), testing::HasSubstr("Couldn't save " + path("pref.met")));
    EXPECT_EQ(read("pref.met"), saved);
    settings->setAdmin("", "");
    settings->prefPath = path("missing/pref.met").c_str();
    settings->save();
    EXPECT_THAT(log_.take(), testing::HasSubstr("missing/pref.met"));
}

TEST_F(PreferencesTest, AChangedClientIdIsToldAndOnlyAHighOneIsSaved) {
    static int changes;
    changes = 0;
    const auto settings = loaded();
    settings->onClientIdChanged = [] { ++changes; };
    settings->setDoorPort(5555);
    for (const auto& [id, savedId, savedPort] :
         std::vector<std::array<u32, 3>>{{0xFFFFFF, 0, 0}, {0xFFFFFF, 0, 0}, {0x1000000, 0x1000000, 5555}}) {
        settings->setClientId(id);
        i4_owned_ram_file stream;
        ASSERT_TRUE(settings->toDisk(stream));
        stream.seek(0);
        EXPECT_EQ(stream.read_32(), savedId);
        EXPECT_EQ(stream.read_16(), savedPort);
    }
    EXPECT_EQ(changes, 2);
    settings->setServer(0x04030201, 4661);
    EXPECT_EQ(settings->serverIp(), 0x04030201u);
    EXPECT_EQ(settings->serverPort(), 4661);
    settings->save();
    EXPECT_EQ(loaded()->doorPort, 5555);
}

TEST_F(PreferencesTest, NamesAreCutAndTheWireFormIsAsLongAsItSays) {
    const auto settings = loaded();
    settings->setName(std::string(64, 'x').c_str());
    EXPECT_EQ(nameOf(*settings), std::string(64, 'x'));
    settings->setName(("ab" + std::string(64, 'c')).c_str());
    EXPECT_EQ(nameOf(*settings), "ab" + std::string(62, 'c'));
    i4_owned_ram_file stream;
    EXPECT_TRUE(settings->writeSelf(stream));
    EXPECT_EQ(stream.size(), settings->selfByteSize());
}

TEST_F(PreferencesTest, TheDownloadLimitKeepsInProportionToASmallUploadLimit) {
    struct Case {
        f32 up, down;  // the limits in force
        f32 wishUp;    // -1 for none
        f32 wishDown;
        f32 expectedUp, expectedDown;
    };
    const Case cases[] = {
        {4, 0, -1, 20, 4, 12},   {4, 0, -1, 14, 4, 14},  {4, 0, -1, 16, 4, 16},     {4, 0, -1, 0, 4, 12},
        {8, 0, -1, 0, 8, 32},    {8, 0, -1, 33, 8, 32},  {8, 0, -1, 32, 8, 32},     {10, 0, -1, 500, 10, 500},
        {0, 0, -1, 500, 0, 500}, {10, 9, -1, 0, 10, 0},  {0, 100, 4, -1, 4, 12},    {0, 12, 4, -1, 4, 12},
        {0, 100, 5, -1, 5, 20},  {0, 100, 9, -1, 9, 36}, {0, 100, 10, -1, 10, 100}, {0, 0, 4, -1, 4, 0},
        {4, 12, 0, -1, 0, 12},   {4, 12, -5, -1, 0, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.up << " " << c.down << " " << c.wishUp << " " << c.wishDown);
        Preferences settings;
        settings.userMaxUpF = c.up;
        settings.userMaxDownF = c.down;
        if (c.wishUp != -1) settings.setMaxUp(c.wishUp);
        if (c.wishDown != -1) settings.setMaxDown(c.wishDown);
        EXPECT_EQ(settings.userMaxUpF, c.expectedUp);
        EXPECT_EQ(settings.userMaxDownF, c.expectedDown);
    }
    // What a file says passes through the rule as well.
    const f32 up = 4;
    const f32 down = 20;
    File file;
    file.settings.setTag("userMaxUpF", &up, META_TAG_FLOAT);
    file.settings.setTag("userMaxDownF", &down, META_TAG_FLOAT);
    Preferences settings;
    ASSERT_TRUE(decode(settings, file.bytes()));
    EXPECT_EQ(settings.userMaxDownF, 12.0F);
}

TEST_F(PreferencesTest, DirectoriesAreMadeAndTempStaysWhileThereAreDownloads) {
    const auto settings = loaded();
    settings->setIncoming(path("in").c_str());
    EXPECT_TRUE(exists("in"));
    settings->hasDownloads = [] { return true; };
    settings->setTemp(settings->tempDir().c_str());
    EXPECT_EQ(log_.take(), "");
    settings->setTemp(path("t").c_str());
    EXPECT_EQ(log_.take(), "Can't change temporary directory with pending downloads.\n");
    EXPECT_FALSE(exists("t"));
    EXPECT_EQ(settings->tempDir(), path("temp").c_str());
    settings->hasDownloads = [] { return false; };
    settings->setTemp(path("t").c_str());
    EXPECT_EQ(log_.take(), "");
    EXPECT_TRUE(exists("t"));
    EXPECT_EQ(settings->tempDir(), path("t").c_str());
}

TEST_F(PreferencesTest, ALanguageIsTakenAtOnceAndKeptAndRenamesTheCommonTags) {
    std::string text;
    for (int number = 0; number < 78; ++number) text += "fr" + std::to_string(number) + "\r\n";
    std::ofstream(path("fr.str"), std::ios::binary) << text;
    const auto settings = loaded();
    settings->setLanguage("fr");
    EXPECT_STREQ(stringTable.get(1), "fr1");
    EXPECT_STREQ(tagTable[TAG_NAME].displayName, "fr52");
    EXPECT_STREQ(tagTable[TAG_AVAILABILITY].displayName, "fr62");
    EXPECT_STREQ(tagTable[TAG_PRIORITY].displayName, "fr61");
    EXPECT_STREQ(tagTable[TAG_PING].displayName, "ping");
    settings->save();

    const auto again = loaded();
    EXPECT_EQ(again->stringFile(), "fr.str");
    EXPECT_STREQ(stringTable.get(1), "fr1");
    again->setLanguage("en");
    EXPECT_STREQ(stringTable.get(1), "Queued");
    EXPECT_STREQ(tagTable[TAG_NAME].displayName, "Name");
}

TEST_F(PreferencesTest, AProxyIsKeptAndOneWithoutATypeIsNone) {
    const auto settings = loaded();
    i4_proxy_settings proxy;
    proxy.pType = I4_PROXY_HTTP;
    proxy.server = "p";
    proxy.port = 3128;
    settings->setProxy(proxy);
    settings->save();
    const auto again = loaded();
    EXPECT_EQ(again->proxy().pType, I4_PROXY_HTTP);
    EXPECT_EQ(again->proxy().server, "p");
    EXPECT_EQ(again->proxy().port, 3128);
    EXPECT_TRUE(again->proxy().user.isNull());
    proxy.pType = I4_PROXY_NONE;
    again->setProxy(proxy);
    again->save();
    EXPECT_TRUE(loaded()->proxy().server.isNull());
}

}  // namespace

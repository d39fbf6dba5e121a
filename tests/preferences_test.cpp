// Settings and identity: pref.met read, written, missing and damaged, and the rules between settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "i4min/network/proxy.h"
#include "meta/Meta.h"
#include "meta/UserMeta.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

namespace {

// The two sections of a pref.met: good ones, or those that the bytes hold.
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
    UserMeta self;
    Meta settings;
};

void setFloat(Meta& settings, const char* key, f32 value) { settings.setTag(key, &value, META_TAG_FLOAT); }

// Every key with a value that isn't its default, in an order of its own, and one that isn't ours.
Bytes otherValues() {
    const std::pair<const char*, u32> numbers[] = {
        {"pPort", 1080},      {"pType", 2},       {"maxDownSpeed", 123'456},
        {"maxUpSpeed", 7001}, {"saveCor", 0},     {"trayCheck", 0},
        {"verifyCancel", 0},  {"servRemove", 0},  {"ipOver", 1},
        {"auto", 1},          {"pmAllow", 2},     {"adminDoorPort", 7000},
        {"maxCon", 300},      {"pSize", 184'320}, {"maxNumUp", 5},
        {"maxDown", 9}};
    File file;
    for (const char* text : {"pUPass", "pUName", "pSName", "somebodyElses", "password", "userName",
                             "adminPass", "adminName", "temp", "incoming", "lang"}) {
        file.settings.setText(text, text);
    }
    for (const auto& [key, value] : numbers) file.settings.setInt(key, value);
    setFloat(file.settings, "lineDown", 50.5F);
    setFloat(file.settings, "userMaxUpF", 12.25F);
    setFloat(file.settings, "userMaxDownF", 100.0F);
    return file.bytes();
}

bool decode(Preferences& settings, std::span<const u8> bytes) {
    BytesFile stream(bytes);
    return settings.fromDisk(stream);
}

Bytes bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

Bytes encode(Preferences& settings) {
    return written([&](i4_file& out) { EXPECT_TRUE(settings.toDisk(out)); });
}

class PreferencesTest : public testing::Test {
  protected:
    std::unique_ptr<Preferences> loaded() const {
        auto settings = std::make_unique<Preferences>();
        settings->workDir = folder_.path().c_str();
        settings->load();
        return settings;
    }
    void write(const Bytes& bytes) const {
        writeFile(pref_, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    Bytes read() const { return bytesOf(contentOf(pref_)); }

    CapturedLog log_;
    TemporaryDirectory folder_;
    const std::string pref_ = folder_.file("pref.met");
};

std::string nameOf(const Preferences& settings) { return settings.getName().c_str(); }

MD4Hash hashOf(const Preferences& settings) {
    UserMeta self;
    settings.copySelf(self);
    return self.hash;
}

TEST_F(PreferencesTest, AFirstRunMakesAnIdentityAndSavesItOnlyWhenTold) {
    const auto first = loaded();
    EXPECT_THAT(nameOf(*first), testing::MatchesRegex("[a-y]{5}"));
    EXPECT_EQ(first->incomingDir(), folder_.file("incoming").c_str());
    EXPECT_EQ(first->tempDir(), folder_.file("temp").c_str());
    EXPECT_STREQ(stringTable.get(1), "Queued");
    EXPECT_NE(hashOf(*loaded()), hashOf(*first)) << "two fresh clients are two users";
    EXPECT_FALSE(exists(pref_));

    first->save();
    const Bytes saved = read();
    EXPECT_EQ(saved, encode(*first));
    loaded()->save();
    EXPECT_EQ(read(), saved);
    EXPECT_EQ(log_.take(), "");

    File file(saved);
    EXPECT_EQ(file.self.getInt(TAG_VERSION), 59u);
    EXPECT_EQ(file.self.getInt(TAG_PORT), 4662u);
    std::string order;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = file.settings.getTags().next(c);)
        order += std::string(tag->name()) + " ";
    EXPECT_EQ(order,
              "incoming temp pSize maxNumUp maxDown adminName adminPass pmAllow userMaxUpF userMaxDownF "
              "maxCon auto saveCor verifyCancel trayCheck servRemove userName password ipOver lang lineDown "
              "adminDoorPort maxUpSpeed maxDownSpeed pType pSName pUName pUPass pPort ");
}

TEST_F(PreferencesTest, AFileOfAnyOrderIsTakenAndComesBackByteForByte) {
    const Bytes bytes = otherValues();
    write(bytes);
    const auto settings = loaded();
    settings->save();
    EXPECT_EQ(read(), bytes);

    // Each of these could have changed places with another on both ways.
    EXPECT_EQ(settings->incomingDir(), "incoming");
    EXPECT_EQ(settings->adminName(), "adminName");
    EXPECT_EQ(settings->proxy().server, "pSName");
    EXPECT_EQ(settings->proxy().user, "pUName");
    EXPECT_EQ(settings->stringFile(), "lang");
    EXPECT_EQ(settings->doorPort, 5000);
    EXPECT_EQ(settings->autoConnect, 1);
    EXPECT_EQ(settings->userMaxUpF, 12.25F);
    EXPECT_FLOAT_EQ(settings->maxUpSpeed, 7.001F);
}

TEST_F(PreferencesTest, KeysThatAreMissingOrMakeNoSenseTakeTheirDefaults) {
    File file;
    file.self.setInt(TAG_PORT, 0);
    file.settings.setText("maxCon", "many");
    file.settings.setInt("incoming", 3);
    file.settings.setText("temp", "");
    for (const char* zero : {"adminDoorPort", "maxUpSpeed"}) file.settings.setInt(zero, 0);
    for (const char* neverReadBack : {"maxNumUp", "pSize"}) file.settings.setInt(neverReadBack, 77);
    setFloat(file.settings, "lineDown", std::numeric_limits<f32>::quiet_NaN());
    write(file.bytes());
    const auto settings = loaded();
    EXPECT_EQ(log_.take(), "");
    EXPECT_EQ(settings->incomingDir(), folder_.file("incoming").c_str());
    EXPECT_EQ(settings->tempDir(), folder_.file("temp").c_str());
    EXPECT_EQ(settings->stringFile(), "default.str");
    EXPECT_EQ(settings->doorPort, 4662);
    EXPECT_EQ(settings->adminDoorPort, 4663);
    EXPECT_EQ(settings->maxCon, 45);
    EXPECT_EQ(settings->maxNumUp, 5);
    EXPECT_EQ(settings->pSize, 184'320);
    EXPECT_EQ(settings->maxUpSpeed, 5.0F);
    EXPECT_EQ(settings->lineDown, 0.0F);
    EXPECT_EQ(File(encode(*settings)).settings.getInt("maxUpSpeed"), 5000u);
}

TEST_F(PreferencesTest, EstimatesOfTheLineDontDriftFromRunToRun) {
    for (u32 value = 1; value < 4'000'000'000 / 21; value = value * 21 / 20 + 1) {
        File file;
        file.settings.setInt("maxUpSpeed", value);
        Preferences settings;
        Preferences again;
        ASSERT_TRUE(decode(settings, file.bytes()));
        const Bytes once = encode(settings);
        ASSERT_TRUE(decode(again, once));
        EXPECT_EQ(encode(again), once) << value;
    }
}

TEST_F(PreferencesTest, AnUnusableFileIsNamedAndSetAsideOnce) {
    const Bytes good = File().bytes();
    File zeroHash;
    zeroHash.self.hash.clear();
    zeroHash.settings.setInt("kept", 1);
    File misnamed;
    misnamed.self.setTag("\x01", nullptr, META_TAG_INT);
    for (const Bytes& bytes :
         {Bytes(), Bytes(good.begin(), good.end() - 1), zeroHash.bytes(), misnamed.bytes()}) {
        write(bytes);
        const auto settings = loaded();
        EXPECT_EQ(log_.take(), "Error loading: " + pref_ + "\n");
        EXPECT_FALSE(exists(pref_));
        EXPECT_THAT(nameOf(*settings), testing::SizeIs(5));
        EXPECT_FALSE(hashOf(*settings).isZero());
        EXPECT_EQ(settings->clientId(), 0u);
        settings->save();
        loaded();
        EXPECT_EQ(log_.take(), "");
        EXPECT_EQ(bytesOf(contentOf(pref_ + ".bad")), bytes);
        EXPECT_EQ(File(read()).settings.getInt("kept") == 1, bytes == zeroHash.bytes());
    }
}

TEST_F(PreferencesTest, NoDamageDoesMoreThanLoseTheFile) {
    const Bytes good = otherValues();
    int taken = 0;
    sweepDamage(good, [&](std::span<const u8> bytes) {
        Preferences settings;
        Preferences again;
        if (!decode(settings, bytes)) return;
        ++taken;
        EXPECT_FALSE(hashOf(settings).isZero());
        const Bytes once = encode(settings);
        EXPECT_TRUE(decode(again, once));
        EXPECT_EQ(encode(again), once);
    });
    EXPECT_GT(taken, 0);
    Bytes hostile(good.begin(), good.begin() + 22);
    hostile.insert(hostile.end(), {0xFF, 0xFF, 0xFF, 0x7F});  // a count that promises more than there is
    Preferences settings;
    EXPECT_FALSE(decode(settings, hostile));
}

TEST_F(PreferencesTest, AFailedSaveIsToldAndKeepsTheOldFile) {
    const auto settings = loaded();
    settings->save();
    const Bytes saved = read();
    settings->setAdmin(std::string(70'000, 'x').c_str(), "");  // no tag holds so long a text
    EXPECT_FALSE(settings->save());
    EXPECT_THAT(log_.take(), testing::HasSubstr("Couldn't save " + pref_));
    EXPECT_EQ(read(), saved);
}

TEST_F(PreferencesTest, AChangedClientIdIsToldAndOnlyAHighOneIsSaved) {
    static int changes;
    changes = 0;
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
    settings->setName(("ab" + std::string(64, 'c')).c_str());
    EXPECT_EQ(nameOf(*settings), "ab" + std::string(62, 'c'));
}

TEST_F(PreferencesTest, TheDownloadLimitKeepsInProportionToASmallUploadLimit) {
    const struct {
        f32 up, down, becomes;  // limits and the download limit in the end; 0 is none
    } thenDown[] = {{4, 20, 12}, {4, 14, 14}, {4, 16, 16}, {4, 0, 12},     {8, 0, 32},
                    {8, 33, 32}, {8, 32, 32}, {10, 0, 0},  {10, 500, 500}, {0, 500, 500}},
      thenUp[] = {{4, 100, 12},   {4, 12, 12}, {5, 100, 20}, {9, 100, 36},
                  {10, 100, 100}, {4, 0, 0},   {-5, 12, 12}};
    for (const auto& [up, down, becomes] : thenDown) {
        Preferences settings;
        settings.setMaxUp(up);
        settings.setMaxDown(down);
        EXPECT_EQ(settings.userMaxDownF, becomes) << up << " then " << down;
    }
    for (const auto& [up, down, becomes] : thenUp) {
        Preferences settings;
        settings.setMaxDown(down);
        settings.setMaxUp(up);
        EXPECT_EQ(settings.userMaxDownF, becomes) << down << " then " << up;
        EXPECT_EQ(settings.userMaxUpF, std::max(up, 0.0F));
    }
    // What a file says passes through the rule as well.
    File file;
    setFloat(file.settings, "userMaxUpF", 4);
    setFloat(file.settings, "userMaxDownF", 20);
    Preferences settings;
    ASSERT_TRUE(decode(settings, file.bytes()));
    EXPECT_EQ(settings.userMaxDownF, 12.0F);
}

}  // namespace

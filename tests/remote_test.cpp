// The remote controller's protocol, byte by byte, and where each event is sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "console/ConClientApp.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
#include "protocol/ControllerProtocol.h"
#include "remote/GUIController.h"
#include "remote/GUIControllerDoor.h"
#include "remote/LogonGuard.h"
#include "remote/TcpipUI.h"
#include "server/ServerPool.h"
#include "tests/support/EngineTest.h"
#include "tests/support/ToldEvents.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bodies = std::vector<std::string>;

std::string fileBytes(u8 fill, const std::string& name) { return namedRecord(hashOf(fill), 0, 0, name); }
// A record whose only tag is its name.
std::unique_ptr<FileMeta> namedFile(u8 fill, const std::string& name) {
    auto file = makeFile(name, 0, fill);
    file->removeTag(TAG_SIZE);
    return file;
}

// A controller's connection that the tests drive.
class TestController : public InNoPool<GUIController> {
  public:
    TestController(SocketPool& pool, u32 from, TcpipUI& ui) : InNoPool(pool, from, ui) {}
    using GUIController::sendStatus;
    // Checks for a stall at time `now`; true if the connection may continue.
    bool goesOn(u32 now) {
        checkStall(now);
        return !isClosing();
    }
};

// The wrapped interface, with a hook that runs before a download is removed.
struct Wrapped : ToldEvents {
    void downloadRemoved(Download* download) override {
        if (leaving) leaving();
        ToldEvents::downloadRemoved(download);
    }
    std::function<void()> leaving;
};

std::string logon(const std::string& name = "kit", const std::string& password = "kitpass") {
    return opcode(CTL_LOGON, text16(name) + text16(password));
}

class Remote : public EngineTest {
  protected:
    Remote() {
        preferences.adminDoorPort = 0;
        preferences.setAdmin("kit", "kitpass");
        ui = std::make_unique<TcpipUI>(engine, console, inner);
        engine.ui.replace(*ui);
        console.attach(engine);
    }
    ~Remote() override {
        for (const Ref<TestController>& controller : controllers) controller->end();
        controllers.clear();
        engine.ui.replace(log);
        clientApp.socketPool.deleteConnections();
        serverPool.servers().deleteAll();
    }

    TestController& caller(u32 from = loopbackIp) {
        controllers.emplace_back(new TestController(clientApp.socketPool, from, *ui));
        return *controllers.back();
    }
    TestController& controller() {
        TestController& result = caller();
        EXPECT_TRUE(result.hear(logon()));
        result.sent();
        inner.take();
        return result;
    }

    ConClientApp console;
    Wrapped inner;
    std::unique_ptr<TcpipUI> ui;
    std::vector<Ref<TestController>> controllers;
};

TEST_F(Remote, OnlyAGoodLogOnIsLetIn) {
    u8 from = 1;  // each has its own address, so that none is blocked for guessing
    const auto refused = [&](const std::string& body) {
        TestController& guest = caller(addressOf(from++));
        return !guest.hear(body) && guest.sent().empty();
    };
    for (const std::string& bad :
         {logon("kit", "Kitpass"), logon("Kit"), logon("", ""), opcode(CTL_GET_SETTINGS),
          opcode(CTL_LOGON, text16("kit") + le16(7) + "kit"), logon() + std::string(70'000, 'x')}) {
        EXPECT_TRUE(refused(bad));
    }
    // Empty ones are accepted on this machine only.
    for (const char* name : {"", "kit"}) {
        preferences.setAdmin(name, "");
        EXPECT_TRUE(refused(logon(name, "")));
        TestController& local = caller(0x0200007F);
        EXPECT_TRUE(local.hear(logon(name, "")));
        local.end();  // for the next one: only one may be logged on
    }
}

TEST(LogonGuard, HoldsAnAddressAtFiveRefusalsInAnyMinute) {
    LogonGuard guard;
    const u32 start = 0xFFFFFFFF - 30'000;  // the clock wraps around within the minute
    for (const u32 at : {0U, 50'000U, 55'000U, 58'000U}) guard.refused(1, start + at);
    EXPECT_FALSE(guard.isBlocked(1, start + 59'000));
    guard.refused(1, start + 59'000);
    EXPECT_TRUE(guard.isBlocked(1, start + 59'999));
    EXPECT_FALSE(guard.isBlocked(2, start + 59'999));
    EXPECT_FALSE(guard.isBlocked(1, start + 60'000));
    guard.refused(1, start + 61'000);
    EXPECT_TRUE(guard.isBlocked(1, start + 109'999));
    EXPECT_FALSE(guard.isBlocked(1, start + 110'000));
    // Many new addresses don't displace one that is blocked.
    for (u32 i = 0; i < 5; ++i) guard.refused(9, start + 200'000);
    for (u32 ip = 100; ip < 900; ++ip) guard.refused(ip, start + 200'000);
    EXPECT_TRUE(guard.isBlocked(9, start + 200'001));
}

TEST_F(Remote, WhoSaysNothingAndWhoStandsStillIsLetGo) {
    GUIControllerDoor door(clientApp.socketPool, 0, *ui);
    for (u32 i = 0; i < 32; ++i) {
        EXPECT_TRUE(door.canAccept());
        EXPECT_TRUE(caller().goesOn(1));
    }
    EXPECT_FALSE(door.canAccept());
    TestController& first = *controllers[0];
    EXPECT_TRUE(controllers[1]->goesOn(30'001));
    EXPECT_FALSE(controllers[1]->goesOn(30'002));
    EXPECT_TRUE(first.hear(logon()));
    EXPECT_TRUE(door.canAccept());
    // After the log-on it may be silent, but not within a message.
    u32 now = 200'000;
    EXPECT_TRUE(first.goesOn(now));
    for (const char byte : framed(opcode(CTL_COMMAND)).substr(0, 5)) {
        first.hearRaw({byte});
        EXPECT_TRUE(first.goesOn(now += 100'000)) << "it comes slowly, but it comes";
    }
    EXPECT_TRUE(first.goesOn(now + 120'000));
    EXPECT_FALSE(first.goesOn(now + 120'001));
}

TEST_F(Remote, EventsGoToTheControllerOrToTheWrappedOne) {
    UploadSlot slot(engine.peerNeeds, uploadPool, 1, nullptr);
    const auto all = [&] {
        ui->print("%d", 7);
        ui->connected("index");
        ui->serverStats(3, 0x102);
        ui->extending("other");
        ui->addResult(namedFile(1, "a"));
        auto list = std::make_unique<FileList>();
        list->add(namedFile(2, "b").release());
        ui->setResults(list.release(), 1);
        ui->slotAdded(&slot, "ann");
        ui->slotRemoved(&slot);
        ui->hashing("c");
        ui->friendsChanged();
        ui->friendFiles();
        ui->disconnected();
    };
    const std::string passed =
        "7[connected index]\n[stats 3 files 258 users]\n[extending other]\n[result a]\n[results 1 more 1]\n"
        "[slot ann]\n[slot gone]\n[hashing c]\n[friends]\n[friend files]\n[disconnected]\n";
    all();
    EXPECT_EQ(inner.take(), passed);
    TestController& to = controller();
    all();
    EXPECT_EQ(inner.take(), "");
    EXPECT_THAT(
        to.sent(),
        ElementsAre(opcode(CTL_PRINT, text16("7")), opcode(CTL_CONNECTED, text16("index")),
                    opcode(CTL_SERVER_STATS, le32(3) + le32(0x102)), opcode(CTL_EXTENDING, text16("other")),
                    opcode(CTL_RESULT, fileBytes(1, "a")),
                    opcode(CTL_RESULTS, le32(1) + fileBytes(2, "b") + "\1"),
                    opcode(CTL_SLOT_ADDED, le32(slot.identity()) + text16("ann")),
                    opcode(CTL_SLOT_REMOVED, le32(slot.identity())), opcode(CTL_HASHING, text16("c")),
                    opcode(CTL_FRIENDS), opcode(CTL_FRIEND_FILES, le32(0)), opcode(CTL_DISCONNECTED)));
    // The complete list replaced the single result; further ones are appended, up to the limit.
    EXPECT_FALSE(ui->findResult(hashOf(1)));
    EXPECT_TRUE(ui->findResult(hashOf(2)));
    for (int i = 0; i < 10'100; ++i) ui->addResult(namedFile(3, ""));
    EXPECT_EQ(to.sent().size(), 9'999U);

    to.end();
    all();
    EXPECT_EQ(inner.take(), passed);
    EXPECT_THAT(to.sent(), IsEmpty());
}

TEST_F(Remote, LinesGoToBothAndAreCutAt255Bytes) {
    TestController& to = controller();
    const std::string euro = "\xE2\x82\xAC";
    const std::string x252(252, 'x');
    for (const auto& [text, cut] : {std::pair<std::string, std::string>{"100% %s", "100% %s"},
                                    {std::string(5000, 'x'), x252 + "xxx"},
                                    {x252 + euro + "tail", x252 + euro},
                                    {x252 + "x" + euro + "tail", x252 + "x"},
                                    {std::string(300, '\x80'), std::string(255, '\x80')}}) {
        ui->printLine("%s", text.c_str());
        EXPECT_THAT(to.sent(), ElementsAre(opcode(CTL_PRINT_LINE, text16(cut))));
        EXPECT_EQ(inner.take(), cut + "\n");
    }
    // The output of a command is sent in the same way.
    EXPECT_TRUE(to.hear(opcode(CTL_COMMAND, text16("nonsense"))));
    const std::string line = "Unrecognized command. type ? for help\n";
    EXPECT_THAT(to.sent(), ElementsAre(opcode(CTL_PRINT_LINE, text16(line))));
    EXPECT_EQ(inner.take(), line + "\n");
}

TEST_F(Remote, UploadsAreToldOfOnceAndTheirEndOnlyToWhoKnowsThem) {
    peer(7, "ann");
    const Ref<Upload> before(new Upload(uploadPool, log, nullptr, *made[0], "early", hashOf(1)));
    const Ref<Upload> nameless(new Upload(uploadPool, log, nullptr, *made[0], nullptr, hashOf(2)));
    ui->uploadAdded(before.get());
    TestController& to = caller();
    ASSERT_TRUE(to.hear(logon()));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(
                               190, text16("early") + namedRecord(hashOf(7), addressOf(7), 4662, "ann"))));
    inner.take();
    ui->uploadAdded(before.get());
    ui->uploadAdded(nameless.get());
    ui->uploadRemoved(nameless.get());
    EXPECT_EQ(inner.take(), "[upload]\n[upload]\n[upload gone]\n");
    EXPECT_THAT(to.sent(), IsEmpty());
    inner.uploads.remove(before.get());
    before->speed = 1.5F;
    to.hear(opcode(CTL_UPLOAD_STATUS_ON));
    to.sendStatus();
    EXPECT_THAT(to.sent(), ElementsAre(opcode(CTL_UPLOAD_STATUS, le16(1) + le16(0) + le32(0x3FC00000))));
    to.hear(opcode(CTL_UPLOAD_STATUS_OFF));
    to.sendStatus();
    for (int time = 0; time < 2; ++time) ui->uploadRemoved(before.get());
    EXPECT_THAT(to.sent(), ElementsAre(opcode(CTL_UPLOAD_REMOVED, bytesOf(hashOf(7)))));
}

TEST_F(Remote, DownloadsAreSteeredByTheirHash) {
    TestController& to = controller();
    const std::string hash = bytesOf(hashOf(9));
    const Ref<Download> download = startDownload(hashOf(9), "some.bin", 30'000'000);
    ASSERT_TRUE(download);
    const Bodies added = to.sent();
    ASSERT_GE(added.size(), 2U);
    EXPECT_EQ(added[1].substr(0, 17) + added[1].back(), opcode(CTL_DOWNLOAD_ADDED, hash) + "\1");

    EXPECT_TRUE(to.hear(opcode(CTL_PAUSE, hash)));
    EXPECT_TRUE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(CTL_RESUME, hash)));
    EXPECT_FALSE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(CTL_PRIORITY, hash + "\2")));
    EXPECT_TRUE(to.hear(opcode(CTL_PRIORITY, hash + "\3")));
    EXPECT_EQ(download->priority, 2);
    EXPECT_TRUE(to.hear(opcode(CTL_CANCEL, bytesOf(hashOf(8)))));
    to.sent();

    download->speed = 2.0F;
    EXPECT_TRUE(to.hear(opcode(CTL_DOWNLOAD_STATUS_ON)));
    to.sendStatus();
    const std::string state = le8(static_cast<u8>(download->getStatus()));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(CTL_DOWNLOAD_STATUS, le16(1) + le16(0) + state +
                                                                       le32(0x40000000) + le32(0) + le8(0) +
                                                                       le8(download->progress().count()))));
    EXPECT_TRUE(to.hear(opcode(CTL_DOWNLOAD_STATUS_OFF)));

    EXPECT_TRUE(to.hear(opcode(CTL_CANCEL, hash)));
    EXPECT_FALSE(to.hear(opcode(CTL_PRIORITY, hash)));
    to.end();
    // A controller that logs on at this moment still finds the download in the list.
    TestController& late = caller();
    inner.leaving = [&] { EXPECT_TRUE(late.hear(logon())); };
    while (messageQ.process()) continue;
    const Bodies heard = late.sent();
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_EQ(heard[0].substr(0, 17), opcode(CTL_DOWNLOAD_ADDED, hash));
    EXPECT_EQ(heard[1], opcode(CTL_DOWNLOAD_REMOVED, hash));
}

TEST_F(Remote, AnswersHaveTheirBytes) {
    TestController& to = controller();
    const auto answer = [&](u32 number) {
        EXPECT_TRUE(to.hear(opcode(number)));
        const Bodies sent = to.sent();
        return sent.size() == 1 ? sent[0] : std::to_string(sent.size()) + " answers";
    };
    EXPECT_EQ(answer(214), opcode(CTL_FRIENDS, le32(0)));
    EXPECT_EQ(answer(215), opcode(CTL_SHARED_DIRS, le16(0)));
    clientApp.shared.add(namedFile(3, "x.bin").release());
    EXPECT_EQ(answer(224), opcode(CTL_SHARED_FILES, le32(1) + fileBytes(3, "x.bin")));
    clientApp.shared.deleteAll();

    const std::string address = le32(addressOf(4)) + le16(4661);
    EXPECT_TRUE(to.hear(opcode(CTL_ADD_SERVER, address)));
    for (const char* preference : {"\2", "\3"})
        EXPECT_TRUE(to.hear(opcode(CTL_SERVER_PREFERENCE, address + preference)));
    EXPECT_TRUE(to.hear(opcode(CTL_SERVER_PREFERENCE, le32(1) + le16(1) + "\1")));
    EXPECT_EQ(serverPool.servers().get(0)->pref, 2U);
    EXPECT_EQ(answer(213).substr(0, 27), opcode(CTL_SERVERS, le32(1) + std::string(16, '\0') + address));
    EXPECT_TRUE(to.hear(opcode(CTL_REMOVE_SERVER, address)));
    EXPECT_EQ(answer(213), opcode(CTL_SERVERS, le32(0)));
    preferences.setName("kit");
    preferences.userMaxDownF = 2.0F;
    preferences.userMaxUpF = 1.5F;
    preferences.doorPort = 0x1236;
    preferences.maxCon = 45;
    preferences.autoConnect = 1;
    preferences.servRemove = 0;
    preferences.pmAllow = 2;
    preferences.saveCor = 1;
    preferences.verifyCancel = 0;
    preferences.adminDoorPort = 0x1237;
    EXPECT_EQ(answer(225),
              opcode(CTL_SETTINGS, le16(59) + le32(0x40000000) + le32(0x3FC00000) + le16(0x1236) + le16(45) +
                                       text16("kit") + text16(preferences.tempDir().c_str()) +
                                       text16(preferences.incomingDir().c_str()) +
                                       std::string("\1\0\2\1\0", 5) + le16(0x1237) + le32(45)));
}

TEST_F(Remote, WhatIsOddIsPassedOverAndWhatIsShortEndsTheConnection) {
    TestController& to = controller();
    std::string deep(600'000, '\0');
    for (const std::string& odd :
         {opcode(255, deep), logon(), opcode(CTL_SET_SHARED_DIRS, le16(9) + "anything"),
          opcode(CTL_DOWNLOAD_RECORD, "short"), opcode(CTL_DOWNLOAD_RESULT, bytesOf(hashOf(77))),
          opcode(CTL_SEARCH, deep)}) {
        EXPECT_TRUE(to.hear(odd)) << odd.size();
    }
    EXPECT_THAT(to.sent(), IsEmpty());
    to.end();
    for (const std::string& bad :
         {opcode(CTL_COMMAND, le16(500) + "vd"), opcode(CTL_PAUSE, "short"),
          opcode(CTL_SERVER_PREFERENCE, le32(1) + le16(1)), opcode(CTL_NOTHING, std::string(1 << 20, 'x'))}) {
        TestController& next = controller();
        EXPECT_FALSE(next.hear(bad)) << bad.size();
        next.end();
    }
}

}  // namespace

// The remote controller's protocol, byte for byte, and which events go where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "console/ConClientApp.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
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
// Its one tag is its name.
std::unique_ptr<FileMeta> namedFile(u8 fill, const std::string& name) {
    auto file = makeFile(name, 0, fill);
    file->removeTag(TAG_SIZE);
    return file;
}

class TestController : public InNoPool<GUIController> {
  public:
    TestController(SocketPool& pool, u32 from, TcpipUI& ui) : InNoPool(pool, from, ui) {}
    using GUIController::sendStatus;
    // Looks at this time whether it stands still; true while it may go on.
    bool goesOn(u32 now) {
        checkStall(now);
        return !isClosing();
    }
};

struct Wrapped : ToldEvents {
    void downloadRemoved(Download* download) override {
        if (leaving) leaving();
        ToldEvents::downloadRemoved(download);
    }
    std::function<void()> leaving;
};

std::string logon(const std::string& name = "kit", const std::string& password = "kitpass") {
    return opcode(100, text16(name) + text16(password));
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
    u8 from = 1;  // each from an address of its own, so that none is taken for a guesser
    const auto refused = [&](const std::string& body) {
        TestController& guest = caller(addressOf(from++));
        return !guest.hear(body) && guest.sent().empty();
    };
    for (const std::string& bad :
         {logon("kit", "Kitpass"), logon("Kit"), logon("", ""), opcode(225),
          opcode(100, text16("kit") + le16(7) + "kit"), logon() + std::string(70'000, 'x')}) {
        EXPECT_TRUE(refused(bad));
    }
    // Empty ones count on this machine only.
    for (const char* name : {"", "kit"}) {
        preferences.setAdmin(name, "");
        EXPECT_TRUE(refused(logon(name, "")));
        TestController& local = caller(0x0200007F);
        EXPECT_TRUE(local.hear(logon(name, "")));
        local.end();  // for the next one: there is one at a time
    }
}

TEST(LogonGuard, HoldsAnAddressAtFiveRefusalsInAnyMinute) {
    LogonGuard guard;
    const u32 start = 0xFFFFFFFF - 30'000;  // the clock wraps within the minute
    for (const u32 at : {0U, 50'000U, 55'000U, 58'000U}) guard.refused(1, start + at);
    EXPECT_FALSE(guard.isBlocked(1, start + 59'000));
    guard.refused(1, start + 59'000);
    EXPECT_TRUE(guard.isBlocked(1, start + 59'999));
    EXPECT_FALSE(guard.isBlocked(2, start + 59'999));
    EXPECT_FALSE(guard.isBlocked(1, start + 60'000));
    guard.refused(1, start + 61'000);
    EXPECT_TRUE(guard.isBlocked(1, start + 109'999));
    EXPECT_FALSE(guard.isBlocked(1, start + 110'000));
    // Ever new addresses don't buy one that is held its way out.
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
    // Logged on, it may be silent, but not within a message.
    u32 now = 200'000;
    EXPECT_TRUE(first.goesOn(now));
    for (const char byte : framed(opcode(102)).substr(0, 5)) {
        first.hearRaw({byte});
        EXPECT_TRUE(first.goesOn(now += 100'000)) << "it comes slowly, but it comes";
    }
    EXPECT_TRUE(first.goesOn(now + 120'000));
    EXPECT_FALSE(first.goesOn(now + 120'001));
}

TEST_F(Remote, EventsGoToTheControllerOrToTheWrappedOne) {
    UploadSlot slot(engine.peerNeeds, uploadPool, 1, User(5));
    const auto all = [&] {
        ui->print("%d", 7);
        ui->connected("index");
        ui->serverStats(3, 0x102);
        ui->extending("other");
        ui->addResult(namedFile(1, "a").release());
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
        ElementsAre(opcode(181, text16("7")), opcode(182, text16("index")),
                    opcode(184, le32(3) + le32(0x102)), opcode(185, text16("other")),
                    opcode(186, fileBytes(1, "a")), opcode(187, le32(1) + fileBytes(2, "b") + "\1"),
                    opcode(192, le32(slot.identity()) + text16("ann")), opcode(193, le32(slot.identity())),
                    opcode(195, text16("c")), opcode(171), opcode(194, le32(0)), opcode(183)));
    // The whole list took the place of the single result; others come behind it, but not without end.
    EXPECT_FALSE(ui->findResult(hashOf(1)));
    EXPECT_TRUE(ui->findResult(hashOf(2)));
    for (int i = 0; i < 10'100; ++i) ui->addResult(namedFile(3, "").release());
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
        EXPECT_THAT(to.sent(), ElementsAre(opcode(180, text16(cut))));
        EXPECT_EQ(inner.take(), cut + "\n");
    }
    // What a command says goes the same way.
    EXPECT_TRUE(to.hear(opcode(102, text16("nonsense"))));
    const std::string line = "Unrecognized command. type ? for help\n";
    EXPECT_THAT(to.sent(), ElementsAre(opcode(180, text16(line))));
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
    to.hear(opcode(219));
    to.sendStatus();
    EXPECT_THAT(to.sent(), ElementsAre(opcode(198, le16(1) + le16(0) + le32(0x3FC00000))));
    to.hear(opcode(220));
    to.sendStatus();
    for (int time = 0; time < 2; ++time) ui->uploadRemoved(before.get());
    EXPECT_THAT(to.sent(), ElementsAre(opcode(191, bytesOf(hashOf(7)))));
}

TEST_F(Remote, DownloadsAreSteeredByTheirHash) {
    TestController& to = controller();
    const std::string hash = bytesOf(hashOf(9));
    const Ref<Download> download = startDownload(hashOf(9), "some.bin", 30'000'000);
    ASSERT_TRUE(download);
    const Bodies added = to.sent();
    ASSERT_GE(added.size(), 2U);
    EXPECT_EQ(added[1].substr(0, 17) + added[1].back(), opcode(188, hash) + "\1");

    EXPECT_TRUE(to.hear(opcode(208, hash)));
    EXPECT_TRUE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(209, hash)));
    EXPECT_FALSE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(211, hash + "\2")));
    EXPECT_TRUE(to.hear(opcode(211, hash + "\3")));
    EXPECT_EQ(download->priority, 2);
    EXPECT_TRUE(to.hear(opcode(210, bytesOf(hashOf(8)))));
    to.sent();

    download->speed = 2.0F;
    EXPECT_TRUE(to.hear(opcode(217)));
    to.sendStatus();
    const std::string state = le8(static_cast<u8>(download->getStatus()));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(197, le16(1) + le16(0) + state + le32(0x40000000) + le32(0) +
                                                       le8(0) + le8(download->progress().count()))));
    EXPECT_TRUE(to.hear(opcode(218)));

    EXPECT_TRUE(to.hear(opcode(210, hash)));
    EXPECT_FALSE(to.hear(opcode(211, hash)));
    to.end();
    // One that logs on at this very moment still finds the download in the list.
    TestController& late = caller();
    inner.leaving = [&] { EXPECT_TRUE(late.hear(logon())); };
    while (messageQ.process()) continue;
    const Bodies heard = late.sent();
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_EQ(heard[0].substr(0, 17), opcode(188, hash));
    EXPECT_EQ(heard[1], opcode(189, hash));
}

TEST_F(Remote, AnswersHaveTheirBytes) {
    TestController& to = controller();
    const auto answer = [&](u32 number) {
        EXPECT_TRUE(to.hear(opcode(number)));
        const Bodies sent = to.sent();
        return sent.size() == 1 ? sent[0] : std::to_string(sent.size()) + " answers";
    };
    EXPECT_EQ(answer(214), opcode(171, le32(0)));
    EXPECT_EQ(answer(215), opcode(172, le16(0)));
    clientApp.shared.add(namedFile(3, "x.bin").release());
    EXPECT_EQ(answer(224), opcode(173, le32(1) + fileBytes(3, "x.bin")));
    clientApp.shared.deleteAll();

    const std::string address = le32(addressOf(4)) + le16(4661);
    EXPECT_TRUE(to.hear(opcode(222, address)));
    for (const char* preference : {"\2", "\3"}) EXPECT_TRUE(to.hear(opcode(223, address + preference)));
    EXPECT_TRUE(to.hear(opcode(223, le32(1) + le16(1) + "\1")));
    EXPECT_EQ(serverPool.servers().get(0)->pref, 2U);
    EXPECT_EQ(answer(213).substr(0, 27), opcode(170, le32(1) + std::string(16, '\0') + address));
    EXPECT_TRUE(to.hear(opcode(221, address)));
    EXPECT_EQ(answer(213), opcode(170, le32(0)));
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
    EXPECT_EQ(answer(225), opcode(199, le16(59) + le32(0x40000000) + le32(0x3FC00000) + le16(0x1236) +
                                           le16(45) + text16("kit") + text16(preferences.tempDir().c_str()) +
                                           text16(preferences.incomingDir().c_str()) +
                                           std::string("\1\0\2\1\0", 5) + le16(0x1237) + le32(45)));
}

TEST_F(Remote, WhatIsOddIsPassedOverAndWhatIsShortEndsTheConnection) {
    TestController& to = controller();
    std::string deep(600'000, '\0');
    for (const std::string& odd :
         {opcode(255, deep), logon(), opcode(216, le16(9) + "anything"), opcode(226, "short"),
          opcode(207, bytesOf(hashOf(77))), opcode(202, deep)}) {
        EXPECT_TRUE(to.hear(odd)) << odd.size();
    }
    EXPECT_THAT(to.sent(), IsEmpty());
    to.end();
    for (const std::string& bad : {opcode(102, le16(500) + "vd"), opcode(208, "short"),
                                   opcode(223, le32(1) + le16(1)), opcode(212, std::string(1 << 20, 'x'))}) {
        TestController& next = controller();
        EXPECT_FALSE(next.hear(bad)) << bad.size();
        next.end();
    }
}

}  // namespace

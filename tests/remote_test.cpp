// The remote controller's protocol, byte for byte, and which events go where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/StringTable.h"
#include "console/ConClientApp.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
#include "remote/GUIController.h"
#include "remote/LogonGuard.h"
#include "remote/TcpipUI.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "tests/support/Engine.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bodies = std::vector<std::string>;

// A file on the wire: a hash of `fill`, no address, its name.
std::string fileBytes(u8 fill, const std::string& name) {
    return bytesOf(hashOf(fill)) + le32(0) + le16(0) + le32(1) + "\2" + text16("\1") + text16(name);
}

std::unique_ptr<FileMeta> makeFile(u8 fill, const std::string& name) {
    auto file = std::make_unique<FileMeta>();
    file->hash = hashOf(fill);
    file->setName(name.c_str());
    return file;
}

// Writes down what reaches the wrapped interface.
class Recorder : public CoreUIInterface {
  public:
    void printLine(const char* format, ...) override PRINTF_LIKE {
        char text[1000];
        va_list list;
        va_start(list, format);
        std::vsnprintf(text, sizeof text, format, list);
        va_end(list);
        heard.push_back(std::string("line ") + text);
    }
    void print(const char*, ...) override PRINTF_LIKE { heard.push_back("print"); }
    void printVerbose(const char*, ...) override PRINTF_LIKE { heard.push_back("verbose"); }
    void printFlush(const char*, ...) override PRINTF_LIKE { heard.push_back("flush"); }
    void connected(const char*) override { heard.push_back("connected"); }
    void disconnected() override { heard.push_back("disconnected"); }
    void serverStats(u32, u32) override { heard.push_back("stats"); }
    void extending(const char*) override { heard.push_back("extending"); }
    void addResult(FileMeta* file) override {
        delete file;
        heard.push_back("result");
    }
    void setResults(FileList* list, u8) override {
        list->deleteAll();
        delete list;
        heard.push_back("results");
    }
    void gotUserList(UserList* list) override {
        CoreUIInterface::gotUserList(list);
        heard.push_back("users");
    }
    void downloadAdded(Download* download) override {
        downloads.addUnsafe(download);
        heard.push_back("download");
    }
    void downloadRemoved(Download* download) override {
        downloads.removeUnsafe(download);
        heard.push_back("download gone");
    }
    void uploadAdded(Upload* upload) override {
        uploads.addUnsafe(upload);
        heard.push_back("upload");
    }
    void uploadRemoved(Upload* upload) override {
        uploads.removeUnsafe(upload);
        heard.push_back("upload gone");
    }
    void slotAdded(UploadSlot*, const char*) override { heard.push_back("slot"); }
    void slotRemoved(UploadSlot*) override { heard.push_back("slot gone"); }
    void hashing(const char*) override { heard.push_back("hashing"); }
    void friendsChanged() override { heard.push_back("friends"); }
    void friendFiles() override { heard.push_back("friend files"); }
    void callMessage(Call*, const char*) override { heard.push_back("call"); }
    void callOpened(Call*) override { heard.push_back("call"); }
    LLsafe<Upload>* getUploads() override { return &uploads; }
    LLsafe<Download>* getDownloads() override { return &downloads; }

    Bodies take() { return std::exchange(heard, {}); }

    Bodies heard;
    LLsafe<Download> downloads{LockRank::uiList};
    LLsafe<Upload> uploads{LockRank::uiList};
};

// A real GUIController in no pool.
class TestController : public GUIController {
  public:
    TestController(u32 from, TcpipUI& ui) : TestController(new AddressedSocket(from), ui) {}

    // True while the connection lives.
    bool hear(const std::string& body) {
        scripted_->pieces.push_back(framed(body));
        while (!scripted_->pieces.empty() && !isBusy()) {
            lastEvents_ = I4_SELECT_READ;
            setBusy(true);
            doTask(&clientApp.socketPool);
            if (isClosing()) return false;
        }
        return !isBusy();
    }
    std::size_t unread() const { return scripted_->pieces.size(); }
    Bodies sent() {
        Bodies bodies;
        while (const std::unique_ptr<Packet> packet = takeFirstToSend()) {
            bodies.emplace_back(reinterpret_cast<const char*>(packet->stream.buffer()), packet->size);
        }
        return bodies;
    }
    bool wasAskedToClose() const { return isClosing(); }

  private:
    TestController(AddressedSocket* socket, TcpipUI& ui)
        : GUIController(std::unique_ptr<i4_socket>(socket), nullptr, ui), scripted_(socket) {}

    AddressedSocket* const scripted_;
};

class Remote : public Engine {
  protected:
    Remote() {
        preferences.adminDoorPort = 0;
        preferences.setAdmin("kit", "kitpass");
        ui = std::make_unique<TcpipUI>(inner);
        theLog = ui.get();
        theUI = ui.get();
    }
    ~Remote() override {
        for (const Ref<TestController>& controller : controllers) controller->end();
        controllers.clear();
        theLog = &log;
        theUI = &log;
        clientApp.socketPool.deleteConnections();
        serverPool.servers().deleteAll();
    }

    TestController& caller(u32 from = loopbackIp) {
        controllers.emplace_back(new TestController(from, *ui));
        return *controllers.back();
    }
    static std::string logon(const std::string& name = "kit", const std::string& password = "kitpass") {
        return opcode(100, text16(name) + text16(password));
    }
    TestController& controller() {
        TestController& result = caller();
        EXPECT_TRUE(result.hear(logon()));
        result.sent();
        inner.take();
        return result;
    }

    Recorder inner;
    std::unique_ptr<TcpipUI> ui;
    std::vector<Ref<TestController>> controllers;
};

TEST_F(Remote, OnlyAGoodLogOnIsLetIn) {
    // Each from an address of its own, so that none is taken for a guesser.
    u8 host = 1;
    const auto refused = [&](const std::string& body) {
        TestController& guest = caller(addressOf(host++));
        return !guest.hear(body) && guest.sent().empty();
    };
    EXPECT_TRUE(refused(logon("kit", "Kitpass")));
    EXPECT_TRUE(refused(logon("Kit", "kitpass")));
    EXPECT_TRUE(refused(logon("", "")));
    EXPECT_THAT(inner.take(), ElementsAre("line Invalid name and pass", "line Invalid name and pass",
                                          "line Invalid name and pass"));
    EXPECT_TRUE(refused(opcode(225)));
    EXPECT_TRUE(refused(opcode(100)));
    EXPECT_TRUE(refused(opcode(100, text16("kit") + le16(7) + "kit")));
    EXPECT_TRUE(refused(std::string(70'000, 'x')));

    TestController& first = caller(addressOf(host++));
    EXPECT_TRUE(first.hear(logon()));
    inner.take();
    EXPECT_TRUE(refused(logon()));
    EXPECT_THAT(inner.take(), ElementsAre("line Another Control attempt"));
    EXPECT_TRUE(first.hear(opcode(212)));
    first.end();
    EXPECT_FALSE(refused(logon()));
}

TEST_F(Remote, EmptyCredentialsCountOnlyOnThisMachine) {
    preferences.setAdmin("", "");
    EXPECT_FALSE(caller(addressOf(31)).hear(logon("", "")));
    preferences.setAdmin("kit", "");
    EXPECT_FALSE(caller(addressOf(32)).hear(logon("kit", "")));
    EXPECT_TRUE(caller(0x0200007F).hear(logon("kit", "")));
}

TEST_F(Remote, AGuesserIsDroppedUnread) {
    const u32 from = addressOf(33);
    TestController& early = caller(from);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(caller(from).hear(logon("kit", "guess")));
    TestController& late = caller(from);
    EXPECT_FALSE(late.hear(logon()));
    EXPECT_EQ(late.unread(), 1U);
    EXPECT_FALSE(early.hear(logon()));
    EXPECT_TRUE(caller(addressOf(34)).hear(logon()));
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

TEST_F(Remote, EventsGoToTheControllerOrToTheWrappedOne) {
    UploadSlot slot{User(5)};
    const auto all = [&] {
        ui->print("%d", 7);
        ui->connected("index");
        ui->serverStats(3, 0x102);
        ui->extending("other");
        ui->addResult(makeFile(1, "a").release());
        auto list = std::make_unique<FileList>();
        list->add(makeFile(2, "b").release());
        ui->setResults(list.release(), 1);
        ui->slotAdded(&slot, "ann");
        ui->slotRemoved(&slot);
        ui->hashing("c");
        ui->friendsChanged();
        ui->friendFiles();
        ui->disconnected();
    };
    all();
    EXPECT_THAT(inner.take(),
                ElementsAre("print", "connected", "stats", "extending", "result", "results", "slot",
                            "slot gone", "hashing", "friends", "friend files", "disconnected"));
    TestController& to = controller();
    all();
    EXPECT_THAT(inner.take(), IsEmpty());
    EXPECT_THAT(
        to.sent(),
        ElementsAre(opcode(181, text16("7")), opcode(182, text16("index")),
                    opcode(184, le32(3) + le32(0x102)), opcode(185, text16("other")),
                    opcode(186, fileBytes(1, "a")), opcode(187, le32(1) + fileBytes(2, "b") + "\1"),
                    opcode(192, le32(slot.identity()) + text16("ann")), opcode(193, le32(slot.identity())),
                    opcode(195, text16("c")), opcode(171), opcode(194, le32(0)), opcode(183)));
    // The whole list took the place of the single result.
    EXPECT_FALSE(ui->findResult(hashOf(1)));
    EXPECT_TRUE(ui->findResult(hashOf(2)));

    // What always passes, and what is never passed.
    ui->printVerbose("%d", 1);
    ui->printFlush("%d", 1);
    ui->callOpened(nullptr);
    ui->callMessage(nullptr, "x");
    ui->gotUserList(new UserList);
    EXPECT_THAT(inner.take(), ElementsAre("verbose", "flush"));
    EXPECT_THAT(to.sent(), IsEmpty());

    to.end();
    ui->hashing("c");
    EXPECT_THAT(inner.take(), ElementsAre("hashing"));
    EXPECT_THAT(to.sent(), IsEmpty());
}

TEST_F(Remote, LinesGoToBothAndAreCutAt255Bytes) {
    TestController& to = controller();
    const auto cut = [&](const std::string& text) {
        ui->printLine("%s", text.c_str());
        const Bodies sent = to.sent();
        EXPECT_EQ(sent.size(), 1U);
        EXPECT_THAT(inner.take(), ElementsAre("line " + sent.at(0).substr(3)));
        EXPECT_EQ(sent[0], opcode(180, text16(sent[0].substr(3))));
        return sent[0].substr(3);
    };
    const std::string euro = "\xE2\x82\xAC";
    EXPECT_EQ(cut("100% %s"), "100% %s");
    EXPECT_EQ(cut(std::string(5000, 'x')), std::string(255, 'x'));
    EXPECT_EQ(cut(std::string(252, 'x') + euro + "tail"), std::string(252, 'x') + euro);
    EXPECT_EQ(cut(std::string(253, 'x') + euro + "tail"), std::string(253, 'x'));
    EXPECT_EQ(cut(std::string(300, '\x80')).size(), 255U);
}

TEST_F(Remote, UploadsAreToldOfOnceAndTheirEndOnlyToWhoKnowsThem) {
    peer(7, "ann");
    const Ref<Upload> before(new Upload(nullptr, *made[0], "early", hashOf(1)));
    const Ref<Upload> nameless(new Upload(nullptr, *made[0], nullptr, hashOf(2)));
    ui->uploadAdded(before.get());
    TestController& to = caller();
    ASSERT_TRUE(to.hear(logon()));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(190, text16("early") + identity(7, "ann").substr(0, 35))));
    inner.take();
    ui->uploadAdded(nameless.get());
    ui->uploadRemoved(nameless.get());
    EXPECT_THAT(inner.take(), ElementsAre("upload", "upload gone"));
    EXPECT_THAT(to.sent(), IsEmpty());
    before->speed = 1.5F;
    to.hear(opcode(219));
    to.sendStatus();
    EXPECT_THAT(to.sent(), ElementsAre(opcode(198, le16(1) + le16(0) + le32(0x3FC00000))));
    to.hear(opcode(220));
    to.sendStatus();
    EXPECT_THAT(to.sent(), IsEmpty());
    ui->uploadRemoved(before.get());
    EXPECT_THAT(inner.take(), ElementsAre("upload gone"));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(191, bytesOf(hashOf(7)))));
    ui->uploadRemoved(before.get());
    EXPECT_THAT(to.sent(), IsEmpty());
}

TEST_F(Remote, DownloadsAreSteeredByTheirHash) {
    TestController& to = controller();
    const std::string hash = bytesOf(hashOf(9));
    const Ref<Download> download = startDownload(hashOf(9), "some.bin", 30'000'000);
    ASSERT_TRUE(download);
    to.sent();
    ui->downloadAdded(download.get());
    const Bodies added = to.sent();
    ASSERT_EQ(added.size(), 1U);
    EXPECT_EQ(added[0].substr(0, 17), opcode(188, hash));
    EXPECT_EQ(added[0].back(), 1);

    EXPECT_TRUE(to.hear(opcode(208, hash)));
    EXPECT_TRUE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(209, hash)));
    EXPECT_FALSE(download->isPaused());
    EXPECT_TRUE(to.hear(opcode(211, hash + "\2")));
    EXPECT_EQ(download->priority, 2);
    EXPECT_TRUE(to.hear(opcode(211, hash + "\3")));
    EXPECT_EQ(download->priority, 2);
    EXPECT_TRUE(to.hear(opcode(210, bytesOf(hashOf(8)))));
    to.sent();

    download->speed = 2.0F;
    EXPECT_TRUE(to.hear(opcode(217)));
    to.sendStatus();
    const Bodies status = to.sent();
    ASSERT_EQ(status.size(), 1U);
    ASSERT_EQ(status[0].size(), 1U + 2 + 13 * inner.downloads.countUnsafe());
    const std::string first = status[0].substr(3, 13);
    EXPECT_EQ(first.substr(0, 2), le16(0));
    EXPECT_EQ(static_cast<u8>(first[2]), download->getStatus());
    EXPECT_EQ(first.substr(3, 8), le32(0x40000000) + le32(0));
    EXPECT_EQ(first.substr(11, 1), std::string(1, '\0'));
    EXPECT_TRUE(to.hear(opcode(218)));

    ui->downloadRemoved(download.get());
    EXPECT_THAT(to.sent(), ElementsAre(opcode(189, hash)));
    EXPECT_FALSE(to.hear(opcode(211, hash)));
}

TEST_F(Remote, AnswersHaveTheirBytes) {
    TestController& to = controller();
    const auto answer = [&](u32 number) {
        EXPECT_TRUE(to.hear(opcode(number)));
        const Bodies sent = to.sent();
        return sent.size() == 1 ? sent[0] : std::to_string(sent.size()) + " answers";
    };
    EXPECT_EQ(answer(213), opcode(170, le32(0)));
    EXPECT_EQ(answer(214), opcode(171, le32(0)));
    EXPECT_EQ(answer(215), opcode(172, le16(0)));
    EXPECT_EQ(answer(224), opcode(173, le32(0)));
    shareFile(hashOf(3), "x.bin", "x");
    EXPECT_EQ(answer(224).substr(0, 21), opcode(173, le32(1) + bytesOf(hashOf(3))));

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

TEST_F(Remote, ServersAreAddedRatedAndRemoved) {
    TestController& to = controller();
    const std::string server = le32(addressOf(4)) + le16(4661);
    EXPECT_TRUE(to.hear(opcode(222, server)));
    EXPECT_TRUE(to.hear(opcode(223, server + "\2")));
    EXPECT_TRUE(to.hear(opcode(223, server + "\3")));
    EXPECT_TRUE(to.hear(opcode(223, le32(1) + le16(1) + "\1")));
    {
        const i4_guard guard(serverPool.servers());
        const ServerMeta* entry = serverPool.servers().find(addressOf(4), 4661);
        ASSERT_TRUE(entry);
        EXPECT_EQ(entry->pref, 2U);
    }
    EXPECT_TRUE(to.hear(opcode(221, server)));
    EXPECT_TRUE(to.hear(opcode(213)));
    EXPECT_THAT(to.sent(), ElementsAre(opcode(170, le32(0))));
    EXPECT_FALSE(to.hear(opcode(222, "\1\2\3")));
}

TEST_F(Remote, WhatIsOddIsPassedOverAndWhatIsShortEndsTheConnection) {
    TestController& to = controller();
    EXPECT_TRUE(to.hear(opcode(99)));
    EXPECT_TRUE(to.hear(opcode(255, std::string(1000, 'x'))));
    EXPECT_TRUE(to.hear(opcode(100, text16("kit") + text16("kitpass"))));
    EXPECT_TRUE(to.hear(opcode(216, le16(9) + "anything")));
    EXPECT_TRUE(to.hear(opcode(226, "short")));
    EXPECT_TRUE(to.hear(opcode(207, bytesOf(hashOf(77)))));
    EXPECT_TRUE(to.hear(opcode(202)));
    EXPECT_TRUE(to.hear(opcode(203)));
    std::string deep;
    for (int i = 0; i < 300'000; ++i) deep += std::string("\0\0", 2);
    EXPECT_TRUE(to.hear(opcode(202, deep)));
    EXPECT_TRUE(to.hear(opcode(205, "\1" + text16("word"))));
    EXPECT_THAT(to.sent(), IsEmpty());
    EXPECT_FALSE(to.hear(opcode(102, le16(500) + "vd")));
}

TEST_F(Remote, OneThatNeverReadsIsLetGo) {
    TestController& to = controller();
    const std::string text(60'000, 'x');
    int events = 0;
    while (!to.wasAskedToClose() && events < 1000) {
        ui->hashing(text.c_str());
        ++events;
    }
    EXPECT_LT(events, 300);
    // Longer than a string can be.
    ui->hashing(std::string(100'000, 'x').c_str());
    to.end();
    ui->hashing("c");
    EXPECT_THAT(inner.take(), ElementsAre("hashing"));
}

TEST_F(Remote, ACommandsTextGoesToTheController) {
    TestController& to = controller();
    EXPECT_TRUE(to.hear(opcode(102, text16("nonsense"))));
    const std::string line = "Unrecognized command. type ? for help\n";
    EXPECT_THAT(to.sent(), ElementsAre(opcode(180, text16(line))));
    EXPECT_THAT(inner.take(), ElementsAre("line " + line));
}

}  // namespace

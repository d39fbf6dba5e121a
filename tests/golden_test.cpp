// The program's files and output, byte by byte. A test saves every file that the program keeps and prints
// every view, and compares the result with the files in tests/golden. TARNWICK_GOLDEN=write writes those
// files again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "download/Collection.h"
#include "download/HashThread.h"
#include "download/PartialList.h"
#include "download/ShareList.h"
#include "engine/ClientApp.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "server/ServerPool.h"
#include "tests/support/Screen.h"
#include "tests/support/systemDisk.h"

namespace {

const std::filesystem::path golden = TARNWICK_SOURCE_DIR "/tests/golden";

// File names are relative, so that the bytes don't depend on the directory.
class Golden : public testing::Test, protected OwnScreen {
  protected:
    Golden() : OwnScreen(Screen::Names::relative) {}
    void fillLists() {
        for (const u8 n : {u8{1}, u8{2}}) {
            auto file = makeFile("known " + std::to_string(n), n * PARTSIZE, n);
            file->date = 1'000'000'000U + n;
            file->partHashes = {hashOf(0x10), hashOf(0x20), hashOf(0x30)};
            file->partHashes.resize(n + 1U);
            file->setText(TAG_TYPE, "Audio");
            if (n == 2) file->setInt("odd", 7);
            clientApp.shared.add(file.get());
            clientApp.known.add(file.release());
        }
        UserMeta user;
        user.id = 0x220200C0;
        user.port = 4662;
        user.hash = hashOf(9);
        user.setName("friend");
        friendList.addFriend(user);
        serverPool.addServer(0x220200C0, 4661);
        ServerMeta server;
        server.setAddress("192.0.2.35", 5000);
        server.setName("Second");
        serverPool.gotServerInfo(server);
        clientApp.shareDirs().setDirs({"music", "odd, \"name\" "});
    }
    void startDownloads() {
        auto file = makeFile("big", 3 * PARTSIZE + 5, 0x77);
        file->setText(TAG_FORMAT, "avi");
        dlPool.add(*file);
        const Ref<Download> download = dlPool.find(file->hash);
        download->partial().removeGap(100, 200);
        download->partial().removeGap(PARTSIZE, 2 * PARTSIZE);
        download->priority = 2;
        dlPool.add(*makeFile("small", 1047, 0x78));
        dlPool.find(hashOf(0x78))->pause();
    }
    void saveAll() {
        for (const char* setting : {"name kit", "dumax 20 8", "line 300", "mcon 50", "port 5001",
                                    "aport 5002", "pass kit kitpass", "auto", "save -", "asr -"}) {
            screen_.console.dispatch(setting);
        }
        i4_owned_ram_file record;  // with the name that the command set, and a fixed hash
        preferences.toDisk(record);
        for (u32 i = 0; i < 16; ++i) record.buffer()[6 + i] = 5;
        record.seek(0);
        preferences.fromDisk(record);
        preferences.save();
        screen_.engine.stateFiles.save(friendList, preferences.friendPath.c_str());
        screen_.engine.stateFiles.save(clientApp.known, preferences.knownPath.c_str());
        screen_.engine.stateFiles.save(serverPool.servers(), preferences.serverPath.c_str());
        clientApp.shareDirs().save();
        dlPool.tick(300'000);
        Collection collection(screen_.engine.core);
        collection.add(makeFile("member", 3, 9).release());
        collection.self.setName("list");
        EXPECT_EQ(collection.save(systemDisk(), "list.collection"), "");
    }
    void compare(const std::string& name, const std::string& content) {
        const char* mode = std::getenv("TARNWICK_GOLDEN");
        if (mode && std::string(mode) == "write") writeFile(golden / name, content);
        EXPECT_EQ(contentOf(golden / name), content) << name;
    }
    std::string session(std::initializer_list<const char*> lines) {
        std::string text;
        for (const char* line : lines) text += "> " + std::string(line) + "\n" + screen_.answer(line);
        return text;
    }
};

TEST_F(Golden, FilesAndViews) {
    fillLists();
    startDownloads();
    saveAll();
    for (const char* name : {"pref.met", "known.met", "server.met", "friend.met", "share.dat",
                             "temp/1.part.met", "temp/2.part.met", "list.collection"}) {
        compare(std::filesystem::path(name).filename(), contentOf(name));
    }

    const Ref<Peer> peer(new Peer(clientApp.socketPool, screen_.engine.peerNeeds, 0x220200C0, 4662));
    peers.add(peer.get());
    uploadPool.gotSlotRequest(*peer);
    screen_.showResults(
        {makeFile("result", 3000, 1).release(), makeFile("other", 4'000'000'000U, 2).release()});
    compare("views.txt",
            session({"vr", "vf", "vd", "vu", "vq", "vp", "vm", "vo", "vs", "g", "?", "nonsense"}));
    peers.remove(peer.get());
}

}  // namespace

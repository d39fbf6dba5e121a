// Downloads for a test: the engine's own objects without their threads, in a directory of their own, and
// files to fetch.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/DLPool.h"
#include "download/PartialList.h"
#include "meta/FileMeta.h"
#include "peer/Peer.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"

// A file on the network: what it holds, and the record by which it is found.
struct RemoteFile {
    RemoteFile(const std::string& name, u32 size, u32 seed = 1) : bytes(size, '\0') {
        std::mt19937 random(seed);
        for (char& c : bytes) c = static_cast<char>(random());
        i4_ram_file_class stream(bytes.data(), size, 0);
        for (u64 start = 0; start <= size; start += PARTSIZE) {
            parts.emplace_back();
            const u64 end = std::min<u64>(size, start + PARTSIZE);
            EXPECT_TRUE(
                MD4Hash::compute(parts.back(), stream, static_cast<u32>(start), static_cast<u32>(end)));
        }
        record.hash = parts.size() == 1 ? parts[0] : MD4Hash::ofParts(parts);
        record.setName(name.c_str());
        record.setInt(TAG_SIZE, size);
    }
    u32 size() const { return static_cast<u32>(bytes.size()); }
    // Cut into pieces of at most that many bytes, ascending.
    std::vector<Gap> pieces(u32 length) const {
        std::vector<Gap> result;
        for (i64 at = 0; at < size(); at += length)
            result.push_back({at, std::min<i64>(size(), at + length)});
        return result;
    }

    std::string bytes;
    FileMeta record;
    std::vector<MD4Hash> parts;
};

// A packet's data as a peer sends it, behind opcode and hash.
class DataPacket : public i4_owned_ram_file {
  public:
    DataPacket(u32 start, u32 end, const std::string& bytes) {
        write_32(start);
        write_32(end);
        write(bytes.data(), static_cast<u32>(bytes.size()));
        setUsed(tell());
        seek(0);
    }
};

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
inline bool exists(const std::string& path) { return std::ifstream(path).good(); }

// Its console: the text, and the names of the downloads that came and went.
class DownloadLog : public CapturedLog {
  public:
    void downloadAdded(Download* download) override { events += "+" + name(*download); }
    void downloadRemoved(Download* download) override { events += "-" + name(*download); }
    std::string takeEvents() { return std::exchange(events, {}); }

  private:
    static std::string name(const Download& download) { return download.getName().c_str(); }
    std::string events;
};

class Downloads : public testing::Test {
  protected:
    Downloads() {
        preferences.workDir = directory.path().c_str();
        preferences.load();
        preferences.setIncoming(incoming("").c_str());
        preferences.setTemp(temp("").c_str());
        std::filesystem::create_directory(temp(""));
        preferences.saveCor = 1;
        preferences.userMaxDownF = 0;
        preferences.curDownSpeed = 0;
        preferences.maxDownSpeed = 5.0F;
        dlPool.tick(500);
    }
    ~Downloads() override {
        handleMessages();
        dlPool.stopAll();
        clientApp.partials().deleteAll();
        clientApp.shared.clear();
        clientApp.known.deleteAll();
        handleMessages();
    }

    std::string temp(const std::string& name) const {
        return directory.file("temp" + (name.empty() ? "" : "/" + name));
    }
    std::string incoming(const std::string& name) const {
        return directory.file("incoming" + (name.empty() ? "" : "/" + name));
    }
    // How many there were.
    static int handleMessages() {
        int count = 0;
        while (messageQ.process()) ++count;
        return count;
    }
    // A download in the pool, in DLS_Downloading unless it isn't to start.
    static Ref<Download> add(const RemoteFile& file, bool start = true) {
        dlPool.add(file.record);
        Ref<Download> download = dlPool.find(file.record.hash);
        dlPool.tick(500);
        if (start && download) download->tick(1);
        return download;
    }
    void give(Download& download, const RemoteFile& file, i64 start, i64 end) {
        DataPacket packet(
            static_cast<u32>(start), static_cast<u32>(end),
            file.bytes.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
        download.gotData(packet, *nobody);
    }
    void give(Download& download, const RemoteFile& file) {
        for (const Gap& piece : file.pieces(PARTSIZE)) give(download, file, piece.start, piece.end);
    }
    void giveWrong(Download& download, i64 start, i64 end) {
        DataPacket packet(static_cast<u32>(start), static_cast<u32>(end),
                          std::string(static_cast<std::size_t>(end - start), '?'));
        download.gotData(packet, *nobody);
    }
    static void giveHashSet(Download& download, const std::vector<MD4Hash>& parts) {
        i4_owned_ram_file stream;
        FileMeta offered;
        offered.partHashes = parts;
        offered.writePartHashes(stream);
        stream.seek(0);
        download.gotHashSet(stream);
    }
    // A flag for each part: whether it has passed its hash.
    static std::string verified(const Download& download) {
        BoolArray parts;
        download.partial().copyPartsDone(parts);
        return parts.toText();
    }
    // What is missing, in order of the list.
    static std::string gaps(const GapList& list) {
        std::string text;
        for (const Gap& gap : list.gaps()) {
            text += (text.empty() ? "" : " ") + std::to_string(gap.start) + "-" + std::to_string(gap.end);
        }
        return text;
    }
    // Waits until the completer has done its work and the download has left the pool.
    static void waitUntilGone(const Ref<Download>& download) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (dlPool.findByRecord(download->partial().getHash())) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            if (!messageQ.process()) std::this_thread::yield();
        }
        handleMessages();
    }
    // Writes the meta files of all downloads, as every five minutes.
    static void save() { dlPool.tick(300'000); }

    TemporaryDirectory directory;
    DownloadLog log;
    const Ref<Peer> nobody{new Peer(0x0100007F, 9)};
};

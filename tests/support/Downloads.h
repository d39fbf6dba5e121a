// A fixture for downloads: the engine of EngineTest.h, and files to download.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "download/DLS_Downloading.h"
#include "tests/support/EngineTest.h"
#include "tests/support/bytes.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"

// A file on the network: its content and its record.
struct RemoteFile {
    RemoteFile(const std::string& name, u32 size, u32 seed = 1) : bytes(someBytes(size, seed)) {
        BytesFile stream(i4_bytes(bytes));
        for (u64 start = 0; start <= size; start += PARTSIZE) {
            const u64 end = std::min<u64>(size, start + PARTSIZE);
            EXPECT_TRUE(MD4Hash::compute(parts.emplace_back(), stream, static_cast<u32>(start),
                                         static_cast<u32>(end)));
        }
        record.hash = parts.size() == 1 ? parts[0] : MD4Hash::ofParts(parts);
        record.setName(name.c_str());
        record.setInt(TAG_SIZE, size);
    }
    u32 size() const { return static_cast<u32>(bytes.size()); }
    // The file's ranges of at most `length` bytes, in ascending order.
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

// The data of a packet as a peer sends it, after opcode and hash.
class DataPacket : public i4_owned_ram_file {
  public:
    DataPacket(u32 start, u32 end, const std::string& bytes) {
        write_32(start);
        write_32(end);
        write(i4_bytes(bytes));
        setUsed(tell());
        seek(0);
    }
};

// Makes an array from a flag ('0' or '1') for each part.
inline BoolArray partsOf(const std::string& flags) {
    BoolArray array(static_cast<i32>(flags.size()));
    for (std::size_t i = 0; i < flags.size(); ++i) array.set(static_cast<i32>(i), flags[i] == '1');
    return array;
}

// A fixture with an engine, its temp and incoming directory, and functions that play the network.
class Downloads : public EngineTest {
  protected:
    Downloads() {
        log.setVerbose(false);
        preferences.setIncoming(incoming().c_str());
        preferences.setTemp(temp().c_str());
        for (const std::string& path : {temp(), incoming()}) std::filesystem::create_directory(path);
        preferences.saveCor = 1;
        preferences.userMaxDownF = 0;
        preferences.curDownSpeed = 0;
        preferences.maxDownSpeed = 5.0F;
        dlPool.tick(60'000);  // measures the free space
    }

    // The two directories, or a file in them.
    std::string temp(const std::string& name = "") const { return under("temp", name); }
    std::string incoming(const std::string& name = "") const { return under("incoming", name); }
    std::string dataFileOf(const Download& download) const {
        return temp(download.partial().tempFileName().c_str());
    }
    // Returns the number of messages handled.
    int handleMessages() {
        int count = 0;
        while (messageQ.process()) ++count;
        return count;
    }
    // Adds a download to the pool and, if `start`, makes it look for sources.
    Ref<Download> add(const RemoteFile& file, bool start = true) {
        dlPool.add(file.record);
        Ref<Download> download = dlPool.find(file.record.hash);
        dlPool.tick(500);
        if (start && download) download->tick(1);
        return download;
    }
    void giveBytes(Download& download, i64 start, i64 end, const std::string& bytes) {
        DataPacket packet(static_cast<u32>(start), static_cast<u32>(end), bytes);
        packet.seek(8);
        {
            const i4_guard guard(download.stateLock());
            auto* const state = dynamic_cast<DLS_Downloading*>(&download.state());
            if (state) state->take(packet, static_cast<u32>(start), static_cast<u32>(end), noAccount);
        }
        waitForVerifier();
    }
    void waitForVerifier() {
        EXPECT_TRUE(eventually([&] { return engine.verifier.isIdle(); }));
    }
    void give(Download& download, const RemoteFile& file, i64 start, i64 end) {
        giveBytes(download, start, end,
                  file.bytes.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
    }
    void give(Download& download, const RemoteFile& file) {
        for (const Gap& piece : file.pieces(PARTSIZE)) give(download, file, piece.start, piece.end);
    }
    void giveWrong(Download& download, i64 start, i64 end) {
        giveBytes(download, start, end, std::string(static_cast<std::size_t>(end - start), '?'));
    }
    void giveHashSet(Download& download, const std::vector<MD4Hash>& parts) {
        std::string body = le16(parts.size());
        for (const MD4Hash& part : parts) body += bytesOf(part);
        BytesFile stream(i4_bytes(body));
        download.gotHashSet(stream);
        waitForVerifier();
    }
    // A flag for each part: whether its hash was verified.
    std::string verified(const Download& download) {
        BoolArray parts;
        download.partial().copyPartsDone(parts);
        return parts.toText();
    }
    // The missing ranges as text, in the list's order.
    std::string gaps(const GapList& list) {
        std::string text;
        for (const Gap& gap : list.gaps()) {
            text += (text.empty() ? "" : " ") + std::to_string(gap.start) + "-" + std::to_string(gap.end);
        }
        return text;
    }
    // Waits until the completing thread has finished and the download has left the pool.
    void waitUntilGone(const Ref<Download>& download) {
        ASSERT_TRUE(eventually([&] {
            handleMessages();
            return !dlPool.findAny(download->partial().getHash());
        }));
        handleMessages();
    }
    // True if the download completes with these bytes in the incoming directory.
    bool completes(const Ref<Download>& download, const RemoteFile& file) {
        waitUntilGone(download);
        return download->getStatus() == DL_STATUS_COMPLETE &&
               hasBytes(incoming(file.record.getName()), file.bytes);
    }
    // Writes the meta files of all downloads, as happens every five minutes.
    void save() { dlPool.tick(300'000); }
    // Stops all downloads, saves them and loads them again.
    void restart() {
        dlPool.stopAll(clientApp.partials());
        clientApp.partials().saveToDir(temp().c_str());
        load();
    }
    void load() {
        log.take();
        clientApp.partials().loadFromDir(temp().c_str());
        for (const auto& record : clientApp.partials().takeAll()) {
            if (const Ref<Download> download = dlPool.loadDownload(*record)) hashThread.addPartial(download);
        }
    }

  private:
    std::string under(const std::string& folder, const std::string& name) const {
        return directory.file(name.empty() ? folder : folder + "/" + name);
    }
};

// SimDisk: a disk in memory that can simulate power cuts.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "i4min/file/Disk.h"
#include "sim/Simulation.h"

// Raised when the power is cut. No engine catches it.
struct SimPowerCut {};

// A file system of limited size with the root "/". Relative paths start at `workDir`.
// A power cut may lose what wasn't synced: restart() keeps, by the seed, any of the unsynced blocks, and the
// first few of the unsynced changes of names. Syncing a directory saves its names, syncing a file saves its
// bytes.
// Thread: the simulation's. Owns: all files.
class SimDisk final : public Disk {
  public:
    explicit SimDisk(Simulation& simulation, std::string workDir = "/");
    ~SimDisk();

    // Creates a file and its directories, already synced.
    void lay(const std::string& path, const std::string& bytes);
    void lay(const std::string& path, const Synthetic& content);
    std::string read(const std::string& path) const;  // empty if there is no such file
    bool has(const std::string& path) const;
    bool equals(const std::string& path, const Synthetic& content) const;
    std::vector<std::string> names() const;  // of all files

    // The number of calls so far. The functions below make the n-th call fail, counted from 1.
    u64 calls() const { return calls_; }
    void failAt(u64 call, int error);  // the call fails with `error`
    void shortAt(u64 call);            // the call writes only half
    void cutPowerAt(u64 call);         // the power is cut before the call
    void setRoom(u64 bytes) { room_ = bytes; }
    // Cuts the power between two calls: all further calls fail.
    void cutPower() { isOff_ = true; }
    // Restores the power, with what was saved and what chance kept.
    void restart();
    // Bytes written and syncs so far.
    u64 bytesWritten() const { return bytesWritten_; }
    u64 syncs() const { return syncs_; }

    std::unique_ptr<i4_disk_file> open(const char* path, u32 flags) override;
    bool status(const char* path, i4_file_status& out) override;
    bool readLink(const char* path, i4_string& out) override;
    bool list(const char* path, i4_directory_list& out, bool withStatus) override;
    bool makeDirectory(const char* path) override;
    bool remove(const char* path) override;
    bool rename(const char* from, const char* to, Replace replace) override;
    std::unique_ptr<i4_disk_file> openHidden(const char* directory, i4_string& path) override;
    bool syncFolder(const char* path) override;
    u64 freeSpace(const char* path) override;

  private:
    friend class SimFile;
    struct Block;
    struct Content;
    struct Node;
    struct Change;
    using NodePtr = std::shared_ptr<Node>;
    using Names = std::map<std::string, NodePtr>;

    std::string whole(const char* path) const;
    // Counts a call. Returns false and sets errno if it has to fail.
    bool begins();
    NodePtr find(const std::string& path) const;
    bool fails(int error) const;
    void name(const std::string& path, NodePtr node);
    bool recognize(Block& block) const;
    void write(Node& node, u64 at, const u8* bytes, std::size_t length);
    std::size_t read(const Node& node, u64 at, u8* to, std::size_t length) const;
    static void fillStatus(const Node& node, i4_file_status& out);
    void keepSome(Node& node);
    void settle(const Change& change);

    Simulation& simulation_;
    const std::string workDir_;
    Names names_;                  // as programs see them
    Names safe_;                   // as they are on the disk
    std::vector<Change> pending_;  // changes of names that aren't on the disk yet
    std::vector<std::weak_ptr<Node>> dirty_;
    u64 calls_ = 0;
    u64 failCall_ = 0;
    int failError_ = 0;
    u64 shortCall_ = 0;
    u64 cutCall_ = 0;
    bool isOff_ = false;
    u64 room_ = 1ull << 50;
    u64 used_ = 0;
    u64 nextInode_ = 1;
    u64 hidden_ = 0;
    u64 bytesWritten_ = 0;
    u64 syncs_ = 0;
};

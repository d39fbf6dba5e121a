// SimDisk, a disk in memory that knows what is safe from a power cut.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "i4min/file/Disk.h"
#include "sim/Simulation.h"

// Raised at the moment at which the power goes; no engine catches it.
struct SimPowerCut {};

// One file system of a given size, with "/" as its root; a relative path begins at the directory that was
// given.
//
// What was written but not synced may be lost in a power cut: restart() keeps, as the seed will have it, any
// of the blocks, and of the names that were made, changed and removed so many as came first. A directory's
// names are safe once it was synced, a file's bytes once the file was.
// Thread: the simulation's.
class SimDisk final : public Disk {
  public:
    explicit SimDisk(Simulation& simulation, std::string workDir = "/");
    ~SimDisk();

    // Puts a file there, safely, with all directories above it.
    void lay(const std::string& path, const std::string& bytes);
    void lay(const std::string& path, const Synthetic& content);
    std::string read(const std::string& path) const;  // empty where there is no such file
    bool has(const std::string& path) const;
    bool equals(const std::string& path, const Synthetic& content) const;
    std::vector<std::string> names() const;  // of all files

    // How many operations there were. From the n-th on, counted from 1, one of the following may happen to
    // them.
    u64 calls() const { return calls_; }
    void failAt(u64 call, int error);  // that one fails
    void shortAt(u64 call);            // that one writes half
    void cutPowerAt(u64 call);         // before that one the power goes
    void setRoom(u64 bytes) { room_ = bytes; }
    // The power goes between two operations: those that come fail.
    void cutPower() { isOff_ = true; }
    // After a power cut: what is there when the power is back.
    void restart();
    // What was written so far, in bytes, and how often something was synced.
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
    // Counts a call: false, with errno, where it is to fail.
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
    std::vector<Change> pending_;  // of names, not on the disk yet
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

#include "sim/SimDisk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace {

constexpr std::size_t blockSize = Synthetic::block;

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

// 64 KiB of a file: its own bytes, or a block of a synthetic file.
// Shared by the contents that it belongs to.
struct SimDisk::Block {
    std::vector<u8> bytes;  // empty if it is synthetic
    Synthetic source{0, 0};
    u64 index = 0;
    std::size_t written = 0;  // bytes written since it got its own bytes

    void read(std::size_t offset, u8* to, std::size_t count) const {
        if (!bytes.empty()) {
            std::memcpy(to, bytes.data() + offset, count);
            return;
        }
        const std::size_t length = source.read(index * blockSize + offset, to, count);
        std::memset(to + length, 0, count - length);
    }
};

// The content of a file. Up to some block it is that of a synthetic file, which takes no memory; after it,
// each block is stored, or null for zeros.
struct SimDisk::Content {
    u64 size = 0;
    Synthetic whose{0, 0};
    u64 rightUpTo = 0;                           // in blocks
    std::vector<std::shared_ptr<Block>> blocks;  // null below `rightUpTo`

    std::shared_ptr<Block> block(u64 index) const {
        if (index < blocks.size() && blocks[index]) return blocks[index];
        if (index >= rightUpTo) return nullptr;
        auto made = std::make_shared<Block>();
        made->source = whose;
        made->index = index;
        return made;
    }
    // Returns a block for writing. It is copied first if the safe content shares it.
    Block& own(u64 index) {
        if (index >= blocks.size()) blocks.resize(index + 1);
        std::shared_ptr<Block>& place = blocks[index];
        if (place && place.use_count() == 1 && !place->bytes.empty()) return *place;
        const std::shared_ptr<Block> before = block(index);
        keepFrom(index);
        place = std::make_shared<Block>();
        place->bytes.resize(blockSize);
        if (before) before->read(0, place->bytes.data(), blockSize);
        return *place;
    }
    // Stores each synthetic block from `index` on.
    void keepFrom(u64 index) {
        for (u64 i = index; i < rightUpTo; ++i) {
            if (i >= blocks.size()) blocks.resize(i + 1);
            blocks[i] = block(i);
        }
        rightUpTo = std::min(rightUpTo, index);
    }
    // Called when a block was recognised as synthetic.
    void settle(u64 index) {
        const Block& found = *blocks[index];
        if (index != found.index || index != rightUpTo || (index > 0 && whose.seed != found.source.seed))
            return;
        whose = found.source;
        for (; rightUpTo < blocks.size(); ++rightUpTo) {
            const std::shared_ptr<Block>& next = blocks[rightUpTo];
            if (!next || !next->bytes.empty() || next->source.seed != whose.seed || next->index != rightUpTo)
                break;
            blocks[rightUpTo] = nullptr;
        }
    }
};

// A file or a directory.
// Owned by its names, and by the files that are open.
struct SimDisk::Node {
    i4_file_kind kind = i4_file_kind::regular;
    u64 inode = 0;
    u64 modifiedUs = 0;
    u32 fileTime = 0;
    Content now;   // as programs see it
    Content safe;  // as it is on the disk
    bool isDirty = false;
    u32 links = 0;
};

// A name that was set, or removed if `node` is null. A rename also removes `from`.
struct SimDisk::Change {
    std::string path;
    NodePtr node;
    std::string from = "";
};

// An open file: its node and its position.
// Thread: the simulation's. Borrows: the disk.
class SimFile final : public i4_disk_file {
  public:
    SimFile(SimDisk& disk, SimDisk::NodePtr node, u32 flags)
        : disk_(disk), node_(std::move(node)), flags_(flags) {}

    i32 read(std::span<u8> to) override {
        const i64 got = readAt(position_, to);
        position_ += static_cast<u64>(std::max<i64>(got, 0));
        return static_cast<i32>(got);
    }
    i32 write(std::span<const u8> bytes) override {
        if (flags_ & I4_FILE_APPEND) position_ = node_->now.size;
        const i64 done = writeAt(position_, {&bytes, 1});
        position_ += static_cast<u64>(std::max<i64>(done, 0));
        return static_cast<i32>(done);
    }
    u32 seek(u32 offset) override { return static_cast<u32>(position_ = offset); }
    u32 size() override { return static_cast<u32>(node_->now.size); }
    u32 tell() override { return static_cast<u32>(position_); }
    std::optional<u32> bytesLeft() override {
        const u64 left = node_->now.size - std::min(node_->now.size, position_);
        return static_cast<u32>(std::min<u64>(left, 0xFFFFFFFF));
    }
    i64 readAt(u64 at, std::span<u8> to) override {
        if (!disk_.begins()) return -1;
        return static_cast<i64>(disk_.read(*node_, at, to.data(), to.size()));
    }
    i64 writeAt(u64 at, std::span<const i4_piece> pieces) override {
        if (!disk_.begins()) return -1;
        const bool half = disk_.calls_ == disk_.shortCall_;
        i64 done = 0;
        for (const i4_piece& piece : pieces) {
            const u64 end = at + static_cast<u64>(done) + piece.size();
            const u64 grows = end > node_->now.size ? end - node_->now.size : 0;
            const u64 room = disk_.room_ - std::min(disk_.room_, disk_.used_);
            std::size_t length =
                piece.size() -
                static_cast<std::size_t>(grows > room ? std::min<u64>(grows - room, piece.size()) : 0);
            if (half) length /= 2;
            disk_.write(*node_, at + static_cast<u64>(done), piece.data(), length);
            done += static_cast<i64>(length);
            if (length < piece.size()) break;
        }
        if (done == 0 && !pieces.empty() && !pieces[0].empty()) {
            errno = ENOSPC;
            return -1;
        }
        if (!node_->isDirty) {
            node_->isDirty = true;
            disk_.dirty_.push_back(node_);
        }
        return done;
    }
    bool sync() override {
        if (!disk_.begins()) return false;
        node_->safe = node_->now;
        node_->isDirty = false;
        ++disk_.syncs_;
        return true;
    }
    bool status(i4_file_status& out) override {
        if (!disk_.begins()) return false;
        SimDisk::fillStatus(*node_, out);
        return true;
    }
    bool isCached(u64) override { return true; }
    void takeAccessOf(const char*) override {}

  private:
    friend class SimDisk;
    SimDisk& disk_;
    const SimDisk::NodePtr node_;
    const u32 flags_;
    u64 position_ = 0;
};

SimDisk::SimDisk(Simulation& simulation, std::string workDir)
    : simulation_(simulation), workDir_(std::move(workDir)) {
    auto root = std::make_shared<Node>();
    root->kind = i4_file_kind::directory;
    root->inode = nextInode_++;
    names_["/"] = safe_["/"] = root;
    if (workDir_ != "/") lay(workDir_ + "/.", "");
}

SimDisk::~SimDisk() = default;

std::string SimDisk::whole(const char* path) const {
    std::string joined = path[0] == '/' ? path : workDir_ + "/" + path;
    std::string result;
    for (std::size_t at = 0; at < joined.size();) {
        const std::size_t end = std::min(joined.find('/', at), joined.size());
        const std::string part = joined.substr(at, end - at);
        if (part == "..") {
            result.erase(std::min(result.rfind('/'), result.size()));
        } else if (!part.empty() && part != ".") {
            result += "/" + part;
        }
        at = end + 1;
    }
    return result.empty() ? "/" : result;
}

bool SimDisk::begins() {
    ++calls_;
    if (!isOff_ && calls_ == cutCall_) {
        isOff_ = true;
        throw SimPowerCut();
    }
    if (isOff_) return fails(EIO);
    return calls_ != failCall_ || fails(failError_);
}

bool SimDisk::fails(int error) const {
    errno = error;
    return false;
}

SimDisk::NodePtr SimDisk::find(const std::string& path) const {
    const auto found = names_.find(path);
    return found == names_.end() ? nullptr : found->second;
}

void SimDisk::name(const std::string& path, NodePtr node) {
    pending_.push_back({path, node, ""});
    if (node) {
        names_[path] = std::move(node);
    } else {
        names_.erase(path);
    }
}

// --- Bytes

// A block that was written completely may be one of a synthetic file.
bool SimDisk::recognize(Block& block) const {
    const Synthetic* file = simulation_.synthetic.find(block.bytes.data(), block.index);
    if (!file) return false;
    const u64 start = block.index * blockSize;
    if (block.written < std::min<u64>(blockSize, file->size - std::min(start, file->size))) return false;
    std::vector<u8> same(blockSize);  // the last block is followed by zeros
    file->read(start, same.data(), blockSize);
    if (same != block.bytes) return false;
    block.source = *file;
    block.bytes = {};
    return true;
}

void SimDisk::write(Node& node, u64 at, const u8* bytes, std::size_t length) {
    bytesWritten_ += length;
    for (std::size_t done = 0; done < length;) {
        const u64 index = (at + done) / blockSize;
        const std::size_t offset = (at + done) % blockSize;
        const std::size_t part = std::min(length - done, blockSize - offset);
        Block& block = node.now.own(index);
        std::memcpy(block.bytes.data() + offset, bytes + done, part);
        block.written += part;
        if (recognize(block)) node.now.settle(index);
        done += part;
    }
    if (at + length > node.now.size) {
        used_ += at + length - node.now.size;
        node.now.size = at + length;
    }
    node.modifiedUs = static_cast<u64>(simulation_.now().us);
    node.fileTime = simulation_.fileTime();
}

std::size_t SimDisk::read(const Node& node, u64 at, u8* to, std::size_t length) const {
    if (at >= node.now.size) return 0;
    length = std::min<u64>(length, node.now.size - at);
    for (std::size_t done = 0; done < length;) {
        const u64 index = (at + done) / blockSize;
        const std::size_t offset = (at + done) % blockSize;
        const std::size_t part = std::min(length - done, blockSize - offset);
        const std::shared_ptr<Block> place = node.now.block(index);
        if (place) {
            place->read(offset, to + done, part);
        } else {
            std::memset(to + done, 0, part);
        }
        done += part;
    }
    return length;
}

// --- For tests

void SimDisk::lay(const std::string& path, const std::string& bytes) {
    const std::string full = whole(path.c_str());
    std::vector<std::string> missing;
    const bool isDirectory = path.ends_with("/.");
    for (std::string at = isDirectory ? full : parentOf(full); !find(at); at = parentOf(at))
        missing.push_back(at);
    for (const std::string& directory : missing) {
        auto node = std::make_shared<Node>();
        node->kind = i4_file_kind::directory;
        node->inode = nextInode_++;
        names_[directory] = safe_[directory] = node;
    }
    if (isDirectory) return;
    auto node = std::make_shared<Node>();
    node->inode = nextInode_++;
    write(*node, 0, reinterpret_cast<const u8*>(bytes.data()), bytes.size());
    node->safe = node->now;
    names_[full] = safe_[full] = node;
}

void SimDisk::lay(const std::string& path, const Synthetic& content) {
    lay(path, std::string());
    Node& node = *find(whole(path.c_str()));
    simulation_.synthetic.add(content);
    node.now.size = content.size;
    node.now.whose = content;
    node.now.rightUpTo = (content.size + blockSize - 1) / blockSize;
    node.safe = node.now;
    used_ += content.size;
}

std::string SimDisk::read(const std::string& path) const {
    const NodePtr node = find(whole(path.c_str()));
    if (!node) return "";
    std::string bytes(node->now.size, 0);
    read(*node, 0, reinterpret_cast<u8*>(bytes.data()), bytes.size());
    return bytes;
}

bool SimDisk::has(const std::string& path) const { return find(whole(path.c_str())) != nullptr; }

bool SimDisk::equals(const std::string& path, const Synthetic& content) const {
    const NodePtr node = find(whole(path.c_str()));
    if (!node || node->now.size != content.size) return false;
    std::vector<u8> expected(blockSize);
    std::vector<u8> found(blockSize);
    for (u64 index = 0; index * blockSize < content.size; ++index) {
        if (index < node->now.rightUpTo && node->now.whose.seed == content.seed) continue;
        const std::size_t length = content.read(index * blockSize, expected.data(), blockSize);
        read(*node, index * blockSize, found.data(), length);
        if (std::memcmp(expected.data(), found.data(), length) != 0) return false;
    }
    return true;
}

std::vector<std::string> SimDisk::names() const {
    std::vector<std::string> result;
    for (const auto& [path, node] : names_) {
        if (node->kind == i4_file_kind::regular) result.push_back(path);
    }
    return result;
}

void SimDisk::failAt(u64 call, int error) {
    failCall_ = call;
    failError_ = error;
}

void SimDisk::shortAt(u64 call) { shortCall_ = call; }
void SimDisk::cutPowerAt(u64 call) { cutCall_ = call; }

void SimDisk::restart() {
    Random& random = simulation_.random();
    const std::size_t kept = pending_.empty() ? 0 : random.below(static_cast<u32>(pending_.size()) + 1);
    for (std::size_t i = 0; i < kept; ++i) settle(pending_[i]);
    pending_.clear();
    for (const std::weak_ptr<Node>& dirty : dirty_) {
        if (const NodePtr node = dirty.lock()) keepSome(*node);
    }
    dirty_.clear();
    names_ = safe_;
    isOff_ = false;
    cutCall_ = failCall_ = shortCall_ = 0;
}

// Each unsynced block may have reached the disk or not, and so may the file's length.
void SimDisk::keepSome(Node& node) {
    if (!node.isDirty) return;
    Random& random = simulation_.random();
    Content kept;
    kept.size = random.below(2) == 0 ? node.now.size : node.safe.size;
    kept.blocks.resize((kept.size + blockSize - 1) / blockSize);
    for (u64 i = 0; i < kept.blocks.size(); ++i) {
        const bool isNew = i * blockSize < node.now.size && random.below(2) == 0;
        kept.blocks[i] = isNew ? node.now.block(i) : node.safe.block(i);
    }
    node.now = node.safe = std::move(kept);
    node.isDirty = false;
}

// --- The disk

std::unique_ptr<i4_disk_file> SimDisk::open(const char* path, u32 flags) {
    if (!begins()) return nullptr;
    const std::string full = whole(path);
    NodePtr node = find(full);
    const bool writes = (flags & (I4_FILE_WRITE | I4_FILE_APPEND)) != 0;
    if (node && (flags & I4_FILE_NEW)) return fails(EEXIST), nullptr;
    if (node && node->kind == i4_file_kind::directory && writes) return fails(EISDIR), nullptr;
    if (!node) {
        if (!writes) return fails(ENOENT), nullptr;
        const NodePtr parent = find(parentOf(full));
        if (!parent || parent->kind != i4_file_kind::directory)
            return fails(parent ? ENOTDIR : ENOENT), nullptr;
        node = std::make_shared<Node>();
        node->inode = nextInode_++;
        node->fileTime = simulation_.fileTime();
        name(full, node);
    }
    if (flags & I4_FILE_TRUNCATE) {
        used_ -= node->now.size;
        node->now = {};
        if (!node->isDirty) {
            node->isDirty = true;
            dirty_.push_back(node);
        }
    }
    return std::make_unique<SimFile>(*this, node, flags);
}

void SimDisk::fillStatus(const Node& node, i4_file_status& out) {
    out = {};
    out.kind = node.kind;
    if (node.kind == i4_file_kind::directory) out.flags |= I4_FILE_STATUS_DIRECTORY;
    out.size = node.now.size;
    out.last_modified = out.created = out.last_accessed = node.fileTime;
    out.modified_ns = node.modifiedUs * 1000;
    out.device = 1;
    out.inode = node.inode;
    out.occupied = node.now.rightUpTo * blockSize;
    for (const auto& block : node.now.blocks) out.occupied += block ? blockSize : 0;
}

bool SimDisk::status(const char* path, i4_file_status& out) {
    if (!begins()) return false;
    const NodePtr node = find(whole(path));
    if (!node) return fails(ENOENT);
    fillStatus(*node, out);
    return true;
}

bool SimDisk::readLink(const char*, i4_string&) { return fails(EINVAL); }

bool SimDisk::list(const char* path, i4_directory_list& out, bool withStatus) {
    if (!begins()) return false;
    const std::string full = whole(path);
    const NodePtr node = find(full);
    if (!node || node->kind != i4_file_kind::directory) return fails(node ? ENOTDIR : ENOENT);
    const std::string prefix = full == "/" ? full : full + "/";
    for (const char* dots : {".", ".."}) out.dirs.emplace_back(dots);
    for (auto at = names_.lower_bound(prefix); at != names_.end() && at->first.starts_with(prefix); ++at) {
        const std::string rest = at->first.substr(prefix.size());
        if (rest.empty() || rest.find('/') != std::string::npos) continue;
        if (at->second->kind == i4_file_kind::directory) {
            out.dirs.emplace_back(rest.c_str());
            continue;
        }
        out.files.emplace_back(rest.c_str());
        if (!withStatus) continue;
        out.file_status.emplace_back();
        fillStatus(*at->second, out.file_status.back());
    }
    return true;
}

bool SimDisk::makeDirectory(const char* path) {
    if (!begins()) return false;
    const std::string full = whole(path);
    if (find(full)) return fails(EEXIST);
    if (!find(parentOf(full))) return fails(ENOENT);
    auto node = std::make_shared<Node>();
    node->kind = i4_file_kind::directory;
    node->inode = nextInode_++;
    name(full, std::move(node));
    return true;
}

bool SimDisk::remove(const char* path) {
    if (!begins()) return false;
    const std::string full = whole(path);
    const NodePtr node = find(full);
    if (!node) return fails(ENOENT);
    if (node->kind == i4_file_kind::directory) return fails(EISDIR);
    used_ -= node->now.size;
    name(full, nullptr);
    return true;
}

bool SimDisk::rename(const char* from, const char* to, Replace replace) {
    if (!begins()) return false;
    const std::string source = whole(from);
    const std::string target = whole(to);
    const NodePtr node = find(source);
    const NodePtr there = find(target);
    if (!node || !find(parentOf(target))) return fails(ENOENT);
    if (there && replace == Replace::no) return fails(EEXIST);
    if (there && there->kind == i4_file_kind::directory) return fails(EISDIR);
    if (there) used_ -= there->now.size;
    // One change: the disk has all of it or nothing.
    names_[target] = node;
    names_.erase(source);
    pending_.push_back({target, node, source});
    return true;
}

std::unique_ptr<i4_disk_file> SimDisk::openHidden(const char* directory, i4_string& path) {
    path = (std::string(directory) + "/.hidden" + std::to_string(++hidden_)).c_str();
    return open(path.c_str(), I4_FILE_WRITE | I4_FILE_NEW);
}

bool SimDisk::syncFolder(const char* path) {
    if (!begins()) return false;
    const std::string full = whole(path);
    if (!find(full)) return fails(ENOENT);
    ++syncs_;
    // Like a journal, it keeps the order: syncing this directory's last change also syncs all earlier
    // changes.
    std::size_t last = 0;
    for (std::size_t i = 0; i < pending_.size(); ++i) {
        if (parentOf(pending_[i].path) == full ||
            (!pending_[i].from.empty() && parentOf(pending_[i].from) == full))
            last = i + 1;
    }
    for (std::size_t i = 0; i < last; ++i) settle(pending_[i]);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(last));
    return true;
}

void SimDisk::settle(const Change& change) {
    if (change.node) {
        safe_[change.path] = change.node;
    } else {
        safe_.erase(change.path);
    }
    if (!change.from.empty()) safe_.erase(change.from);
}

u64 SimDisk::freeSpace(const char*) { return room_ - std::min(room_, used_); }

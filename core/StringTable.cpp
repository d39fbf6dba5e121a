#include "core/StringTable.h"

#include <algorithm>
#include <string>

#include "core/LineReader.h"
#include "meta/MetaTag.h"

namespace {

constexpr std::size_t longestLine = 1023;

// In the order of StringNumber.
constexpr const char* builtIn[] = {
    "",
    "Queued",
    "Looking...",
    "Downloading",
    "Paused",
    "Insufficient Disk Space.",
    "No Sources",
    "Done",
    "Hashing...",
    "Error loading.",
    "Completing",
    "Complete",
    "Corrupted",
    "Error hashing.",
    "Transferring.",
    "You are already downloading",
    "Downloading",
    "You already have",
    "Couldn't create temp file. Check temp directory in options.",
    "Can't cancel while hashing.",
    "Settings couldn't be saved",
    "No search to extend.",
    "Extending to:",
    "Sending search.",
    "Can't Listen for connections. Please adjust your proxy settings in the options tab.",
    "Unrecognized command. type ? for help",
    "None.",
    "added",
    "Invalid arguments",
    "Can't change temporary directory with pending downloads.",
    "Asking",
    "for file list.",
    "Waiting for connection.",
    "Can't connect to User.",
    "Loading shared files...",
    "Couldn't hash",
    "Done loading shared files.",
    "Placed on connection Queue.",
    "Corruption found in",
    "at",
    "Corrupted Download",
    "could not be moved to",
    "Couldn't load partials",
    "Not connected to a server.",
    "Already trying to connect.",
    "Already connected to that server.",
    "Can't connect to",
    "Already Connected.",
    "Connecting to",
    "Already trying to connect to that server.",
    "No more servers to extend to.",
    "Connections Full.",
    "Name",
    "Size",
    "Type",
    "Format",
    "Collection Type",
    "Description",
    "Port",
    "IP",
    "Version",
    "Priority",
    "Availability",
    "Assigned Slot:",
    "Number on Queue:",
    "Calling",
    "Making Connection. Please wait...",
    "Can't connect to other user.",
    "Connected",
    "Waiting",
    "Routing",
    "Can't Connect",
    "Enter the users' IP that you want to add.",
    "Enter the server's IP that you want to add.",
    "No search results found.",
    "You really shouldn't share that directory.",
    "Are you sure you want to cancel",
    "Confirm Cancel",
};
static_assert(std::size(builtIn) == STRINGS_COUNT);

// The tags whose names can be translated.
constexpr struct {
    TagIndex tag;
    StringNumber text;
} namedTags[] = {
    {TAG_NAME, STRINGS_NAME},
    {TAG_SIZE, STRINGS_SIZE},
    {TAG_TYPE, STRINGS_TYPE},
    {TAG_FORMAT, STRINGS_FORMAT},
    {TAG_COLLECTION_TYPE, STRINGS_COLTYPE},
    {TAG_DESCRIPTION, STRINGS_DESC},
    {TAG_PORT, STRINGS_PORT},
    {TAG_IP, STRINGS_IP},
    {TAG_VERSION, STRINGS_VERSION},
    {TAG_PRIORITY, STRINGS_PRIORITY},
    {TAG_AVAILABILITY, STRINGS_AVAILABILITY},
};

}  // namespace

const char* StringTable::get(u32 number) const {
    const Table* table = current_.load(std::memory_order_acquire);
    if (!table) return nullptr;
    return number < table->size() ? (*table)[number].c_str() : "";
}

u32 StringTable::count() const {
    const Table* table = current_.load(std::memory_order_acquire);
    return table ? static_cast<u32>(table->size()) : 0;
}

void StringTable::set(u32 number, const char* text) {
    i4_lock guard(lock_);
    Table table = current();
    if (number >= table.size()) return;
    table[number] = orEmpty(text);
    publish(std::move(table));
}

void StringTable::build(u32 count) {
    i4_lock guard(lock_);
    publish(Table(count, i4_string("")));
}

u32 StringTable::loadFile(Disk& disk, const char* path) {
    i4_lock guard(lock_);
    Table table = current();
    const u32 lines = readInto(table, disk, path);
    publish(std::move(table));
    return lines;
}

void StringTable::reload(Disk& disk, const char* path) {
    i4_lock guard(lock_);
    Table table(std::begin(builtIn), std::end(builtIn));
    readInto(table, disk, path);
    publish(std::move(table));
}

u32 StringTable::readInto(Table& table, Disk& disk, const char* path) {
    LineReader reader(disk, path, longestLine);
    u32 lines = 0;
    for (std::string line; reader.next(line); ++lines) {
        if (lines < table.size()) table[lines] = line.c_str();
    }
    return lines;
}

StringTable::Table StringTable::current() const {
    const Table* table = current_.load(std::memory_order_relaxed);
    return table ? *table : Table();
}

void StringTable::publish(Table table) {
    const auto same = std::find_if(tables_.begin(), tables_.end(),
                                   [&](const std::unique_ptr<const Table>& old) { return *old == table; });
    if (same == tables_.end()) {
        tables_.push_back(std::make_unique<const Table>(std::move(table)));
        current_.store(tables_.back().get(), std::memory_order_release);
    } else {
        current_.store(same->get(), std::memory_order_release);
    }
}

void StringTable::nameTags() {
    i4_lock guard(lock_);
    tagNames_.store(current_.load(std::memory_order_relaxed), std::memory_order_release);
}

const char* StringTable::nameOf(const MetaTag& tag) const {
    const Table* names = tagNames_.load(std::memory_order_acquire);
    for (const auto& row : namedTags) {
        if (names && tag.id() == row.tag && row.text < names->size()) return (*names)[row.text].c_str();
    }
    return tag.displayName();
}

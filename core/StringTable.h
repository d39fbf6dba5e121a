// StringTable: the texts that a language file can replace, by number.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

class Disk;
class MetaTag;

// The number of a text. In a language file it is on the line of that number plus 1.
enum StringNumber : u32 {
    STRINGS_EMPTY = 0,  // shown for a download whose status can't be read at the moment
    STRINGS_DL_STATUS_QUEUED = 1,
    STRINGS_DL_STATUS_LOOKING = 2,
    STRINGS_DL_STATUS_DOWNLOADING = 3,
    STRINGS_DL_STATUS_PAUSED = 4,
    STRINGS_DL_STATUS_DISKFULL = 5,
    STRINGS_DL_STATUS_NOSOURCES = 6,
    STRINGS_DL_STATUS_DONE = 7,
    STRINGS_DL_STATUS_HASHING = 8,
    STRINGS_DL_STATUS_ERROR_LOADING = 9,
    STRINGS_DL_STATUS_COMPLETING = 10,
    STRINGS_DL_STATUS_COMPLETE = 11,
    STRINGS_DL_STATUS_CORRUPTED = 12,
    STRINGS_DL_STATUS_ERROR_HASHING = 13,
    STRINGS_DL_STATUS_TRANSFERING = 14,
    STRINGS_ALREADY_DOWNLOADING = 15,
    STRINGS_DOWNLOADING = 16,
    STRINGS_ALREADY_HAVE = 17,
    STRINGS_COULDNT_CREATE_TEMP_FILE = 18,
    STRINGS_CANT_CANCEL_HASH = 19,
    STRINGS_SETTINGS_NOT_SAVED = 20,
    STRINGS_NO_SEARCH_EXTEND = 21,
    STRINGS_EXTENDING_TO = 22,
    STRINGS_SENDING_SEARCH = 23,
    STRINGS_CANT_OPEN_PORT = 24,
    STRINGS_UNKNOWN_COMMAND = 25,
    STRINGS_NONE = 26,
    STRINGS_ADDED = 27,
    STRINGS_INVALID_ARGUMENTS = 28,
    STRINGS_CANT_CHANGE_TEMP = 29,
    STRINGS_ASKING = 30,
    STRINGS_FOR_FILE_LIST = 31,
    STRINGS_WAITING_CONNECTION = 32,
    STRINGS_CANT_CONNECT_USER = 33,
    STRINGS_LOADING_SHARED = 34,
    STRINGS_COULDNT_HASH = 35,
    STRINGS_DONE_LOADING_SHARED = 36,
    STRINGS_PLACED_ON_Q = 37,
    STRINGS_CORRUPTION_FOUND = 38,
    STRINGS_AT = 39,
    STRINGS_CORRUPTED_DOWNLOAD = 40,
    STRINGS_COULDNT_BE_MOVED = 41,
    STRINGS_COULDNT_LOAD_PARTS = 42,
    STRINGS_NOT_CONNECTED = 43,
    STRINGS_ALREADY_TRYING_CONNECT = 44,
    STRINGS_ALREADY_CONNECTED_TO = 45,
    STRINGS_CANT_CONNECT_TO = 46,
    STRINGS_ALREADY_CONNECTED = 47,
    STRINGS_CONNECTING_TO = 48,
    STRINGS_ALREADY_TRYING_THIS_CONNECT = 49,
    STRINGS_NO_MORE_EXTEND = 50,
    STRINGS_CONNECTIONS_FULL = 51,
    STRINGS_NAME = 52,
    STRINGS_SIZE = 53,
    STRINGS_TYPE = 54,
    STRINGS_FORMAT = 55,
    STRINGS_COLTYPE = 56,
    STRINGS_DESC = 57,
    STRINGS_PORT = 58,
    STRINGS_IP = 59,
    STRINGS_VERSION = 60,
    STRINGS_PRIORITY = 61,
    STRINGS_AVAILABILITY = 62,
    STRINGS_ASSIGNED_SLOT = 63,
    STRINGS_NUMBER_ON_QUEUE = 64,
    STRINGS_CALLING = 65,
    STRINGS_MAKING_CONNECTION = 66,
    STRINGS_CANT_CONNECT_OTHER = 67,
    STRINGS_CONNECTED = 68,
    STRINGS_WAITING = 69,
    STRINGS_ROUTING = 70,
    STRINGS_CANT_CONNECT = 71,
    STRINGS_ENTER_USER_IP = 72,
    STRINGS_ENTER_SERVER_IP = 73,
    STRINGS_NO_RESULTS = 74,
    STRINGS_DONT_SHARE = 75,
    STRINGS_CONFIRM_CANCEL = 76,
    STRINGS_CONFIRM_CANCEL_TITLE = 77,
    STRINGS_COUNT = 78,
};

// The translatable texts. Each number has a built-in text, so the program works without a language file.
// Thread: any. Readers take no lock: an atomic pointer leads to a table that never changes. A change
// publishes a new table.
// Owns: all tables. Old ones are kept, so that texts stay valid as long as the StringTable. A language that
// is chosen again reuses its table, so memory grows with the number of languages, not with changes.
class StringTable {
  public:
    StringTable() = default;
    StringTable(const StringTable&) = delete;
    StringTable& operator=(const StringTable&) = delete;

    // Returns null before the first build, and "" if the number is beyond the table.
    const char* get(u32 number) const;
    u32 count() const;

    // Ignores numbers of count() and above.
    void set(u32 number, const char* text) EXCLUDES(lock_);
    void build(u32 count) EXCLUDES(lock_);  // makes a table of `count` empty texts
    // Sets the texts from the lines of a file, starting with number 0, and drops lines beyond the table.
    // `path` is used as it is. Returns the number of lines read, or 0 if the file can't be read.
    u32 loadFile(Disk& disk, const char* path) EXCLUDES(lock_);
    // Sets the built-in texts, then those of the language file. A missing file is no error.
    void reload(Disk& disk, const char* path) EXCLUDES(lock_);

    // Names the tags by the texts that the table holds now.
    void nameTags() EXCLUDES(lock_);
    // Returns the name to show for a tag: its text, else its English name, or null if it has none.
    const char* nameOf(const MetaTag& tag) const;

  private:
    using Table = std::vector<i4_string>;
    static u32 readInto(Table& table, Disk& disk, const char* path);
    Table current() const REQUIRES(lock_);
    void publish(Table table) REQUIRES(lock_);

    i4_mutex lock_{LockRank::leaf};  // one change at a time
    std::vector<std::unique_ptr<const Table>> tables_ GUARDED_BY(lock_);
    std::atomic<const Table*> current_{nullptr};
    std::atomic<const Table*> tagNames_{nullptr};  // null for English
};

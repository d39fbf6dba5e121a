// Names, directories and disk space. Every name is taken exactly as it stands, unless told otherwise, and
// true means success. Thread: any.
#pragma once

#include <vector>

#include "i4min/memory/types.h"
#include "i4min/string/string.h"

enum class i4_file_kind : u8 {
    unknown,  // it is gone, or a link to nothing
    regular,
    directory,
    other,  // a FIFO, a socket, a device: opening it could block
};

struct i4_file_status {
    u32 last_modified = 0;  // seconds since the epoch
    u32 last_accessed = 0;
    u32 created = 0;  // when its status last changed
    u32 flags = 0;    // I4_FILE_STATUS_DIRECTORY
    u64 size = 0;
    u64 occupied = 0;     // bytes that it takes of the disk
    u64 modified_ns = 0;  // last_modified in nanoseconds
    u64 device = 0;       // these two are the file's alone
    u64 inode = 0;
    i4_file_kind kind = i4_file_kind::unknown;

    // The same bytes, as far as can be told without reading them.
    bool isSameVersion(const i4_file_status& other) const {
        return size == other.size && modified_ns == other.modified_ns;
    }
};

inline constexpr u32 I4_FILE_STATUS_DIRECTORY = 1;

struct i4_directory_list {
    std::vector<i4_string> files;  // everything that couldn't be opened as a directory
    std::vector<i4_string> dirs;
    std::vector<i4_file_status> file_status;  // parallel to `files`, where it was asked for
};

[[nodiscard]] bool i4_unlink(const char* name);  // the name goes through i4_translate_path
[[nodiscard]] bool i4_mkdir(const char* name);
[[nodiscard]] bool i4_chdir(const char* name);
[[nodiscard]] bool i4_get_cwd(i4_string& out);
// The absolute path without links, "." or "..", of something that exists.
[[nodiscard]] bool i4_full_path(const char* name, i4_string& out);
[[nodiscard]] bool i4_get_status(const char* name, i4_file_status& out);
[[nodiscard]] bool i4_get_status(int descriptor, i4_file_status& out);
// Appends the directory's entries in the order of the disk, "." and ".." among them. The process's current
// directory stays. False, and nothing appended, where the path can't be opened.
[[nodiscard]] bool i4_get_directory(const char* path, i4_directory_list& out, bool want_status);
// Bytes on the path's file system that are free to an ordinary user; a very large number where they can't be
// told.
u64 i4_disk_free(const char* path);
inline constexpr u64 i4_disk_free_unknown = 0xFFFEFF0001;
// Makes each directory of the path that isn't there yet.
[[nodiscard]] bool i4_make_path(const char* path);
// "a/b.tar.gz" is "a", "b.tar" and "gz". A path without a separator leaves `dir` alone, one without a dot
// behind it `ext`.
void i4_split_path(const char* path, i4_string& dir, i4_string& name, i4_string& ext);
// The way from the current directory to something that exists; both are compared by whole components.
[[nodiscard]] bool i4_relative_path(const char* path, i4_string& out);

enum class i4_sort_key { last_modified, last_accessed, created, size };
// Sorts `files` and `file_status` ascending; nothing without a status for each.
void i4_sort_directory(i4_directory_list& list, i4_sort_key key);

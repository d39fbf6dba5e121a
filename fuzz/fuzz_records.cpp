// Lists of records from anybody's bytes: the first byte tells the kind, and whether the rest is a file or a
// packet. What was read is found again, and written and read once more gives the same bytes.
#include <algorithm>

#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"

namespace {

template <class List>
struct Owned : List {
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() override { List::deleteAll(); }
};

bool read(MetaList& list, i4_file& file, bool disk) {
    try {
        return disk ? list.fromDisk(file) : list.fromNetwork(file);
    } catch (const i4_err&) {
        return false;
    }
}

void write(MetaList& list, i4_file& file, bool disk) {
    require(disk ? list.toDisk(file) : list.toNetwork(file));
    file.seek(0);
}

void lookUp(FileList& list) {
    for (FileMeta* file : list.snapshot()) {
        const FileMeta* found = list.find(file->hash);
        require(found && found->hash == file->hash);
        found = list.find(file->getSize(), file->date, file->getName());
        require((found != nullptr) == (file->getName() != nullptr));
        list.change(file, [](FileMeta& changed) { changed.setName("renamed"); });
        require(list.find(file->getSize(), file->date, "renamed"));
    }
}

void lookUp(ServerList& list) {
    i4_string name;
    for (const ServerMeta* server : list.snapshot()) {
        const i4_guard guard(list);
        require(list.find(server->ip, server->port));
        server->getName(name);
    }
}

void lookUp(UserList& list) {
    for (const UserMeta* user : list.snapshot()) {
        require(list.find(user->hash));
        require(user->hash.isZero() || user->sameUser(list.find(user->hash)));
    }
}

template <class List>
void check(i4_file& file, bool disk) {
    Owned<List> list;
    read(list, file, disk);
    require(list.count() == list.snapshot().size());
    lookUp(list);

    // Once written, a list is as its kind wants it: from then on nothing changes.
    i4_owned_ram_file once;
    write(list, once, disk);
    Owned<List> again;
    require(read(again, once, disk) && again.count() == list.count());
    i4_owned_ram_file twice;
    write(again, twice, disk);
    Owned<List> last;
    require(read(last, twice, disk));
    i4_owned_ram_file thrice;
    write(last, thrice, disk);
    require(twice.size() == thrice.size() &&
            std::equal(twice.buffer(), twice.buffer() + twice.size(), thrice.buffer()));
    MetaList listed;
    listed.addAll(again);
    listed.removeAll(&again);
    require(listed.count() == 0);
    for (auto* record : last.snapshot()) require(last.remove(record)), delete record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    BytesFile file({data + 1, size - 1});
    const bool disk = data[0] & 1;
    switch (data[0] >> 1 & 3) {
        case 0:
            check<FileList>(file, disk);
            break;
        case 1:
            check<ServerList>(file, disk);
            break;
        default:
            check<UserList>(file, disk);
    }
    return 0;
}

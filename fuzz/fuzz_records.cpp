// Lists of records from any bytes. The first byte selects the kind and whether the rest is a file or a
// packet. What was read can be found, and after being written and read again it gives the same bytes.
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"

namespace {

bool read(MetaList& list, i4_file& file, bool disk) {
    try {
        return disk ? list.fromDisk(file) : list.fromNetwork(file);
    } catch (const i4_err&) {
        return false;
    }
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
    List list;
    read(list, file, disk);
    require(list.count() == list.snapshot().size());
    lookUp(list);

    // The first write normalises a list; after that nothing may change.
    Bytes last;
    for (int time = 0; time < 3; ++time) {
        const Bytes bytes =
            written([&](i4_file& out) { require(disk ? list.toDisk(out) : list.toNetwork(out)); });
        require(time < 2 || bytes == last);
        last = bytes;
        const std::size_t count = list.count();
        list.deleteAll();
        BytesFile again(bytes);
        require(read(list, again, disk) && list.count() == count);
    }
    MetaList listed;
    listed.addAll(list);
    listed.removeAll(&list);
    require(listed.count() == 0);
    for (auto* record : list.snapshot()) require(list.remove(record)), delete record;
}

}  // namespace

FUZZ_TARGET(records) {
    static Silence silence;
    if (size == 0) return;
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
}

// The view commands, which print the current state of lists and settings.
#include <vector>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "core/Settings.h"
#include "engine/Engine.h"
#include "meta/address.h"
#include "peer/UploadSlot.h"
#include "server/MainServer.h"

namespace {

constexpr const char* priorityNames[] = {"Low", "Normal", "High"};
constexpr f64 megabyte = 1'048'576.0;

void printDownload(const ConClientApp& console, u32 number, Download& download) {
    const Ref<PartialFile> partial = download.partialRef();
    const u32 size = partial ? partial->fileSize() : 0;
    const u32 transferred = partial ? partial->transferred() : 0;
    const i32 status = download.getStatus();
    const i32 priority = download.priority;
    console.log().printLine("(%u) %s:", number, orEmpty(download.getName()));
    console.log().printLine("\t\t%s\t%uk\t%uk\t%.2f\t%d%%\t%s",
                            console.engine().stringTable.get(static_cast<u32>(status)), size / 1024,
                            transferred / 1024, static_cast<f64>(download.speed),
                            download.availabilityPercent(), priorityNames[priority]);
}

void printUser(const ConClientApp& console, u32 number, const UserMeta& user) {
    console.log().printLine("(%u) %s \t(%d:%s)", number, orEmpty(user.getName()), static_cast<i32>(user.id),
                            ipToString(user.id).c_str());
}

}  // namespace

void viewResults(ConClientApp& console, char*) { console.printList(&console.results); }
void viewSharedFiles(ConClientApp& console, char*) { console.printList(&console.engine().clientApp.shared); }

void viewServers(ConClientApp& console, char*) {
    ServerList& servers = console.engine().serverPool.servers();
    const i4_guard guard(servers);
    Servant::Keys keys;
    u32 index = 0;
    for (ServerList::Cursor c; const ServerMeta* server = servers.next(c); ++index) {
        if (index == 0) console.printHeader(server, keys);
        console.printRow(server, keys, index);
        console.log().printLine("\t%s : %u", ipToString(server->ip).c_str(), server->port);
    }
    if (index == 0) console.log().printLine("%s", console.engine().stringTable.get(STRINGS_NONE));
}

void viewSharedDirectories(ConClientApp& console, char*) {
    std::vector<i4_string> dirs;
    console.engine().clientApp.getSharedDirs(dirs);
    u32 number = 0;
    for (const i4_string& dir : dirs) console.log().printLine("(%u) %s", ++number, orEmpty(dir));
}

void viewDownloads(ConClientApp& console, char*) {
    console.log().printLine("File Name\tStatus\tSize\tTransfered\tSpeed\tAvailable\tPriority");
    {
        LLsafe<Download>& downloads = console.downloads;
        const i4_guard guard(downloads);
        u32 number = 0;
        for (LL<Download>::Cursor c; Download* download = downloads.next(c);)
            printDownload(console, ++number, *download);
    }
    console.log().printLine("Total: %.2f (%.2f)", static_cast<f64>(console.engine().preferences.curDownSpeed),
                            static_cast<f64>(console.engine().preferences.maxDownSpeed));
}

void viewUploads(ConClientApp& console, char*) {
    console.log().printLine("File Name\t\tWho\t\tSpeed");
    {
        LLsafe<Upload>& uploads = console.uploads;
        const i4_guard guard(uploads);
        u32 number = 0;
        for (LL<Upload>::Cursor c; Upload* upload = uploads.next(c);) {
            console.log().printLine("(%u) %s\t%s\t%.1f", ++number, orEmpty(upload->getName()),
                                    orEmpty(upload->getPeerName()), static_cast<f64>(upload->speed));
        }
    }
    console.log().printLine("Total: %.2f (%.2f)", static_cast<f64>(console.engine().preferences.curUpSpeed),
                            static_cast<f64>(console.engine().preferences.maxUpSpeed));
}

void viewQueue(ConClientApp& console, char*) {
    const i4_guard guard(console.engine().uploadPool);
    console.log().printLine("Assigned Slots: ");
    u32 number = 0;
    const LL<UploadSlot>& slots = console.engine().uploadPool.getSlots();
    for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = slots.next(c);)
        printUser(console, ++number, slot->getUser());
    console.log().printLine("\nWaiting: ");
    number = 0;
    const LL<QueuedUser>& queue = console.engine().uploadPool.getQueue();
    for (LL<QueuedUser>::Cursor c; const QueuedUser* user = queue.next(c);)
        printUser(console, ++number, *user);
}

void viewConnections(ConClientApp& console, char*) {
    console.log().printLine("%d Connections.", console.engine().clientApp.socketPool.count.get());
    const i4_guard guard(console.engine().peers);
    u32 number = 0;
    for (LL<Peer>::Cursor c; const Peer* peer = console.engine().peers.next(c);) {
        console.log().printLine("(%u) %s", ++number, orEmpty(peer->userName()));
    }
}

void viewOptions(ConClientApp& console, char*) {
    for (u8 place = 1; const Setting* row = setting::at(place, &Setting::view); ++place) {
        const SettingValue value = console.engine().preferences.value(*row);
        const char* label = row->view.label;
        const char* tabs = &"\t\t\t"[(i4_strlen(label) + 1) / 8];  // aligns the values
        if (row->isText()) {
            console.log().printLine("%s:%s%s", label, tabs, orEmpty(value.text));
        } else {
            console.log().printLine("%s:%s%.*f", label, tabs, row->form.type == META_TAG_FLOAT ? 2 : 0,
                                    value.number);
        }
    }
}

void viewServerState(ConClientApp& console, char*) {
    const u32 id = console.engine().preferences.clientId();
    console.log().printLine("ClientID: %u (%s)", id, id >= highestLowId ? "open" : "firewalled");
    if (const Ref<MainServer> server = console.engine().serverPool.mainServer()) {
        console.log().printLine("Connected to: %s", orEmpty(server->getText()));
        console.log().printLine("   Users: %u    Files: %u", console.serverUsers.get(),
                                console.serverFiles.get());
    } else {
        console.log().printLine("Not connected to a server.");
    }
}

void viewDiskSpace(ConClientApp& console, char*) {
    const u64 temp = console.engine().host.disk.freeSpace(console.engine().preferences.tempDir().c_str());
    const u64 incoming =
        console.engine().host.disk.freeSpace(console.engine().preferences.incomingDir().c_str());
    const u64 needed = console.engine().dlPool.checkDisk();
    console.log().printLine("Space free on temp partion:     %.2fMB", static_cast<f64>(temp) / megabyte);
    console.log().printLine("Space free on incoming partion: %.2fMB", static_cast<f64>(incoming) / megabyte);
    console.log().printLine("Space needed by downloads:      %.2fMB", static_cast<f64>(needed) / megabyte);
    LLsafe<Download>& downloads = console.engine().dlPool.getDownloads();
    const i4_guard guard(downloads);
    for (LL<Download>::Cursor c; Download* download = downloads.next(c);) {
        const auto megabytes = download->bytesToFill() / 1'048'576;  // truncated
        console.log().printLine("(%.2fMB) :\t %s ", static_cast<f64>(megabytes),
                                orEmpty(download->getName()));
    }
}

// The views: what the lists and the singletons hold at this moment.
#include <vector>

#include "app/ClientApp.h"
#include "app/Preferences.h"
#include "app/StringTable.h"
#include "app/UIInterface.h"
#include "console/ConClientApp.h"
#include "console/commands.h"
#include "download/DLPool.h"
#include "i4min/file/filesystem.h"
#include "meta/address.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "peer/UploadSlot.h"
#include "server/MainServer.h"
#include "server/ServerPool.h"

namespace {

constexpr const char* priorityNames[] = {"Low", "Normal", "High"};
constexpr f64 megabyte = 1'048'576.0;

void printDownload(u32 number, Download& download) {
    const Ref<PartialFile> partial = download.partialRef();
    const u32 size = partial ? partial->fileSize() : 0;
    const u32 transferred = partial ? partial->transferred() : 0;
    const i32 status = download.getStatus();
    const i32 priority = download.priority;
    theLog->printLine("(%u) %s:", number, orEmpty(download.getName()));
    theLog->printLine("\t\t%s\t%uk\t%uk\t%.2f\t%d%%\t%s", stringTable.get(static_cast<u32>(status)),
                      size / 1024, transferred / 1024, static_cast<f64>(download.speed),
                      download.availabilityPercent(), priorityNames[priority]);
}

void printUser(u32 number, const UserMeta& user) {
    theLog->printLine("(%u) %s \t(%d:%s)", number, orEmpty(user.getName()), static_cast<i32>(user.id),
                      ipToString(user.id).c_str());
}

}  // namespace

void viewResults(Servant& servant, char*) { servant.printList(&conClientApp.results); }
void viewSharedFiles(Servant& servant, char*) { servant.printList(&clientApp.shared); }

void viewServers(Servant& servant, char*) {
    ServerList& servers = serverPool.servers();
    const i4_guard guard(servers);
    Servant::Keys keys;
    u32 index = 0;
    for (ServerList::Cursor c; const ServerMeta* server = servers.next(c); ++index) {
        if (index == 0) servant.printHeader(server, keys);
        servant.printRow(server, keys, index);
        theLog->printLine("\t%s : %u", ipToString(server->ip).c_str(), server->port);
    }
    if (index == 0) theLog->printLine("%s", stringTable.get(STRINGS_NONE));
}

void viewSharedDirectories(Servant&, char*) {
    std::vector<i4_string> dirs;
    clientApp.getSharedDirs(dirs);
    u32 number = 0;
    for (const i4_string& dir : dirs) theLog->printLine("(%u) %s", ++number, orEmpty(dir));
}

void viewDownloads(Servant&, char*) {
    theLog->printLine("File Name\tStatus\tSize\tTransfered\tSpeed\tAvailable\tPriority");
    {
        LLsafe<Download>& downloads = conClientApp.downloads;
        const i4_guard guard(downloads);
        u32 number = 0;
        for (LL<Download>::Cursor c; Download* download = downloads.next(c);)
            printDownload(++number, *download);
    }
    theLog->printLine("Total: %.2f (%.2f)", static_cast<f64>(preferences.curDownSpeed),
                      static_cast<f64>(preferences.maxDownSpeed));
}

void viewUploads(Servant&, char*) {
    theLog->printLine("File Name\t\tWho\t\tSpeed");
    {
        LLsafe<Upload>& uploads = conClientApp.uploads;
        const i4_guard guard(uploads);
        u32 number = 0;
        for (LL<Upload>::Cursor c; Upload* upload = uploads.next(c);) {
            theLog->printLine("(%u) %s\t%s\t%.1f", ++number, orEmpty(upload->getName()),
                              orEmpty(upload->getPeerName()), static_cast<f64>(upload->speed));
        }
    }
    theLog->printLine("Total: %.2f (%.2f)", static_cast<f64>(preferences.curUpSpeed),
                      static_cast<f64>(preferences.maxUpSpeed));
}

void viewQueue(Servant&, char*) {
    const i4_guard guard(uploadPool);
    theLog->printLine("Assigned Slots: ");
    u32 number = 0;
    const LL<UploadSlot>& slots = uploadPool.getSlots();
    for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = slots.next(c);)
        printUser(++number, slot->getUser());
    theLog->printLine("\nWaiting: ");
    number = 0;
    const LL<UserMeta>& queue = uploadPool.getQueue();
    for (LL<UserMeta>::Cursor c; const UserMeta* user = queue.next(c);) printUser(++number, *user);
}

void viewConnections(Servant&, char*) {
    theLog->printLine("%d Connections.", clientApp.socketPool.count.get());
    const i4_guard guard(peers);
    u32 number = 0;
    for (LL<Peer>::Cursor c; const Peer* peer = peers.next(c);) {
        theLog->printLine("(%u) %s", ++number, orEmpty(peer->userName()));
    }
}

void viewOptions(Servant&, char*) {
    theLog->printLine("Name:\t\t\t%s", orEmpty(preferences.getName()));
    theLog->printLine("AdminName:\t\t%s", orEmpty(preferences.adminName()));
    theLog->printLine("AdminPass:\t\t%s", orEmpty(preferences.adminPass()));
    theLog->printLine("AdminPort:\t\t%d", preferences.adminDoorPort.get());
    theLog->printLine("Max Download Speed:\t%.2f", static_cast<f64>(preferences.userMaxDownF));
    theLog->printLine("Max Upload Speed:\t%.2f", static_cast<f64>(preferences.userMaxUpF));
    theLog->printLine("Line Speed Down:\t%.2f", static_cast<f64>(preferences.lineDown));
    theLog->printLine("Door Port:\t\t%d", preferences.doorPort.get());
    theLog->printLine("AutoConnect:\t\t%d", preferences.autoConnect.get());
    theLog->printLine("Verbose:\t\t%d", theLog->verbose.load());
    theLog->printLine("SaveCorrupted:\t\t%d", preferences.saveCor.get());
    theLog->printLine("AutoServerRemove:\t%d", preferences.servRemove.get());
    theLog->printLine("MaxConnections:\t\t%d", preferences.maxCon.get());
}

void viewServerState(Servant&, char*) {
    const u32 id = preferences.clientId();
    theLog->printLine("ClientID: %u (%s)", id, id >= highestLowId ? "open" : "firewalled");
    if (const Ref<MainServer> server = serverPool.mainServer()) {
        theLog->printLine("Connected to: %s", orEmpty(server->getText()));
        theLog->printLine("   Users: %u    Files: %u", conClientApp.serverUsers.get(),
                          conClientApp.serverFiles.get());
    } else {
        theLog->printLine("Not connected to a server.");
    }
}

void viewDiskSpace(Servant&, char*) {
    const u64 temp = i4_disk_free(preferences.tempDir().c_str());
    const u64 incoming = i4_disk_free(preferences.incomingDir().c_str());
    const u64 needed = dlPool.checkDisk();
    theLog->printLine("Space free on temp partion:     %.2fMB", static_cast<f64>(temp) / megabyte);
    theLog->printLine("Space free on incoming partion: %.2fMB", static_cast<f64>(incoming) / megabyte);
    theLog->printLine("Space needed by downloads:      %.2fMB", static_cast<f64>(needed) / megabyte);
    LLsafe<Download>& downloads = dlPool.getDownloads();
    const i4_guard guard(downloads);
    for (LL<Download>::Cursor c; Download* download = downloads.next(c);) {
        const auto megabytes = download->bytesToFill() / 1'048'576;  // whole ones
        theLog->printLine("(%.2fMB) :\t %s ", static_cast<f64>(megabytes), orEmpty(download->getName()));
    }
}

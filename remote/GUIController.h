// GUIController: the connection of a remote controller.
#pragma once

#include <unordered_set>

#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "meta/MD4Hash.h"
#include "remote/UIStatusThread.h"
#include "server/Search.h"
#include "transport/Connection.h"

class Download;
class Engine;
class TcpipUI;
class Upload;

// Accepts only a log-on (opcode 100) first, and everything else after it. The message table is in
// remote/GUIController.cpp.
// Thread: handlers on the socket pool's; sendStatus() on the status thread's; other sending functions on any.
// Owns: the status thread and the last search. Borrows: the TcpipUI and the engine.
class GUIController : public Connection {
  public:
    GUIController(SocketPool& socketPool, TcpipUI& ui, std::unique_ptr<i4_socket> accepted);
    ~GUIController() override;

    // A controller's traffic is neither limited by the speed limits nor counted in the speeds.
    void doTask(SocketPool* socketPool) override;
    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override;
    bool firstMessage(u8 opcode, i4_ram_file_class& stream) override;

    void sendStatus();
    void sendDownload(Download& download);
    // These report an upload once: its existence if not reported yet, and its end if its existence was.
    void sendUpload(const Upload& upload) EXCLUDES(reportedLock_);
    void sendUploadGone(const Upload& upload) EXCLUDES(reportedLock_);

  protected:
    void gone() override;
    u32 bodyLimit() const override;
    u32 stallLimit() const override;
    const OpcodeTable* opcodes() const override;
    const Budgets& budgets() const override;  // none

  private:
    Ref<Download> readDownload(i4_file& stream);
    bool logOn(i4_file& stream);
    void sendStartState();
    struct Table;  // maps each opcode to its handler
    void nothing();
    void quit();
    void sendServers();
    void sendFriends();
    void sendSharedFiles();
    void setSharedDirs(i4_file& stream);
    void removeServer(i4_file& stream);
    void addServer(i4_file& stream);
    void runCommand(i4_file& stream);
    void connectToServer(i4_file& stream);
    void startSearch(u32 message, i4_file& stream);
    void downloadResult(i4_file& stream);
    void downloadRecord(i4_file& stream);
    void setDownloadPriority(i4_file& stream);
    void setServerPreference(i4_file& stream);
    void wantStatus(Relaxed<u8>& status, u8 wanted);
    void sendSharedDirs();
    void sendSettings();
    void sendDownloadStatus();
    void sendUploadStatus();

    UIStatusThread statusThread_;
    Relaxed<u8> uploadStatus_;
    Relaxed<u8> downloadStatus_;
    bool loggedOn_ = false;
    i4_mutex reportedLock_{LockRank::controller};
    std::unordered_set<const Upload*> reportedUploads_ GUARDED_BY(reportedLock_);
    TcpipUI& ui_;
    Engine& engine_;
    Ref<Search> search_;  // the last search that the controller sent
};

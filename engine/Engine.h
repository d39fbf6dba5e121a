// Engine: one client as an object, with everything it consists of.
#pragma once

#include "core/Core.h"
#include "download/DLPool.h"
#include "download/HashThread.h"
#include "download/PartFileNamer.h"
#include "download/Verifier.h"
#include "engine/ClientApp.h"
#include "engine/EngineUI.h"
#include "peer/CallList.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/RemoteQueueList.h"
#include "peer/UploadPool.h"
#include "server/ServerPool.h"
#include "transport/ConnectRegistry.h"
#include "transport/Transport.h"

// A process may hold several engines. Members are constructed in the order below and destroyed in reverse;
// each may use only those before it. Events for later members go through the interfaces that Engine itself
// implements: Engine.cpp handles events, Engine_messages.cpp handles messages. Construction reads no files
// and starts no threads; ClientApp::init() does.
// Thread: the owner constructs and destroys it; for the rest see the members.
class Engine final : private MessageDuties,
                     private ServerEvents,
                     private PeerListener,
                     private Reach,
                     private SharedFiles,
                     private HashDuties {
  public:
    // Its files are in `workDir`, an absolute path; an empty one means the process's current directory. `ui`
    // must outlive the engine, and must hold no object of the engine when the engine is destroyed.
    Engine(Host& host, const char* workDir, CoreUIInterface& ui);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    Host& host;
    EngineUI ui;  // the modules' output; ui.replace() changes its target
    StateFiles stateFiles{host.disk, ui};
    StringTable stringTable;
    Preferences preferences;
    MessageQ messageQ{host, ui, *this};
    Core core{host, ui, stringTable, preferences, stateFiles, messageQ};

    ConnectRegistry connectRegistry;
    Transport transport{host, ui, preferences, connectRegistry};

    LLsafe<Peer> peers{LockRank::peers};
    Relaxed<i32> strangers;
    const PeerNeeds peerNeeds{core, ui, *this, *this, *this, peers, strangers};
    RemoteQueueList remoteQueueList{host.clock};
    FriendList friendList{peerNeeds};
    CallList callList{peerNeeds, friendList};
    UploadPool uploadPool{peerNeeds};

    const ServerNeeds serverNeeds{core, transport, ui, *this};
    ServerPool serverPool{serverNeeds};

    PartFileNamer partFileNamer{core};
    Verifier verifier{host.scheduler};
    const DownloadNeeds downloadNeeds{
        core, ui, *this, serverPool, *this, partFileNamer, remoteQueueList, peers, verifier};
    DLPool dlPool{downloadNeeds};
    HashThread hashThread{core, ui, *this};

    ClientApp clientApp{{core, transport, ui, peerNeeds, remoteQueueList, friendList, uploadPool, serverPool,
                         dlPool, hashThread}};

  private:
    bool handle(u32 number, QArgument& argument) override;
    void idle(i32 elapsedMs) override;
    bool wantsServer() override;
    i32 untilDue() override;

    void loggedOn() override;
    void serverGone() override;
    bool wantsSources(const MD4Hash& file) override;
    void foundSource(const MD4Hash& file, const UserMeta& user) override;
    void callbackAsked(const UserMeta& user) override;
    void callbackFailed(u32 serverIp, u32 clientId) override;
    void gotResult(std::unique_ptr<FileMeta> file) override;
    void gotResults(FileList* list, bool more) override;
    void gotUserList(UserList* list) override;

    void met(Peer& peer, Met how) override;
    void gone(Peer& peer) override;
    void connectFailed(u32 ip, u16 port) override;
    void gotFileData(Peer& peer, const MD4Hash& file, i4_ram_file_class& stream) override;
    void gotFileStatus(Peer& peer, const MD4Hash& file, const BoolArray& parts) override;
    void gotFileName(Peer& peer, const MD4Hash& file, i4_file& stream) override;
    void gotHashSet(const MD4Hash& file, i4_file& stream) override;
    void noSuchFile(Peer& peer, const MD4Hash& file) override;
    void slotGranted(Peer& peer) override;
    void slotEnded(Peer& peer) override;
    void gotSlotRequest(Peer& peer) override;
    void gotPartRequest(Peer& peer, i4_file& stream) override;
    void uploadStopped(Peer& peer, const MD4Hash& file) override;
    void slotReleased(Peer& peer) override;
    bool awaitsFiles(Peer& peer) override;
    void gotSharedFiles(Peer& peer, OwnedList<FileList> list) override;
    bool gotChatMessage(const UserMeta& user, const char* text) override;
    void chatRefused(const UserMeta& user) override;

    bool mayConnect() override;
    ConnectResult connectToUser(const UserMeta& user, Ref<Peer>& out) override;

    bool find(const MD4Hash& hash, SharedFile& out) override;
    u32 listBytes() override;
    void writeList(i4_file& stream) override;
    void partsDone(const MD4Hash& hash, BoolArray& out) override;
    Ref<PartReader> partsFor(const MD4Hash& hash, const UserMeta& asker) override;

    FileList& known() override;
    FileList& shared() override;
    ShareList& shareDirs() override;
    void addSharedFile(FileMeta* file) override;
    void changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) override;
    bool importFile(FileMeta& file, const char* path, const char* name) override;
    void verify(const Ref<Download>& download, const GiveUp& giveUp) override;
    void publish() override;
};

// The states of a FileSource. Events that a state doesn't name leave it as it is.
//
//   from                    event                                  to
//   FSS_Unasked             tryConnect: in the remote queue        FSS_OnQueue
//                           a connection is under way              FSS_WaitForConnection
//                           it can't be reached                    FSS_BadSource
//                           it is connected                        as FSS_WaitForConnection's peerConnected
//   FSS_Unasked, FSS_OnQueue   offerSlot: it has needed parts      FSS_Transfering
//                           its parts aren't known                 FSS_WaitForChunks
//   FSS_OnQueue             10 minutes; idChanged                  FSS_Unasked
//   FSS_WaitForConnection   peerConnected: its parts aren't known  FSS_WaitForChunksBQ
//                           it has needed parts                    FSS_OnQueue
//                           connectFailed, callbackFailed          FSS_BadSource
//                           4 minutes                              removed
//   FSS_WaitForChunksBQ     gotFileStatus: needed parts / none     FSS_OnQueue / FSS_NoNeededParts
//                           peerGone, noSuchFile                   FSS_BadSource
//   FSS_WaitForChunks       gotFileStatus: needed parts            FSS_Transfering
//                           gotFileStatus: none                    FSS_NoNeededParts, message 23
//                           slotEnded                              FSS_OnQueue
//                           drop, stop, noSuchFile                 FSS_BadSource, message 23
//                           peerGone                               FSS_BadSource
//   FSS_Transfering         nothing left to ask for                FSS_NoNeededParts, message 23
//                           slotEnded                              FSS_OnQueue
//                           6 minutes without data                 FSS_Unasked
//                           drop, noSuchFile                       FSS_BadSource, message 23
//                           peerGone                               FSS_BadSource
//   FSS_BadSource           tick                                   removed
//   FSS_NoNeededParts       30 minutes; a part that it has reopened   FSS_Unasked
#pragma once

#include "download/FileSourceState.h"
#include "peer/Peer.h"

class FSS_Unasked : public FileSourceState {
  public:
    explicit FSS_Unasked(FileSource& owner) : FSS_Unasked(owner, "Unasked") {}
    bool tryConnect() override;
    bool offerSlot(Peer& peer) override;

  protected:
    FSS_Unasked(FileSource& owner, const char* text) : FileSourceState(owner, text) {}
};

class FSS_OnQueue : public FSS_Unasked {
  public:
    explicit FSS_OnQueue(FileSource& owner) : FSS_Unasked(owner, "On Queue") {}
    void idChanged() override;
    bool tryConnect() override { return false; }
    bool tick(i32 elapsedMs) override;

  private:
    i32 waited_ = 0;  // ms
};

class FSS_WaitForConnection : public FileSourceState {
  public:
    explicit FSS_WaitForConnection(FileSource& owner) : FileSourceState(owner, "Waiting for Connection") {}
    void peerConnected(Peer& peer) override;
    bool callbackFailed(u32 serverIp, u32 clientId) override;
    bool connectFailed(u32 ip, u16 port) override;
    bool tick(i32 elapsedMs) override;

  private:
    i32 waited_ = 0;  // ms
};

// What the states that talk to a Peer share.
class PeerState : public FileSourceState {
  public:
    PeerState(FileSource& owner, const char* text, Peer& peer) : FileSourceState(owner, text), peer_(&peer) {}
    bool askHashSet() override;

  protected:
    bool isMine(const Peer& peer) const { return peer_.get() == &peer; }
    // The slot that the peer gave is free for other downloads.
    void leaveSlot(Ref<Peer> peer);

    const Ref<Peer> peer_;
};

// Waits for the peer's parts before queueing.
class FSS_WaitForChunksBQ : public PeerState {
  public:
    FSS_WaitForChunksBQ(FileSource& owner, Peer& peer) : PeerState(owner, "Waiting for Chunks", peer) {}
    bool gotFileStatus(Peer& peer, const BoolArray& parts) override;
    void peerGone(Peer& peer) override;
    void noSuchFile(Peer& peer) override;
};

// Waits for the peer's parts with its slot already here.
class FSS_WaitForChunks : public PeerState {
  public:
    FSS_WaitForChunks(FileSource& owner, Peer& peer) : PeerState(owner, "Waiting for Chunks", peer) {}
    void drop() override;
    void stop() override;
    bool usesSlot(const Peer& peer) const override { return isMine(peer); }
    bool gotFileStatus(Peer& peer, const BoolArray& parts) override;
    bool slotEnded(Peer& peer) override;
    void peerGone(Peer& peer) override;
    void noSuchFile(Peer& peer) override;
};

// Asks for up to three chunks, in the order in which they are expected. An empty slot has end 0.
class FSS_Transfering : public PeerState {
  public:
    FSS_Transfering(FileSource& owner, Peer& peer);
    ~FSS_Transfering() override;
    void enter() override;
    void pause() override;
    void drop() override;
    void diskFull() override { pause(); }
    void stop() override { drop(); }
    void requestChunks() override;
    bool usesSlot(const Peer& peer) const override { return isMine(peer); }
    bool gotFileStatus(Peer& peer, const BoolArray& parts) override;
    bool slotEnded(Peer& peer) override;
    void peerGone(Peer& peer) override;
    void gotData(Peer& peer) override;
    void noSuchFile(Peer& peer) override;
    bool tick(i32 elapsedMs) override;
    void partReopened(u32 part) override;

  private:
    static constexpr int chunks = 3;

    void giveBack();

    i32 statusTimer_ = 0;  // ms since the peer's parts were asked for
    i32 idleTimer_ = 0;    // ms without data
    u32 starts_[chunks] = {};
    u32 ends_[chunks] = {};
};

class FSS_BadSource : public FileSourceState {
  public:
    explicit FSS_BadSource(FileSource& owner) : FileSourceState(owner, "Bad Source") {}
    bool tick(i32) override { return false; }
};

class FSS_NoNeededParts : public FileSourceState {
  public:
    explicit FSS_NoNeededParts(FileSource& owner) : FileSourceState(owner, "No Needed Parts") {}
    bool tick(i32 elapsedMs) override;
    void partReopened(u32 part) override;

  private:
    i32 waited_ = 0;  // ms
};

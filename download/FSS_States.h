// The states of a FileSource. Events that a state doesn't name leave it as it is. A peer that closes, or was
// closed before the state began, counts as gone in every state that talks to it.
//
//   from                    event                                  to
//   FSS_Unasked             tryConnect: in the remote queue        FSS_OnQueue
//                           a connection is under way              FSS_WaitForConnection
//                           it can't be reached                    FSS_BadSource
//                           it is connected                        as peerConnected
//   FSS_Unasked, FSS_WaitForConnection
//                           peerConnected: its parts aren't known  FSS_WaitForChunksBQ
//                           it has needed parts                    FSS_OnQueue
//   FSS_Unasked, FSS_OnQueue   offerSlot: it has needed parts      FSS_Transfering
//                           its parts aren't known                 FSS_WaitForChunks
//   FSS_OnQueue             10 minutes; idChanged                  FSS_Unasked
//   FSS_WaitForConnection   connectFailed, callbackFailed          FSS_BadSource
//                           4 minutes                              removed
//   FSS_WaitForChunksBQ     gotFileStatus: needed parts / none     FSS_OnQueue / FSS_NoNeededParts
//                           peerGone, noSuchFile, 1 minute         FSS_BadSource
//   FSS_WaitForChunks       gotFileStatus: needed parts            FSS_Transfering
//                           gotFileStatus: none                    FSS_NoNeededParts, message 23
//                           slotEnded                              FSS_OnQueue
//                           drop, noSuchFile, 1 minute             FSS_BadSource, message 23
//                           peerGone                               FSS_BadSource
//   FSS_Transfering         nothing of it is missing any more      FSS_NoNeededParts, message 23
//                           slotEnded                              FSS_OnQueue
//                           6 minutes without useful data          FSS_Unasked
//                           drop, noSuchFile                       FSS_BadSource, message 23
//                           peerGone                               FSS_BadSource
//   FSS_BadSource           tick                                   removed
//   FSS_NoNeededParts       30 minutes; a part that it has reopened   FSS_Unasked
#pragma once

#include <array>

#include "download/FileSourceState.h"
#include "peer/Peer.h"

class FSS_Unasked : public FileSourceState {
  public:
    explicit FSS_Unasked(FileSource& owner) : FSS_Unasked(owner, "Unasked", 0) {}
    bool tryConnect() override;
    void peerConnected(Peer& peer) override;
    bool offerSlot(Peer& peer) override;

  protected:
    FSS_Unasked(FileSource& owner, const char* text, i32 limitMs) : FileSourceState(owner, text, limitMs) {}
};

class FSS_OnQueue : public FSS_Unasked {
  public:
    explicit FSS_OnQueue(FileSource& owner) : FSS_Unasked(owner, "On Queue", 600'000) {}
    void idChanged() override;
    bool tryConnect() override { return false; }
    void peerConnected(Peer&) override {}

  protected:
    bool timedOut() override;
};

class FSS_WaitForConnection : public FileSourceState {
  public:
    explicit FSS_WaitForConnection(FileSource& owner)
        : FileSourceState(owner, "Waiting for Connection", 240'000) {}
    void peerConnected(Peer& peer) override;
    void reachFailed(const ReachEvent& how) override;

  protected:
    bool timedOut() override { return false; }
};

// What the states share that talk to a peer, which is source.peer() as long as the state lasts.
class PeerState : public FileSourceState {
  public:
    PeerState(FileSource& owner, const char* text, i32 limitMs, Peer& peer);
    ~PeerState() override;
    bool askHashSet() override;
    void peerGone() override { FileSourceState::drop(); }
    void noSuchFile() override { drop(); }

  protected:
    bool timedOut() override;
    // The slot that the peer gave is free for other downloads.
    void leaveSlot();
};

// Waits for the peer's parts before queueing.
class FSS_WaitForChunksBQ : public PeerState {
  public:
    FSS_WaitForChunksBQ(FileSource& owner, Peer& peer)
        : PeerState(owner, "Waiting for Chunks", 60'000, peer) {}
    void gotFileStatus(const BoolArray& parts) override;
};

// Waits for the peer's parts with its slot already here.
class FSS_WaitForChunks : public PeerState {
  public:
    FSS_WaitForChunks(FileSource& owner, Peer& peer) : PeerState(owner, "Waiting for Chunks", 60'000, peer) {}
    void drop() override;
    bool usesSlot() const override { return true; }
    void gotFileStatus(const BoolArray& parts) override;
    void slotEnded() override;
};

// Asks for up to three chunks, in the order in which they are expected. Bytes of a chunk that another source
// has taken over are still good while they are missing.
class FSS_Transfering : public PeerState {
  public:
    FSS_Transfering(FileSource& owner, Peer& peer);
    ~FSS_Transfering() override;
    void enter() override;
    void drop() override;
    bool usesSlot() const override { return true; }
    void gotFileStatus(const BoolArray& parts) override;
    void slotEnded() override;
    void peerGone() override;
    void noSuchFile() override;
    bool wasAskedFor(u32 start, u32 end) const override;
    void gotData(u32 bytes) override;
    bool tick(i32 elapsedMs) override;
    void partReopened(u32 part) override;
    void askForMore() override;
    Chunk letGo(const BoolArray& takersParts, f32 takersSpeed) override;

  protected:
    bool timedOut() override;

  private:
    struct Place {
        Chunk chunk;
        bool isMine = false;  // the progress has it as requested by this source
    };

    bool fillPlaces();
    void giveBack(Place& place);
    void dropChunksOf(u32 part);
    bool closeRanks();
    void measureSpeed(i32 elapsedMs);
    bool isMuchSlower(f32 bytes, const Chunk& rest, f32 takersSpeed) const;

    std::array<Place, 3> places_;
    i32 statusTimer_ = 0;  // ms since the peer's parts were asked for
    i32 busy_ = 0;         // ms since it was asked for something, with nothing under way before
    i32 speedWindow_ = 0;  // ms
    u32 windowBytes_ = 0;
    f32 speed_ = 0;  // bytes per ms
};

class FSS_BadSource : public FileSourceState {
  public:
    explicit FSS_BadSource(FileSource& owner) : FileSourceState(owner, "Bad Source", 0) {}
    void drop() override {}
    bool tick(i32) override { return false; }
};

class FSS_NoNeededParts : public FileSourceState {
  public:
    explicit FSS_NoNeededParts(FileSource& owner) : FileSourceState(owner, "No Needed Parts", 1'800'000) {}
    void partReopened(u32 part) override;

  protected:
    bool timedOut() override;
};

// DLS_Downloading, the state in which the work happens: owns the sources, measures the speed, decides when
// another source may be tried, and asks servers for sources and sources for part hashes.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "download/DownloadState.h"
#include "download/FileSource.h"
#include "server/ServerAsk.h"

// Owns: its sources and its list of servers to ask.
class DLS_Downloading : public DownloadState {
  public:
    explicit DLS_Downloading(DownloadBody& owner);
    ~DLS_Downloading() override;

    u32 diskNeeded() override { return bytesToFill(); }
    LL<FileSource>* getSources() override { return &sources_; }
    bool wantsTicks() override { return true; }
    void tick(i32 elapsedMs) override;
    void pause() override;
    void cancel() override;
    void diskFull() override;
    void stop() override;
    void idChanged() override;
    void gotData(i4_ram_file_class& packet, Peer& peer) override;
    void addSource(const UserMeta& user) override;
    void peerConnected(Peer& peer) override;
    bool offerSlot(Peer& peer) override;
    bool usesSlot(const Peer& peer) override;
    bool slotEnded(Peer& peer) override;
    bool gotFileStatus(Peer& peer, const BoolArray& parts) override;
    void noSuchFile(Peer& peer) override;
    void peerGone(Peer& peer) override;
    void gotFileName(const char* name, Peer& peer) override;
    void callbackFailed(u32 serverIp, u32 clientId) override;
    void connectFailed(u32 ip, u16 port) override;

  private:
    void finish();
    void askHashSet(i32 elapsedMs);
    void updateSpeed(i32 elapsedMs);
    void startMore();
    void refreshServers(i32 elapsedMs);
    void listServersAnew();
    template <class Operation>
    void forEachSource(Operation operation);
    template <class Operation>
    bool untilTrue(Operation operation);

    std::vector<ServerAsk> servers_;
    OwnLL<FileSource> sources_;
    i32 serverListAge_ = 0;         // ms
    i32 hashTimer_ = 60'000;        // ms since the part hashes were last asked for
    i32 speedWindow_ = 0;           // ms in the current sample
    std::array<f32, 8> samples_{};  // bytes per ms
    u32 lastTransferred_;
    u32 sampleIndex_ = 0;
};

// DLS_Downloading, the state in which the work happens: owns the sources, measures the speed, decides when
// another source may be tried, and asks servers for sources and sources for part hashes.
#pragma once

#include <array>
#include <memory>
#include <optional>
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
    void stop() override { dropAll(); }
    void idChanged() override;
    void addSource(const UserMeta& user) override;
    bool on(Peer& peer, const PeerEvent& event) override;
    void on(const ReachEvent& event) override;
    void hashSetKnown() override;
    void partChecked(const CheckedPart& checked, const std::vector<u32>& liars) override;
    bool hasOthersToAsk() override;

    // Writes bytes that an account gave, noAccount for none, and has the verifier check what is complete. The
    // result is what was missing of them; nothing where they ended this state.
    std::optional<u32> take(i4_ram_file_class& packet, u32 start, u32 end, u32 account);

  private:
    void gotData(FileSource& source, i4_ram_file_class& packet);
    FileSource* sourceOf(Peer& peer);
    void checkParts(u32 first, u32 last);
    bool finishIfWhole();
    bool stopOnLoss();
    void letSourcesAsk();
    void dropAll();
    void askHashSet(i32 elapsedMs);
    void updateSpeed(i32 elapsedMs);
    void startMore();
    void refreshServers(i32 elapsedMs);
    void listServersAnew();
    template <class Operation>
    void forEachSource(Operation operation);
    template <class Operation>
    bool untilTrue(Operation operation);
    void askSomeHashSet();

    std::vector<ServerAsk> servers_;
    OwnLL<FileSource> sources_;
    i32 serverListAge_ = 0;          // ms
    i32 hashTimer_ = 60'000;         // ms since the part hashes were last asked for
    std::size_t hashQuestions_ = 0;  // how often a source was asked for the part hashes
    bool isUnchecked_ = false;       // the verifier had no room for a part
    i32 moreTimer_ = 0;              // ms since the sources looked for more to ask for
    i32 speedWindow_ = 0;            // ms in the current sample
    std::array<f32, 8> samples_{};   // bytes per ms
    u32 lastTransferred_;
    u32 sampleIndex_ = 0;
};

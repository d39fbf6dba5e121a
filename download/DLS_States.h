// The states of a Download but for DLS_Downloading.
//
//   from                    event                          to                     also
//   none                    constructor                    DLS_Queued
//   none                    load failed                    DLS_Done 9
//   none                    load, running                  DLS_Hashing            queued at HashThread
//   none                    load, paused                   DLS_PausedHashing      queued at HashThread
//   DLS_Hashing             hashDone                       DLS_Queued             message 22
//   DLS_PausedHashing       hashDone                       DLS_Paused
//   DLS_[Paused]Hashing     a part can't be read           DLS_Done 13            message 11
//   DLS_Queued              tick, a source may start       DLS_Downloading        ticks at once
//   DLS_Queued              pause                          DLS_Paused
//   DLS_Downloading         pause                          DLS_Paused             sources gone, message 22
//   DLS_Downloading         diskFull                       DLS_DiskFull           sources gone
//   DLS_Downloading         the last gap closes            DLS_Done 10            the completer starts
//   DLS_Done 10             the completer ends             DLS_Done 11 or 12      message 11
//   DLS_Paused              resume                         DLS_Queued             message 22
//   DLS_DiskFull            diskFreed / pause              DLS_Queued / DLS_Paused
//   DLS_NoSources           tick, 20 minutes / pause       DLS_Queued / DLS_Paused
//   all but DLS_Done and the hashing ones: cancel          leaves the pool        files deleted, message 11
#pragma once

#include "download/DownloadState.h"

class DLS_Queued : public DownloadState {
  public:
    explicit DLS_Queued(DownloadBody& owner) : DownloadState(owner, DL_STATUS_QUEUED) {}
    bool wantsTicks() override { return true; }
    void tick(i32 elapsedMs) override;
    void pause() override;
};

class DLS_Paused : public DownloadState {
  public:
    explicit DLS_Paused(DownloadBody& owner) : DownloadState(owner, DL_STATUS_PAUSED) {}
    bool isPaused() override { return true; }
    void resume() override;
};

class DLS_DiskFull : public DownloadState {
  public:
    explicit DLS_DiskFull(DownloadBody& owner) : DownloadState(owner, DL_STATUS_DISKFULL) {}
    void pause() override;
    u32 diskFreed() override;
};

class DLS_NoSources : public DownloadState {
  public:
    explicit DLS_NoSources(DownloadBody& owner) : DownloadState(owner, DL_STATUS_NOSOURCES) {}
    bool wantsTicks() override { return true; }
    void tick(i32 elapsedMs) override;
    void pause() override;

  private:
    i32 idle_ = 0;  // ms
};

// The end of a download, or its failure: status 9 to 13.
class DLS_Done : public DownloadState {
  public:
    using DownloadState::DownloadState;
    void cancel() override {}
};

class DLS_Hashing : public DownloadState {
  public:
    explicit DLS_Hashing(DownloadBody& owner) : DownloadState(owner, DL_STATUS_HASHING) {}
    void cancel() override;  // refused
    void hashDone() override;
};

class DLS_PausedHashing : public DownloadState {
  public:
    explicit DLS_PausedHashing(DownloadBody& owner) : DownloadState(owner, DL_STATUS_HASHING) {}
    void cancel() override;  // refused
    void hashDone() override;
};

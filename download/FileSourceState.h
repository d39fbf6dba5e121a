// FileSourceState, what a FileSource does in one of its states. This class has the default of every event;
// the FSS_* classes in FSS_States.h, where the table stands, override what differs.
#pragma once

#include "download/DLProgress.h"
#include "download/SourceEvent.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/BoolArray.h"

class FileSource;
class Peer;

// Each state has a time limit, and tick() keeps it for all of them.
// Thread: under the Download's lock. Owned by its FileSource, whose setState() destroys it: a state always
// leaves by `return source.setState(...)` or touches no member of itself afterwards.
class FileSourceState {
  public:
    FileSourceState(FileSource& owner, const char* text, i32 limitMs)
        : label(text), source(owner), limit_(limitMs) {}
    FileSourceState(const FileSourceState&) = delete;
    FileSourceState& operator=(const FileSourceState&) = delete;
    virtual ~FileSourceState() = default;

    virtual void enter() {}
    virtual void drop();  // to FSS_BadSource
    virtual void idChanged() {}
    // True where a connection was tried.
    virtual bool tryConnect() { return false; }
    virtual bool askHashSet() { return false; }
    virtual void peerConnected(Peer& /*peer*/) {}
    virtual bool offerSlot(Peer& /*peer*/) { return false; }
    virtual void reachFailed(const ReachEvent& /*how*/) {}

    // These come from the peer with which it talks.
    virtual void gotFileStatus(const BoolArray& /*parts*/) {}
    virtual void slotEnded() {}
    virtual void peerGone() {}
    virtual void noSuchFile() {}
    // Whether it was asked for all of this range.
    virtual bool wasAskedFor(u32 /*start*/, u32 /*end*/) const { return false; }
    // So many bytes of what it sent were missing.
    virtual void gotData(u32 /*bytes*/) {}
    // The slot that the peer gave is in use.
    virtual bool usesSlot() const { return false; }

    // False: take this source off the list and destroy it.
    virtual bool tick(i32 elapsedMs);
    // This part of the file is missing again.
    virtual void partReopened(u32 /*part*/) {}
    // Asks for what has become free.
    virtual void askForMore() {}
    // Lets another source that is so fast, in bytes per ms, ask for the rest of a chunk that this one doesn't
    // get done. Empty where it has none.
    virtual Chunk letGo(const BoolArray& /*takersParts*/, f32 /*takersSpeed*/) { return {}; }

    const char* const label;  // shown for this source
    FileSource& source;

  protected:
    // The time is up; the result is that of tick().
    virtual bool timedOut() { return true; }
    void restartLimit() { waited_ = 0; }
    i32 waited() const { return waited_; }  // ms

  private:
    const i32 limit_;  // ms, 0 for none
    i32 waited_ = 0;   // ms
};

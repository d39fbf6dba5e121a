// FileSourceState, what a FileSource does in one of its states. This class has the default of every event;
// the FSS_* classes in FSS_States.h, where the table stands, override what differs.
#pragma once

#include "i4min/threads/linux/RefCounter.h"
#include "meta/BoolArray.h"

class FileSource;
class Peer;

// Thread: under the Download's lock. Owned by its FileSource, whose setState() destroys it: a state always
// leaves by `return source.setState(...)` or touches no member of itself afterwards.
class FileSourceState {
  public:
    FileSourceState(FileSource& owner, const char* text) : label(text), source(owner) {}
    FileSourceState(const FileSourceState&) = delete;
    FileSourceState& operator=(const FileSourceState&) = delete;
    virtual ~FileSourceState() = default;

    virtual void enter() {}
    virtual void pause() { drop(); }
    virtual void drop();  // to FSS_BadSource
    virtual void diskFull() { drop(); }
    virtual void complete() { drop(); }
    virtual void stop() {}
    virtual void idChanged() {}
    virtual bool tryConnect() { return false; }
    virtual void requestChunks() {}
    virtual bool askHashSet() { return false; }
    virtual void peerConnected(Peer& /*peer*/) {}
    virtual bool offerSlot(Peer& /*peer*/) { return false; }
    // The slot that this peer gave is in use here.
    virtual bool usesSlot(const Peer& /*peer*/) const { return false; }
    virtual bool gotFileStatus(Peer& /*peer*/, const BoolArray& /*parts*/) { return false; }
    virtual bool slotEnded(Peer& /*peer*/) { return false; }
    virtual void peerGone(Peer& /*peer*/) {}
    virtual void gotData(Peer& /*peer*/) {}
    virtual void noSuchFile(Peer& /*peer*/) {}
    virtual bool callbackFailed(u32 /*serverIp*/, u32 /*clientId*/) { return false; }
    virtual bool connectFailed(u32 /*ip*/, u16 /*port*/) { return false; }
    // False: take this source off the list and destroy it.
    virtual bool tick(i32 /*elapsedMs*/) { return true; }
    // This part of the file is missing again.
    virtual void partReopened(u32 /*part*/) {}

    const char* const label;  // shown for this source
    FileSource& source;
};

// Upload, one running transfer of one file to one Peer.
#pragma once

#include <array>
#include <memory>
#include <utility>

#include "core/UIInterface.h"
#include "i4min/file/file.h"
#include "i4min/memory/relaxed.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MD4Hash.h"

class Peer;
class Upload;
class UserMeta;

// Who runs the uploads. Thread: any.
class UploadOwner {
  public:
    virtual void endUpload(Upload& upload) = 0;
    virtual void markReplaceable(Upload& upload) = 0;

  protected:
    ~UploadOwner() = default;
};

// Reads the file piece by piece and has one packet in flight: the next is built when the last has left.
// Thread: setRanges() and sendNext() on the socket pool's, updateSpeed() on MessageQ's; the words are any
// thread's.
// Owns: its file.    Borrows: its Peer, counted.
class Upload : public RefCounter {
  public:
    // `hash` names the file; `name` is what it is called.
    Upload(UploadOwner& owner, UIInterface& log, std::unique_ptr<i4_file> file, Peer& peer, const char* name,
           const MD4Hash& hash);
    ~Upload() override;
    // Reads `length` bytes at the present position. False on failure.
    virtual bool readData(u8* buffer, u32 length);
    // Of the time between two ticks, what is this transfer's: nothing the first time, since it has just
    // begun.
    i32 ownTime(i32 elapsedMs) { return std::exchange(isTimed_, true) ? elapsedMs : 0; }
    virtual void updateSpeed(i32 elapsedMs);
    // What the peer asks for; the first range is sent first. A range whose end isn't above its start is
    // empty.
    virtual void setRanges(const u32 (&starts)[3], const u32 (&ends)[3]);

    // Sends the next packet, or ends the transfer. One whose ranges have run out waits a moment for the next
    // request, which may be on its way: a fast line takes the last range before the peer has the first.
    void sendNext();
    // On the socket pool's thread: whether its ranges have run out, so that a request has to set it going
    // again.
    bool hasRunDry() const { return isDry_ != 0; }
    // Under the UploadPool's lock: false when it has been dry for long enough.
    bool mayStayDry(i32 elapsedMs);
    void stop() { stopped_ = 1; }
    bool isPeer(const Peer& other) const;
    bool isOf(const UserMeta& user) const;  // by the user hash where it is known
    Peer& peer() const;
    i4_string getPeerName() const;
    void copyPeerUser(UserMeta& out) const;
    MD4Hash userHash() const { return userHash_; }  // the peer's, when the transfer was made
    const char* getName() const { return name_.c_str(); }
    const MD4Hash& hash() const { return hash_; }

    Relaxed<u32> bytesSent;  // written on the socket by this transfer's packets
    Relaxed<f32> speed;      // KB/s, the mean of the last eight samples

  protected:
    u32 position() const { return position_; }

    std::unique_ptr<i4_file> file_;

  private:
    struct Range {
        u32 start = 0;
        u32 end = 0;
        bool operator==(const Range&) const = default;
    };
    void finishRange();
    void dropRepeats();

    i4_string name_;
    std::array<Range, 3> ranges_{};    // asked for; the first is being sent
    std::array<Range, 3> finished_{};  // the ranges that were finished last, the newest first
    bool askedForNothing_ = false;     // the last request was for three empty ranges
    u32 position_ = 0;                 // the next byte to send
    bool isTimed_ = false;
    i32 speedClock_ = 0;  // ms since the last sample
    std::array<f32, 8> speeds_{};
    u32 lastBytes_ = 0;
    u32 speedIndex_ = 0;
    Relaxed<u32> packetSize_{10'240};  // most file bytes per packet
    Relaxed<u8> stopped_{0};
    Relaxed<u8> isDry_{0};   // its ranges have run out, and it waits for the next request
    Relaxed<u32> timesDry_;  // how often that has come
    u32 seenTimesDry_ = 0;   // these two under the UploadPool's lock
    i32 dryMs_ = 0;          // how long it is dry
    const Ref<Peer> peer_;
    const MD4Hash hash_;
    const MD4Hash userHash_;
    UploadOwner& owner_;
    UIInterface& log_;
    const bool isTold_;  // its start, and so its end
};

// Upload: one running transfer of a file to a Peer.
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

// The interface through which uploads end, and become replaceable by others. UploadPool implements it.
// Thread: any.
class UploadOwner {
  public:
    virtual void endUpload(Upload& upload) = 0;
    virtual void markReplaceable(Upload& upload) = 0;

  protected:
    ~UploadOwner() = default;
};

// Reads the file piece by piece. One packet is in flight at a time; the next is built when the last was sent.
// Thread: setRanges() and sendNext() on the socket pool's, updateSpeed() on MessageQ's; any thread may use
// the atomic members.
// Owns: its file. Borrows: its Peer, counted.
class Upload : public RefCounter {
  public:
    // `hash` identifies the file, `name` is the one to show.
    Upload(UploadOwner& owner, UIInterface& log, std::unique_ptr<i4_file> file, Peer& peer, const char* name,
           const MD4Hash& hash);
    ~Upload() override;
    // Reads `length` bytes at the current position. Returns false on failure.
    virtual bool readData(u8* buffer, u32 length);
    // Returns the part of a tick that counts for this upload: 0 in its first tick, since it began during it.
    i32 ownTime(i32 elapsedMs) { return std::exchange(isTimed_, true) ? elapsedMs : 0; }
    virtual void updateSpeed(i32 elapsedMs);
    // Sets the ranges that the peer requests; the first is sent first. A range is empty if its end isn't
    // above its start.
    virtual void setRanges(const u32 (&starts)[3], const u32 (&ends)[3]);

    // Sends the next packet, or ends the upload. Once all ranges are sent it waits a moment for the next
    // request: on a fast line the last range is sent before the peer has received the first.
    void sendNext();
    // True if all ranges are sent, so that the next request must restart sending. Thread: the socket pool's.
    bool hasRunDry() const { return isDry_ != 0; }
    // Returns false if the upload has been dry for too long. Requires UploadPool's lock.
    bool mayStayDry(i32 elapsedMs);
    void stop() { stopped_ = 1; }
    bool isPeer(const Peer& other) const;
    bool isOf(const UserMeta& user) const;  // by the user hash where it is known
    Peer& peer() const;
    i4_string getPeerName() const;
    void copyPeerUser(UserMeta& out) const;
    MD4Hash userHash() const { return userHash_; }  // the peer's, when the upload began
    const char* getName() const { return name_.c_str(); }
    const MD4Hash& hash() const { return hash_; }

    Relaxed<u32> bytesSent;  // written to the socket by this upload's packets
    Relaxed<f32> speed;      // KB/s, mean of the last eight samples

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
    std::array<Range, 3> ranges_{};    // requested; the first is being sent
    std::array<Range, 3> finished_{};  // the ranges finished last, newest first
    bool askedForNothing_ = false;     // the last request was for three empty ranges
    u32 position_ = 0;                 // the next byte to send
    bool isTimed_ = false;
    i32 speedClock_ = 0;  // ms since the last sample
    std::array<f32, 8> speeds_{};
    u32 lastBytes_ = 0;
    u32 speedIndex_ = 0;
    Relaxed<u32> packetSize_{10'240};  // most file bytes per packet
    Relaxed<u8> stopped_{0};
    Relaxed<u8> isDry_{0};   // all ranges are sent; waiting for the next request
    Relaxed<u32> timesDry_;  // how often it became dry
    u32 seenTimesDry_ = 0;   // this and dryMs_ are guarded by UploadPool's lock
    i32 dryMs_ = 0;          // how long it has been dry
    const Ref<Peer> peer_;
    const MD4Hash hash_;
    const MD4Hash userHash_;
    UploadOwner& owner_;
    UIInterface& log_;
    const bool isShown_;  // the start was shown to the user, so show the end
};

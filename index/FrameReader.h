// FrameReader, which cuts a TCP stream into packets.
#pragma once

#include "index/Bytes.h"
#include "protocol/ServerProtocol.h"

// A packet is the marker, a u32 length and so many bytes. Memory grows with the bytes that have arrived, not
// with what a header promises.
class FrameReader {
  public:
    void feed(ByteSpan bytes) { buffer_.insert(buffer_.end(), bytes.begin(), bytes.end()); }
    // Takes the next whole packet's body; false if there is none yet, or the stream is broken.
    bool next(Bytes& body, u32 limit) {
        if (isBroken(limit) || !hasPacket()) return false;
        const auto start = buffer_.begin() + static_cast<std::ptrdiff_t>(at_ + 5);
        const u32 count = length();
        body.assign(start, start + static_cast<std::ptrdiff_t>(count));
        at_ += 5 + count;
        if (at_ == buffer_.size() || at_ > 65536) {
            buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(at_));
            if (buffer_.capacity() / 4 > buffer_.size()) buffer_.shrink_to_fit();
            at_ = 0;
        }
        return true;
    }
    // A wrong marker, an empty packet or one above the limit: no packet can follow.
    bool isBroken(u32 limit) const {
        if (size() > 0 && buffer_[at_] != packetMarker) return true;
        return size() >= 5 && (length() == 0 || length() > limit);
    }
    bool hasPacket() const { return size() >= 5 && size() - 5 >= length(); }
    std::size_t size() const { return buffer_.size() - at_; }  // bytes that wait

  private:
    u32 length() const { return ByteReader(ByteSpan(buffer_).subspan(at_ + 1, 4)).read32(); }

    Bytes buffer_;
    std::size_t at_ = 0;
};

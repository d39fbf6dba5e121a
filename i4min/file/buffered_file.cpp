#include "i4min/file/buffered_file.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr u32 largest = std::numeric_limits<i32>::max();

}  // namespace

i4_buffered_file_class::i4_buffered_file_class(std::unique_ptr<i4_file> inner, u32 buffer_size, u32 offset)
    : inner_(std::move(inner)),
      buffer_(std::clamp<u32>(buffer_size, 1, largest)),
      buf_start_(offset),
      buf_end_(offset),
      offset_(offset) {}

i4_buffered_file_class::~i4_buffered_file_class() { i4_buffered_file_class::flush(); }

i4_file* i4_buffered_file_class::flush() {
    if (write_mode_) writeOut();
    return this;
}

// Leaves the buffer empty behind what it held.
void i4_buffered_file_class::writeOut() {
    const u8* bytes = buffer_.data();
    while (buf_start_ != buf_end_ && !failed_) {
        const i32 written = inner_->write({bytes, buf_end_ - buf_start_});
        if (written <= 0) {
            failed_ = true;
        } else {
            bytes += written;
            buf_start_ += static_cast<u32>(written);
        }
    }
    buf_start_ = buf_end_;
}

i32 i4_buffered_file_class::read(std::span<u8> to) {
    flush();
    write_mode_ = false;
    const auto count = static_cast<u32>(std::min<std::size_t>(to.size(), largest));
    u32 done = 0;
    while (done < count) {
        if (offset_ >= buf_start_ && offset_ < buf_end_) {
            const u32 length = std::min(count - done, buf_end_ - offset_);
            std::memcpy(to.data() + done, buffer_.data() + (offset_ - buf_start_), length);
            offset_ += length;
            done += length;
        } else if (offset_ != buf_end_) {
            inner_->seek(offset_);
            buf_start_ = buf_end_ = offset_;
        } else {
            buf_start_ = offset_;
            const i32 got = inner_->read(buffer_);
            buf_end_ = offset_ + static_cast<u32>(std::max(0, got));
            if (got <= 0) break;
        }
    }
    return static_cast<i32>(done);
}

i32 i4_buffered_file_class::write(std::span<const u8> bytes) {
    if (!write_mode_) {
        inner_->seek(offset_);
        buf_start_ = buf_end_ = offset_;
        write_mode_ = true;
    }
    const auto room = static_cast<u32>(buffer_.size());
    const auto count = static_cast<u32>(std::min<std::size_t>(bytes.size(), largest));
    for (u32 done = 0; done < count && !failed_;) {
        if (offset_ >= buf_start_ && offset_ <= buf_end_) {
            const u32 at = offset_ - buf_start_;
            const u32 length = std::min(count - done, room - at);
            std::memcpy(buffer_.data() + at, bytes.data() + done, length);
            offset_ += length;
            done += length;
            buf_end_ = std::max(buf_end_, offset_);
            if (buf_end_ - buf_start_ == room) writeOut();
        } else if (buf_start_ != buf_end_) {
            writeOut();
        } else {
            inner_->seek(offset_);
            buf_start_ = buf_end_ = offset_;
        }
    }
    return failed_ ? -1 : static_cast<i32>(count);
}

u8* i4_buffered_file_class::map(u32 offset, u32 length, u32 flags) {
    flush();
    return inner_->map(offset, length, flags);
}

std::optional<u32> i4_buffered_file_class::bytesLeft() {
    flush();
    const std::optional<u32> left = inner_->bytesLeft();
    if (!left) return std::nullopt;
    const u64 end = u64{*left} + buf_end_;
    return offset_ >= end ? 0 : static_cast<u32>(std::min<u64>(end - offset_, largest));
}

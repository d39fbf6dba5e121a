// i4_buffered_file_class, which collects small reads and writes on another stream.
#pragma once

#include <memory>
#include <vector>

#include "i4min/file/file.h"

// Thread: one at a time. Owns the inner stream, which stands at `offset` when it is handed over, and which
// nobody else moves meanwhile. A write that the inner stream refuses is lost, and this and every later write
// gives -1.
class i4_buffered_file_class : public i4_file {
  public:
    i4_buffered_file_class(std::unique_ptr<i4_file> inner, u32 buffer_size, u32 offset);
    i4_buffered_file_class(const i4_buffered_file_class&) = delete;
    i4_buffered_file_class& operator=(const i4_buffered_file_class&) = delete;
    ~i4_buffered_file_class() override;

    i4_file* flush() override;
    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;
    u32 seek(u32 offset) override { return offset_ = offset; }
    u32 size() override { return inner_->size(); }  // of what has been written out
    u32 tell() override { return offset_; }
    u8* map(u32 offset, u32 length, u32 flags) override;
    bool unmap(u32 offset, u32 length) override { return inner_->unmap(offset, length); }
    std::optional<u32> bytesLeft() override;

  private:
    void writeOut();

    const std::unique_ptr<i4_file> inner_;
    std::vector<u8> buffer_;
    // The offsets that the buffer covers. The inner stream stands at buf_end_ while reading, and at
    // buf_start_ while writing.
    u32 buf_start_;
    u32 buf_end_;
    u32 offset_;
    bool write_mode_ = false;
    bool failed_ = false;
};

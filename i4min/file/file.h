// i4_file, the byte stream behind everything that is read or written: disk files, memory, sockets, the
// console.
#pragma once

#include <bit>
#include <cstdarg>
#include <memory>
#include <optional>
#include <span>

#include "i4min/file/log.h"
#include "i4min/memory/bytes.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

// The abstract stream. Thread: one at a time. Multi-byte values are little-endian on every host.
// Errors: the typed readers raise an i4_err on a short read; writers return the bytes written and don't
// raise.
class i4_file {
  public:
    virtual i4_file* flush() { return this; }
    // Bytes read, 0 at the end or when nothing is ready, negative on a failing system call.
    virtual i32 read(std::span<u8> to) = 0;
    virtual i32 write(std::span<const u8> bytes) = 0;
    // These three are 0 for a stream without positions, such as a socket.
    virtual u32 seek(u32 /*offset*/) { return 0; }  // absolute; returns the new offset
    virtual u32 size() { return 0; }
    virtual u32 tell() { return 0; }
    // The stream's bytes in memory, null where it has none there.
    virtual u8* map(u32 /*offset*/, u32 /*length*/, u32 /*flags*/) { return nullptr; }
    virtual bool unmap(u32 /*offset*/, u32 /*length*/) { return false; }
    virtual ~i4_file() = default;
    // How many bytes can still be read, if the stream knows. Parsers allocate no more than that, whatever a
    // format promises. Empty for sockets and the console.
    virtual std::optional<u32> bytesLeft() { return std::nullopt; }

    u8 read_8() { return static_cast<u8>(readLittle(1)); }
    u16 read_16() { return static_cast<u16>(readLittle(2)); }
    u32 read_32() { return readLittle(4); }
    f32 read_float() { return std::bit_cast<f32>(read_32()); }
    void readAll(std::span<u8> to);
    // Raises "readAll error" unless `count` bytes may still come: asked before memory is taken for them.
    void expect(u64 count);

    u32 write_8(u8 value) { return writeLittle(value, 1); }
    u32 write_16(u16 value) { return writeLittle(value, 2); }
    u32 write_32(u32 value) { return writeLittle(value, 4); }
    u32 write_float(f32 value) { return write_32(std::bit_cast<u32>(value)); }
    [[nodiscard]] bool writeAll(std::span<const u8> bytes);  // whether all of them were taken

    // The log that gets messages about what is wrong with the stream's contents; null, the default, drops
    // them. The log outlives the stream.
    void setLog(i4_log* log) { log_ = log; }
    i4_log* log() const { return log_; }
    void tell(i4_log::Tone tone, const char* format, ...) PRINTF_LIKE(3, 4);

    // The foundation's formatter on this stream: the difference of tell() before and after.
    u32 printf(const char* format, ...);
    u32 vprintf(const char* format, va_list list);

  private:
    u32 readLittle(u32 count);
    u32 writeLittle(u32 value, u32 count);

    i4_log* log_ = nullptr;
};

// What the formatter's %I calls.
class i4_printable {
  public:
    virtual void print(i4_file* stream) = 0;

  protected:
    ~i4_printable() = default;
};

// A disk file. Owns its descriptor and closes it. Thread: one at a time.
// Errors: read and write return -1, with the reason in errno.
class i4_unix_file_class : public i4_file {
  public:
    explicit i4_unix_file_class(int descriptor) : descriptor_(descriptor) {}
    i4_unix_file_class(const i4_unix_file_class&) = delete;
    i4_unix_file_class& operator=(const i4_unix_file_class&) = delete;
    ~i4_unix_file_class() override;

    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;
    u32 seek(u32 offset) override;
    u32 size() override;
    u32 tell() override;
    std::optional<u32> bytesLeft() override;

    int descriptor() const { return descriptor_; }

  private:
    const int descriptor_;
};

// A block of memory as a stream. Doesn't own the block: the caller frees it, with i4_free if it may have
// grown. A grow step of 0 means a fixed block, on which writes are cut at the capacity.
// Thread: one at a time. Errors: growing raises "out of memory".
class i4_ram_file_class : public i4_file {
  public:
    i4_ram_file_class(u8* buffer, u32 capacity, u32 grow_step);

    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;
    u32 seek(u32 offset) override;
    u32 size() override { return used_; }
    u32 tell() override { return position_; }
    u8* map(u32 offset, u32, u32) override { return buffer_ + offset; }
    bool unmap(u32, u32) override { return true; }
    std::optional<u32> bytesLeft() override { return used_ - position_; }
    // A stream on the same block, standing where this one stands.
    virtual std::unique_ptr<i4_ram_file_class> clone();

    // Puts the stream on a new block, position 0, all of it readable. The old block is not freed.
    void reset(u8* buffer, u32 capacity, u32 grow_step);
    // Leaves an empty stream: the block, which isn't a fixed one, is the caller's to free.
    u8* release();
    u8* buffer() const { return buffer_; }
    u32 capacity() const { return capacity_; }
    u8* here() const { return buffer_ + position_; }
    // Takes `used` as the readable size, at most the capacity: for a block that was filled from outside.
    void setUsed(u32 used);

  private:
    void growFor(u64 target);

    u8* buffer_;
    u32 capacity_;
    u32 position_;
    u32 grow_step_;
    u32 used_;
};

// A memory stream that starts empty, grows, and owns its bytes.
class i4_owned_ram_file : public i4_ram_file_class {
  public:
    explicit i4_owned_ram_file(u32 grow_step = 512) : i4_ram_file_class(nullptr, 0, grow_step) {}
    i4_owned_ram_file(const i4_owned_ram_file&) = delete;
    i4_owned_ram_file& operator=(const i4_owned_ram_file&) = delete;
    ~i4_owned_ram_file() override;
};

// The terminal. Thread: any, for writes. Output goes to descriptor 0: it reaches the terminal even when
// standard output is redirected, and is lost if descriptor 0 isn't open for writing.
class i4_debug_file_class : public i4_file {
  public:
    i32 read(std::span<u8> to) override;  // one item of that size from standard input: 1 on success
    i32 write(std::span<const u8> bytes) override;
};

enum i4_file_flags : u32 {
    I4_FILE_READ = 1,
    I4_FILE_WRITE = 2,
    I4_FILE_APPEND = 4,
    I4_FILE_TRUNCATE = 8,
    // Of Disk::open alone.
    I4_FILE_NEW = 16,      // fails where there is such a file
    I4_FILE_PRIVATE = 32,  // a new file is its owner's alone to read
};

// Opens a file whose name we or the user typed: the name is rewritten by i4_translate_path and cut at 255
// characters. Null on failure, with no message. Read alone never creates; write creates with mode 0777 less
// the umask.
[[nodiscard]] std::unique_ptr<i4_file> i4_open(const char* name, u32 flags);
// The same for a name exactly as it stands: files found in a directory, and names that came from the network.
[[nodiscard]] std::unique_ptr<i4_unix_file_class> i4_open_exact(const char* name, u32 flags);

// Copies a name with '\' as '/', "c:/" as "/" and "x:" as "/u" into `out` of `limit` bytes; always
// terminates.
void i4_translate_path(const char* name, char* out, std::size_t limit);

#include "i4min/file/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <limits>

#include "i4min/file/output.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"

u8* i4_file::map(u32, u32, u32) { return nullptr; }
bool i4_file::unmap(u32, u32) { return false; }

void i4_file::tell(i4_log::Tone tone, const char* format, ...) {
    if (!log_) return;
    char text[512];
    va_list list;
    va_start(list, format);
    std::vsnprintf(text, sizeof text, format, list);
    va_end(list);
    log_->tell(tone, text);
}

u8 i4_file::read_8() {
    u8 value = 0;
    if (read(&value, 1) != 1) i4_error()("read_8 error");
    return value;
}

u16 i4_file::read_16() {
    u8 bytes[2] = {};
    for (u8& byte : bytes) {
        if (read(&byte, 1) != 1) i4_error()("read_16 error");
    }
    return static_cast<u16>(bytes[0] | bytes[1] << 8);
}

u32 i4_file::read_32() {
    u32 value = 0;
    for (u32 shift = 0; shift < 32; shift += 8) {
        u8 byte = 0;
        if (read(&byte, 1) != 1) i4_error()("read_32 error");
        value |= static_cast<u32>(byte) << shift;
    }
    return value;
}

f32 i4_file::read_float() { return std::bit_cast<f32>(read_32()); }

void i4_file::readAll(void* buffer, u32 count) {
    auto* bytes = static_cast<u8*>(buffer);
    for (u32 done = 0; done < count;) {
        const i32 got = read(bytes + done, count - done);
        if (got <= 0) {
            i4_error()("readAll error");
            return;
        }
        done += static_cast<u32>(got);
    }
}

void i4_file::expect(u64 count) {
    const std::optional<u32> left = bytesLeft();
    if (left && count > *left) i4_error()("readAll error");
}

u32 i4_file::write_8(u8 value) { return static_cast<u32>(std::max(0, write(&value, 1))); }

u32 i4_file::write_16(u16 value) {
    const u8 bytes[2] = {static_cast<u8>(value), static_cast<u8>(value >> 8)};
    return static_cast<u32>(std::max(0, write(bytes, sizeof bytes)));
}

u32 i4_file::write_32(u32 value) {
    const u8 bytes[4] = {static_cast<u8>(value), static_cast<u8>(value >> 8), static_cast<u8>(value >> 16),
                         static_cast<u8>(value >> 24)};
    return static_cast<u32>(std::max(0, write(bytes, sizeof bytes)));
}

u32 i4_file::write_float(f32 value) { return write_32(std::bit_cast<u32>(value)); }

i4_unix_file_class::~i4_unix_file_class() { ::close(descriptor_); }

i32 i4_unix_file_class::read(void* buffer, u32 count) {
    return static_cast<i32>(
        ::read(descriptor_, buffer, std::min<u32>(count, std::numeric_limits<i32>::max())));
}

i32 i4_unix_file_class::write(const void* buffer, u32 count) {
    return static_cast<i32>(
        ::write(descriptor_, buffer, std::min<u32>(count, std::numeric_limits<i32>::max())));
}

u32 i4_unix_file_class::seek(u32 offset) { return static_cast<u32>(::lseek(descriptor_, offset, SEEK_SET)); }
u32 i4_unix_file_class::tell() { return static_cast<u32>(::lseek(descriptor_, 0, SEEK_CUR)); }

u32 i4_unix_file_class::size() {
    const off_t here = ::lseek(descriptor_, 0, SEEK_CUR);
    const off_t end = ::lseek(descriptor_, 0, SEEK_END);
    ::lseek(descriptor_, here, SEEK_SET);
    return static_cast<u32>(end);
}

std::optional<u32> i4_unix_file_class::bytesLeft() {
    struct stat status {};
    const off_t here = ::lseek(descriptor_, 0, SEEK_CUR);
    // A pipe or a device has no size to go by.
    if (here < 0 || ::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const off_t left = std::max<off_t>(0, status.st_size - here);
    return static_cast<u32>(std::min<off_t>(left, std::numeric_limits<u32>::max()));
}

i4_ram_file_class::i4_ram_file_class(void* buffer, u32 capacity, u32 grow_step)
    : buffer_(static_cast<u8*>(buffer)),
      capacity_(capacity),
      position_(0),
      grow_step_(grow_step),
      used_(capacity) {}

i32 i4_ram_file_class::read(void* buffer, u32 count) {
    const u32 length =
        std::min({count, used_ - position_, static_cast<u32>(std::numeric_limits<i32>::max())});
    if (length > 0) std::memcpy(buffer, buffer_ + position_, length);
    position_ += length;
    return static_cast<i32>(length);
}

void i4_ram_file_class::growFor(u64 target) {
    const u64 missing = target - capacity_;
    const u64 steps = (missing + grow_step_ - 1) / grow_step_;
    const u64 capacity = capacity_ + steps * grow_step_;
    if (capacity > std::numeric_limits<u32>::max()) i4_error()("out of memory");
    buffer_ = static_cast<u8*>(i4_realloc(buffer_, capacity));
    capacity_ = static_cast<u32>(capacity);
}

i32 i4_ram_file_class::write(const void* buffer, u32 count) {
    const u64 target = static_cast<u64>(position_) + count;
    if (target > capacity_) {
        if (grow_step_ != 0) {
            growFor(target);
        } else {
            count = capacity_ - position_;
        }
    }
    if (count > 0) std::memcpy(buffer_ + position_, buffer, count);
    position_ += count;
    used_ = std::max(used_, position_);
    return static_cast<i32>(count);
}

u32 i4_ram_file_class::seek(u32 offset) {
    if (offset > capacity_) {
        if (grow_step_ != 0) {
            growFor(offset);
        } else {
            offset = capacity_;
        }
    }
    // What a seek skips is readable afterwards: it must not show what the allocator left there.
    if (offset > used_) std::memset(buffer_ + used_, 0, offset - used_);
    position_ = offset;
    used_ = std::max(used_, position_);
    return position_;
}

u8* i4_ram_file_class::map(u32 offset, u32, u32) { return buffer_ + offset; }
bool i4_ram_file_class::unmap(u32, u32) { return true; }

std::unique_ptr<i4_ram_file_class> i4_ram_file_class::clone() {
    return std::make_unique<i4_ram_file_class>(*this);
}

void i4_ram_file_class::reset(void* buffer, u32 capacity, u32 grow_step) {
    buffer_ = static_cast<u8*>(buffer);
    capacity_ = capacity;
    position_ = 0;
    grow_step_ = grow_step;
    used_ = capacity;
}

u8* i4_ram_file_class::release() {
    assert(grow_step_ != 0);
    u8* const block = buffer_;
    reset(nullptr, 0, grow_step_);
    return block;
}

void i4_ram_file_class::setUsed(u32 used) {
    used_ = std::min(used, capacity_);
    position_ = std::min(position_, used_);
}

i4_owned_ram_file::~i4_owned_ram_file() { i4_free(buffer()); }

i32 i4_debug_file_class::read(void* buffer, u32 count) {
    return static_cast<i32>(std::fread(buffer, count, 1, stdin));
}

i32 i4_debug_file_class::write(const void* buffer, u32 count) {
    i4_standard_output().write(STDIN_FILENO, {static_cast<const char*>(buffer), count});
    return static_cast<i32>(count);
}

void i4_translate_path(const char* name, char* out, std::size_t limit) {
    if (limit == 0) return;
    std::size_t length = 0;
    const auto put = [&](char c) {
        if (length + 1 < limit) out[length++] = c;
    };
    while (*name) {
        if (*name == '\\') {
            put('/');
            ++name;
        } else if (std::strncmp(name, "c:/", 3) == 0) {
            put('/');
            name += 3;
        } else if (std::strncmp(name, "x:", 2) == 0) {
            put('/');
            put('u');
            name += 2;
        } else {
            put(*name++);
        }
    }
    out[length] = 0;
}

std::unique_ptr<i4_unix_file_class> i4_open_exact(const char* name, u32 flags) {
    int system = 0;
    if (flags & I4_FILE_APPEND) system = O_APPEND;
    if (flags & I4_FILE_TRUNCATE) system = O_TRUNC;
    system |= O_CREAT;
    if (flags & I4_FILE_WRITE) {
        system |= flags & I4_FILE_READ ? O_RDWR : O_WRONLY;
    } else if (flags & I4_FILE_READ) {
        system = O_RDONLY;
    }
    const int descriptor = ::open(name, system | O_CLOEXEC, 0777);
    return descriptor < 0 ? nullptr : std::make_unique<i4_unix_file_class>(descriptor);
}

std::unique_ptr<i4_file> i4_open(const char* name, u32 flags) {
    char path[256];
    i4_translate_path(name, path, sizeof path);
    return i4_open_exact(path, flags);
}

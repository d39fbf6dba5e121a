#include "i4min/file/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <limits>

#include "i4min/file/output.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"

namespace {

constexpr std::size_t mostAtOnce = std::numeric_limits<i32>::max();  // bytes of a call

}  // namespace

void i4_file::tell(i4_log::Tone tone, const char* format, ...) {
    if (!log_) return;
    char text[512];
    va_list list;
    va_start(list, format);
    std::vsnprintf(text, sizeof text, format, list);
    va_end(list);
    log_->tell(tone, text);
}

// A byte at a time: a stream may have fewer than are asked for.
u32 i4_file::readLittle(u32 count) {
    u32 value = 0;
    for (u32 i = 0; i < count; ++i) {
        u8 byte = 0;
        if (read({&byte, 1}) != 1) i4_error()("read_%u error", 8 * count);
        value |= static_cast<u32>(byte) << 8 * i;
    }
    return value;
}

void i4_file::readAll(std::span<u8> to) {
    while (!to.empty()) {
        const i32 got = read(to);
        if (got <= 0) {
            i4_error()("readAll error");
            return;
        }
        to = to.subspan(static_cast<std::size_t>(got));
    }
}

void i4_file::expect(u64 count) {
    const std::optional<u32> left = bytesLeft();
    if (left && count > *left) i4_error()("readAll error");
}

u32 i4_file::writeLittle(u32 value, u32 count) {
    u8 bytes[4];
    for (u32 i = 0; i < count; ++i) bytes[i] = static_cast<u8>(value >> 8 * i);
    return static_cast<u32>(std::max(0, write({bytes, count})));
}

bool i4_file::writeAll(std::span<const u8> bytes) {
    return bytes.empty() || write(bytes) == static_cast<i64>(bytes.size());
}

i4_unix_file_class::~i4_unix_file_class() { ::close(descriptor_); }

i32 i4_unix_file_class::read(std::span<u8> to) {
    return static_cast<i32>(::read(descriptor_, to.data(), std::min(to.size(), mostAtOnce)));
}

i32 i4_unix_file_class::write(std::span<const u8> bytes) {
    return static_cast<i32>(::write(descriptor_, bytes.data(), std::min(bytes.size(), mostAtOnce)));
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

i4_ram_file_class::i4_ram_file_class(u8* buffer, u32 capacity, u32 grow_step)
    : buffer_(buffer), capacity_(capacity), position_(0), grow_step_(grow_step), used_(capacity) {}

i32 i4_ram_file_class::read(std::span<u8> to) {
    const auto length = static_cast<u32>(std::min({to.size(), std::size_t{used_ - position_}, mostAtOnce}));
    std::copy_n(buffer_ + position_, length, to.data());
    position_ += length;
    return static_cast<i32>(length);
}

void i4_ram_file_class::growFor(u64 target) {
    const u64 missing = target - capacity_;
    const u64 steps = (missing + grow_step_ - 1) / grow_step_;
    const u64 capacity = capacity_ + steps * grow_step_;
    if (capacity > std::numeric_limits<u32>::max()) i4_error()("out of memory");
    buffer_ = i4_realloc(buffer_, capacity);
    capacity_ = static_cast<u32>(capacity);
}

i32 i4_ram_file_class::write(std::span<const u8> bytes) {
    const u64 target = position_ + u64{bytes.size()};
    if (target > capacity_) {
        if (grow_step_ != 0) {
            growFor(target);
        } else {
            bytes = bytes.first(capacity_ - position_);
        }
    }
    std::copy(bytes.begin(), bytes.end(), buffer_ + position_);
    position_ += static_cast<u32>(bytes.size());
    used_ = std::max(used_, position_);
    return static_cast<i32>(bytes.size());
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

std::unique_ptr<i4_ram_file_class> i4_ram_file_class::clone() {
    return std::make_unique<i4_ram_file_class>(*this);
}

void i4_ram_file_class::reset(u8* buffer, u32 capacity, u32 grow_step) {
    buffer_ = buffer;
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

i32 i4_debug_file_class::read(std::span<u8> to) {
    return static_cast<i32>(std::fread(to.data(), to.size(), 1, stdin));
}

i32 i4_debug_file_class::write(std::span<const u8> bytes) {
    i4_standard_output().write(STDIN_FILENO, i4_text(bytes));
    return static_cast<i32>(bytes.size());
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

#include "core/LineReader.h"

LineReader::LineReader(Disk& disk, const char* path, std::size_t limit) : limit_(limit) {
    i4_file_status status;
    // Only regular files: a device may have no end.
    if (disk.status(path, status) && status.kind == i4_file_kind::regular)
        stream_ = disk.open(path, I4_FILE_READ);
}

int LineReader::nextByte() {
    if (here_ == end_) {
        const i32 got = stream_ ? stream_->read(buffer_) : 0;
        if (got <= 0) return -1;
        here_ = 0;
        end_ = static_cast<std::size_t>(got);
    }
    return buffer_[here_++];
}

bool LineReader::next(std::string& line) {
    line.clear();
    int byte = nextByte();
    if (byte < 0) return false;
    bool inText = true;
    for (; byte >= 0 && byte != '\n'; byte = nextByte()) {
        if (byte == '\r' || byte == '\0' || line.size() == limit_) inText = false;
        if (inText) line += static_cast<char>(byte);
    }
    return true;
}

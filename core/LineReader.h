// LineReader: the lines of the text files in the working directory.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "i4min/file/Disk.h"

// Reads a text file line by line. A line ends at LF; what stands in it behind a CR or a NUL isn't part of its
// text. Text past `limit` characters is dropped, to the end of that line. The file's size costs no memory.
// Thread: one at a time. Owns the stream.
class LineReader {
  public:
    // `path` is taken as it stands. isOpen() is false where the file can't be read.
    LineReader(Disk& disk, const char* path, std::size_t limit);
    bool isOpen() const { return stream_ != nullptr; }
    // The next line's text, without its end. False when no line is left.
    bool next(std::string& line);

  private:
    int nextByte();  // -1 at the end

    const std::size_t limit_;
    std::unique_ptr<i4_file> stream_;
    std::array<u8, 4096> buffer_;
    std::size_t here_ = 0;
    std::size_t end_ = 0;
};

// LineReader: reads the text files of the working directory line by line.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "i4min/file/Disk.h"

// A line ends at LF; anything after a CR or NUL in it is dropped, and so is text beyond `limit` characters.
// Memory use doesn't depend on the file's size.
// Thread: one at a time. Owns: the stream.
class LineReader {
  public:
    // `path` is used as it is. isOpen() is false if the file can't be read.
    LineReader(Disk& disk, const char* path, std::size_t limit);
    bool isOpen() const { return stream_ != nullptr; }
    // Reads the next line without its end. Returns false at the end of the file.
    bool next(std::string& line);

  private:
    int nextByte();  // -1 at the end of the file

    const std::size_t limit_;
    std::unique_ptr<i4_file> stream_;
    std::array<u8, 4096> buffer_;
    std::size_t here_ = 0;
    std::size_t end_ = 0;
};

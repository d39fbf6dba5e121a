// MP3Info: the bitrate, playing time and names from the headers of an MPEG audio file.
#pragma once

#include <cstddef>

#include "i4min/memory/types.h"
#include "i4min/string/string.h"

class Disk;
class i4_file;

// The ID3v1 tag: the last 128 bytes of a file. Texts are stored without trailing blanks and zeros. A plain
// value.
//
//     offset  bytes     field
//     0       3         "TAG"
//     3       30        title
//     33      30        artist
//     63      30        album
//     93      4         year, decimal digits
//     97      30 or 28  comment; 28 in version 1.1
//     125     1         0 in version 1.1
//     126     1         track in version 1.1, where it isn't 0
//     127     1         genre
struct ID3Tag {
    static constexpr u32 bytes = 128;

    bool parse(const u8* block);  // `block` has `bytes` bytes; false if it isn't such a tag

    char title[31] = {};
    char artist[31] = {};
    char album[31] = {};
    char comment[31] = {};
    i32 year = 0;
    i32 track = 0;
    f32 version = 0;  // 1.0 or 1.1
    u8 genre = 0;
};

// Returns the name of an ID3v1 genre, 0 to 125; "not supported" from 126 on.
const char* genreName(u8 genre);

// Finds the first frame header of a file after any ID3v2 block, a Xing header after that frame header, and an
// ID3v1 tag. Decodes no audio and verifies no checksum.
// The values are valid once open() or read() has returned `found`. Thread: one.
class MP3Info {
  public:
    enum Result : int { found = 0, notOpened = 2, noHeader = 4 };

    // `path` is used as it is.
    Result open(Disk& disk, const char* path);
    // The same from a stream. Reads the first 200 KiB at once, and two short blocks.
    Result read(i4_file& file);

    u32 bitrate() const;     // kbit/s; 0 if the Xing header counts more frames than fit in the file
    i32 frameCount() const;  // from the Xing header, otherwise computed
    u32 lengthSeconds() const;
    void lengthText(char* out, std::size_t size) const;  // "mm:ss", or "hh:mm:ss" from one hour on

    // Each copies its text, truncated to the `size` bytes of `out`.
    void getTitle(char* out, std::size_t size) const { i4_strncpy(out, tag.title, size); }
    void getArtist(char* out, std::size_t size) const { i4_strncpy(out, tag.artist, size); }
    void getAlbum(char* out, std::size_t size) const { i4_strncpy(out, tag.album, size); }
    void getComment(char* out, std::size_t size) const { i4_strncpy(out, tag.comment, size); }
    void getGenre(char* out, std::size_t size) const { i4_strncpy(out, genreName(tag.genre), size); }
    void getChannelMode(char* out, std::size_t size) const;  // "Joint Stereo"
    void getVersion(char* out, std::size_t size) const;      // "MPEG 2.5 Layer III"

    u32 header = 0;        // the first valid frame header
    i32 frames = -1;       // from the Xing header, else -1
    ID3Tag tag;            // all empty without hasTag
    bool hasXing = false;  // with a frame count of 1 or more
    bool hasTag = false;
    i4_string path;
    u32 fileSize = 0;  // bytes

  private:
    void readXing(i4_file& file, u32 headerOffset);
    void readTag(i4_file& file);
};

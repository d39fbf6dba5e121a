// i4_string and the free string functions. All case folding is ASCII.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string_view>

#include "i4min/memory/annotations.h"
#include "i4min/memory/types.h"

class i4_file;

// An owning text that may be null; null differs from the empty string. Compared by content. Not thread-safe.
class i4_string {
  public:
    i4_string();
    i4_string(const char* text);
    // The first `length` characters of source.
    i4_string(const char* source, std::size_t length);
    i4_string(const i4_string& other);
    i4_string(i4_string&& other) noexcept;
    // Reads the stream form: u16 length, bytes. Raises "read string error" for a length of 65535, and
    // whatever a short stream raises.
    explicit i4_string(i4_file& stream);
    // Reads `length` raw bytes with one read; anything less raises "read string error".
    i4_string(i4_file& stream, u32 length);

    i4_string& operator=(i4_string other) noexcept {  // by value: it may be made of a piece of the old text
        text_.swap(other.text_);
        return *this;
    }
    i4_string& operator=(const char* text) { return *this = i4_string(text); }
    // A null argument does nothing; the value may start null.
    i4_string& operator+=(const char* text);

    bool operator==(const i4_string& other) const;
    bool operator==(const char* other) const;

    // Replaces the value by the formatted text (the foundation's formatter).
    void format(const char* text, ...);
    void toLower();

    const char* c_str() const { return text_.get(); }
    bool isNull() const { return !text_; }
    std::size_t length() const;
    // The text, empty where it is null.
    std::string_view view() const { return text_ ? std::string_view(text_.get()) : std::string_view(); }
    char& operator[](std::size_t i) { return text_[i]; }
    char operator[](std::size_t i) const { return text_[i]; }

    // Writes the stream form; a failure raises "write string error". Null writes length 0.
    void write(i4_file& stream) const;

  private:
    std::unique_ptr<char[]> text_;  // null for a null text; one word wide
};

// The text, or an empty one where it is null: for what prints and compares.
inline const char* orEmpty(const char* text) { return text ? text : ""; }
inline const char* orEmpty(const i4_string& text) { return orEmpty(text.c_str()); }

// Writes a terminated text in the stream form of i4_string: u16 length, bytes. Null counts as length 0.
void i4_write_string(i4_file& stream, const char* text);

inline char i4_toupper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
inline char i4_tolower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::size_t i4_strlen(const char* s);          // null gives 0
int i4_strcmp(const char* a, const char* b);   // -1, 0, 1 by signed characters; null sorts below all else
int i4_stricmp(const char* a, const char* b);  // the same, ignoring case
char* i4_strcpy(char* d, const char* s);
char* i4_strcat(char* d, const char* s);
char* i4_strncpy(char* d, const char* s, std::size_t n);  // at most n - 1 characters, always terminates
char* i4_strdup(const char* s);                           // null gives null; free with i4_free
const char* i4_strstr(const char* hay, const char* needle);
const char* stristr(const char* hay, const char* needle);           // ignores case
const char* i4_stristr_lower(const char* hay, const char* needle);  // the needle is in lower case already
// Makes text fit for a terminal: each control character but newline and tab becomes '?', and so do both bytes
// of those that UTF-8 writes with two.
void i4_replace_controls(char* text, std::size_t length);
i32 i4_atoi(const char* s);  // optional '-', decimal digits; wraps on overflow

// The foundation's formatter on a buffer; each returns the characters of the whole text.
u32 i4_sprintf(char* d, const char* format, ...) PRINTF_LIKE(2, 3);
u32 i4_snprintf(char* d, std::size_t n, const char* format, ...) PRINTF_LIKE(3, 4);
u32 i4_vsnprintf(char* d, std::size_t n, const char* format, va_list list) PRINTF_LIKE(3, 0);

// A tokeniser whose state the caller holds. `offset` starts at 0, and the result is the next offset: the
// position of the delimiter that ended the token; the position behind the last copied character where `out`
// was full; -1 where the text ended with the token; 0 where no token was left (`out` is then untouched).
i32 i4_strtok(const char* text, const char* delimiters, i32 offset, char* out, std::size_t out_size);

// Copies the next line at text + cursor, line ends skipped first, and moves the cursor. Returns the character
// it stopped at, 0 at the end. `out` has room for the line.
char i4_getline(char* out, const char* text, u32& cursor);

#include "i4min/string/string.h"

#include <algorithm>
#include <cstring>

#include "i4min/memory/error.h"

namespace {

// The pieces one behind the other, terminated.
std::unique_ptr<char[]> join(std::string_view head, std::string_view tail = {}) {
    auto text = std::make_unique_for_overwrite<char[]>(head.size() + tail.size() + 1);
    std::copy(tail.begin(), tail.end(), std::copy(head.begin(), head.end(), text.get()));
    text[head.size() + tail.size()] = 0;
    return text;
}

template <class Fold>
int compareText(const char* a, const char* b, Fold fold) {
    if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
    for (;; ++a, ++b) {
        const char l = fold(*a);
        const char r = fold(*b);
        if (l != r) return static_cast<signed char>(l) < static_cast<signed char>(r) ? -1 : 1;
        if (!l) return 0;
    }
}

template <class FoldHay, class FoldNeedle>
const char* findText(const char* hay, const char* needle, FoldHay foldHay, FoldNeedle foldNeedle) {
    if (!hay || !needle) return nullptr;
    const std::string_view text(hay), part(needle);
    const auto at = std::search(text.begin(), text.end(), part.begin(), part.end(),
                                [&](char a, char b) { return foldHay(a) == foldNeedle(b); });
    return at == text.end() && !part.empty() ? nullptr : hay + (at - text.begin());
}

char same(char c) { return c; }

bool isDelimiter(char c, const char* delimiters) { return c && std::strchr(delimiters, c); }

}  // namespace

i4_string::i4_string() : text_(join("")) {}
i4_string::i4_string(const char* text) : text_(text ? join(text) : nullptr) {}
i4_string::i4_string(const char* source, std::size_t length) : text_(join({source, length})) {}
i4_string::i4_string(const i4_string& other) : i4_string(other.c_str()) {}
i4_string::i4_string(i4_string&& other) noexcept = default;

i4_string& i4_string::operator+=(const char* text) {
    if (text) text_ = join(view(), text);
    return *this;
}

bool i4_string::operator==(const i4_string& other) const { return i4_strcmp(c_str(), other.c_str()) == 0; }
bool i4_string::operator==(const char* other) const { return i4_strcmp(c_str(), other) == 0; }

void i4_string::toLower() {
    for (char* c = text_.get(); c && *c; ++c) *c = i4_tolower(*c);
}

std::size_t i4_string::length() const { return i4_strlen(c_str()); }

std::size_t i4_strlen(const char* s) { return s ? std::strlen(s) : 0; }
int i4_strcmp(const char* a, const char* b) { return compareText(a, b, same); }
int i4_stricmp(const char* a, const char* b) { return compareText(a, b, i4_toupper); }
char* i4_strcpy(char* d, const char* s) { return std::strcpy(d, s); }
char* i4_strcat(char* d, const char* s) { return std::strcat(d, s); }

char* i4_strncpy(char* d, const char* s, std::size_t n) {
    if (n == 0) return d;
    const std::size_t length = ::strnlen(s, n - 1);
    std::memmove(d, s, length);
    d[length] = 0;
    return d;
}

char* i4_strdup(const char* s) {
    if (!s) return nullptr;
    char* copy = ::strdup(s);
    if (!copy) i4_error()("out of memory");
    return copy;
}

const char* i4_strstr(const char* hay, const char* needle) { return findText(hay, needle, same, same); }
const char* stristr(const char* hay, const char* needle) {
    return findText(hay, needle, i4_toupper, i4_toupper);
}

const char* i4_stristr_lower(const char* hay, const char* needle) {
    return findText(hay, needle, i4_tolower, same);
}

void i4_replace_controls(char* text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        const auto c = static_cast<u8>(text[i]);
        if ((c < ' ' && c != '\n' && c != '\t') || c == 0x7F) text[i] = '?';
        if (c == 0xC2 && i + 1 < length && static_cast<u8>(text[i + 1]) >= 0x80 &&
            static_cast<u8>(text[i + 1]) < 0xA0) {
            text[i] = text[i + 1] = '?';
        }
    }
}

i32 i4_atoi(const char* s) {
    const bool negative = *s == '-';
    if (negative) ++s;
    u32 value = 0;
    for (; *s >= '0' && *s <= '9'; ++s) value = value * 10 + static_cast<u32>(*s - '0');
    return static_cast<i32>(negative ? 0 - value : value);
}

i32 i4_strtok(const char* text, const char* delimiters, i32 offset, char* out, std::size_t out_size) {
    if (offset < 0 || out_size < 2) return 0;
    i32 at = offset;
    while (isDelimiter(text[at], delimiters)) ++at;
    if (!text[at]) return 0;
    std::size_t copied = 0;
    while (text[at]) {
        out[copied++] = text[at++];
        if (copied == out_size - 1 || isDelimiter(text[at], delimiters)) {
            out[copied] = 0;
            return at;
        }
    }
    out[copied] = 0;
    return -1;
}

char i4_getline(char* out, const char* text, u32& cursor) {
    const auto endsLine = [](char c) { return c == '\n' || c == '\r'; };
    while (endsLine(text[cursor])) ++cursor;
    while (text[cursor] && !endsLine(text[cursor])) *out++ = text[cursor++];
    *out = 0;
    return text[cursor];
}

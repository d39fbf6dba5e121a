#include "i4min/memory/malloc4.h"

#include <cstdlib>

#include "i4min/memory/error.h"
#include "i4min/string/string.h"

namespace {

int compareBytes(const u8* a, const u8* b, std::size_t n, char (*fold)(char)) {
    for (std::size_t i = 0; i < n; ++i) {
        const auto l = static_cast<signed char>(fold(static_cast<char>(a[i])));
        const auto r = static_cast<signed char>(fold(static_cast<char>(b[i])));
        if (l != r) return l < r ? -1 : 1;
    }
    return 0;
}

}  // namespace

u8* i4_malloc(std::size_t size) { return i4_realloc(nullptr, size); }

u8* i4_realloc(u8* pointer, std::size_t size) {
    if (!pointer && size == 0) size = 1;
    u8* const result = static_cast<u8*>(std::realloc(pointer, size));
    if (!result && size != 0) i4_error()("out of memory");
    return result;
}

void i4_free(void* pointer) { std::free(pointer); }

int i4_memcmp(const u8* a, const u8* b, std::size_t n) {
    return compareBytes(a, b, n, [](char c) { return c; });
}
int i4_memicmp(const u8* a, const u8* b, std::size_t n) { return compareBytes(a, b, n, i4_toupper); }

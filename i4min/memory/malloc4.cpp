#include "i4min/memory/malloc4.h"

#include <cstdlib>

#include "i4min/memory/error.h"
#include "i4min/string/string.h"

void* i4_malloc(std::size_t size) {
    void* result = std::malloc(size > 0 ? size : 1);
    if (!result) i4_error()("out of memory");
    return result;
}

void* i4_realloc(void* pointer, std::size_t size) {
    if (!pointer) return i4_malloc(size);
    void* result = std::realloc(pointer, size);
    if (!result && size != 0) i4_error()("out of memory");
    return result;
}

void i4_free(void* pointer) { std::free(pointer); }

namespace {

template <class Fold>
int compareBytes(const void* a, const void* b, std::size_t n, Fold fold) {
    const auto* left = static_cast<const signed char*>(a);
    const auto* right = static_cast<const signed char*>(b);
    for (std::size_t i = 0; i < n; ++i) {
        const int l = fold(left[i]);
        const int r = fold(right[i]);
        if (l != r) return l < r ? -1 : 1;
    }
    return 0;
}

}  // namespace

int i4_memcmp(const void* a, const void* b, std::size_t n) {
    return compareBytes(a, b, n, [](signed char c) { return static_cast<int>(c); });
}

int i4_memicmp(const void* a, const void* b, std::size_t n) {
    return compareBytes(a, b, n,
                        [](signed char c) { return static_cast<int>(i4_toupper(static_cast<char>(c))); });
}

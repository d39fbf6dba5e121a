// Allocation that never returns null, and byte compares.
#pragma once

#include <cstddef>

// Raises "out of memory" when the system has none. The caller frees with i4_free.
void* i4_malloc(std::size_t size);
// A null pointer means i4_malloc(size). Raises "out of memory" on a null result for a size other than 0.
void* i4_realloc(void* pointer, std::size_t size);
void i4_free(void* pointer);

// -1, 0 or 1, comparing n bytes as signed characters; i4_memicmp folds a to z to upper case first.
int i4_memcmp(const void* a, const void* b, std::size_t n);
int i4_memicmp(const void* a, const void* b, std::size_t n);

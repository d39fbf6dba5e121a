// Allocation that never returns null, and byte compares.
#pragma once

#include <cstddef>

#include "i4min/memory/types.h"

// Raises "out of memory" when the system has none. The caller frees with i4_free.
u8* i4_malloc(std::size_t size);
// A null pointer means i4_malloc(size). Raises "out of memory" on a null result for a size other than 0.
u8* i4_realloc(u8* pointer, std::size_t size);
void i4_free(void* pointer);

// -1, 0 or 1, comparing n bytes as signed characters; i4_memicmp folds a to z to upper case first.
int i4_memcmp(const u8* a, const u8* b, std::size_t n);
int i4_memicmp(const u8* a, const u8* b, std::size_t n);

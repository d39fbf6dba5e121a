// HTMD4, a hash table from hashes to lists of pointers.
#pragma once

#include "i4min/memory/HT32.h"
#include "meta/MD4Hash.h"

// The first four bytes as a little-endian number.
inline u32 numberOfHash(const MD4Hash& hash) {
    return static_cast<u32>(hash.bytes[0]) | static_cast<u32>(hash.bytes[1]) << 8 |
           static_cast<u32>(hash.bytes[2]) << 16 | static_cast<u32>(hash.bytes[3]) << 24;
}

template <class T>
using HTMD4_InnerList = HT_InnerList<T, MD4Hash>;
template <class T>
using HTMD4 = HashTable<T, MD4Hash, numberOfHash>;

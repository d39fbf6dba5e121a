#include "meta/md4_by_hand.h"

#include <array>
#include <cstdio>
#include <memory>

#include "meta/MD4.h"

void md4String(const char* text) { std::printf("MD4 (\"%s\") = %s\n", text, MD4::of(text).toText().c_str()); }

void md4File(const char* path) {
    MD4Hash hash;
    if (md4File(hash, path)) std::printf("MD4 (%s) = %s\n", path, hash.toText().c_str());
}

bool md4File(MD4Hash& out, const char* path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rb"), std::fclose);
    if (!file) {
        std::printf("%s can't be opened\n", path);
        return false;
    }
    MD4 digest;
    std::array<u8, 1024> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get())) {
        digest.update(std::span(block).first(got));
    }
    if (std::ferror(file.get())) return false;
    out = digest.finish();
    return true;
}

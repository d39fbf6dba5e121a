// The digest, its text form and the way in which a file is hashed in parts, against an independent digest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "i4min/file/file.h"
#include "meta/MD4.h"
#include "meta/MD4Hash.h"

namespace {

constexpr const char* emptyDigest = "31d6cfe0d16ae931b73c59d7e0c089c0";

TEST(MD4Test, ThePublishedDigests) {
    const std::pair<const char*, const char*> published[] = {
        {"", emptyDigest},
        {"a", "bde52cb31de33e46245e05fbdbd6fb24"},
        {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
        {"message digest", "d9130a8164549fe818874806e1c7014b"},
        {"abcdefghijklmnopqrstuvwxyz", "d79e1c308aa5bbcdeea8ed63df412da9"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "043f8582f241db351ce627e153e7f0e4"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "e33b4ddc9c38f2199c3e7b164fcc0536"},
    };
    for (const auto& [text, digest] : published) EXPECT_EQ(MD4::of(text).toText(), digest) << text;
}

TEST(MD4Test, HowTheBytesAreCutMakesNoDifference) {
    std::string bytes;
    for (int i = 0; i < 300; ++i) bytes += static_cast<char>(i * 7);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const std::string_view whole = std::string_view(bytes).substr(0, length);
        const MD4Hash expected = MD4::of(whole);
        for (const std::size_t cut : {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{65}}) {
            MD4 digest;
            for (std::size_t at = 0; at < length; at += cut) {
                const std::string_view piece = whole.substr(at, cut);
                digest.update(piece.data(), piece.size());
                digest.update(piece.data(), 0);
            }
            ASSERT_EQ(digest.finish(), expected) << length << " bytes, cut each " << cut;
            ASSERT_EQ(digest.finish().toText(), emptyDigest) << "a finished digest is fresh";
        }
    }
}

TEST(MD4Test, TextForm) {
    MD4Hash hash;
    for (std::size_t i = 0; i < hash.bytes.size(); ++i) hash.bytes[i] = static_cast<u8>(i);
    const std::string text = "000102030405060708090a0b0c0d0e0f";
    EXPECT_EQ(hash.toText(), text);
    MD4Hash read;
    EXPECT_TRUE(read.fromText("000102030405060708090A0B0C0D0E0F"));
    EXPECT_EQ(read, hash);
    for (const char* bad : {"", "000102030405060708090a0b0c0d0e0", "000102030405060708090a0b0c0d0e0f0",
                            "g00102030405060708090a0b0c0d0e0f", "000102030405060708090a0b0c0d0e0G",
                            " 00102030405060708090a0b0c0d0e0f", "0x0102030405060708090a0b0c0d0e0f",
                            "000102030405060708090a0b0c0d0e-1", "@`0102030405060708090a0b0c0d0e0f",
                            static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(read.fromText(bad)) << (bad ? bad : "null");
        EXPECT_EQ(read, hash) << (bad ? bad : "null");
    }
    EXPECT_FALSE(read.fromText(std::string_view(text.c_str(), 33))) << "with a zero behind";
}

}  // namespace

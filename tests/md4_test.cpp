// The digest, its text form and the hashing of files in parts, compared with an independent digest.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "i4min/file/file.h"
#include "meta/MD4.h"
#include "meta/MD4Hash.h"
#include "meta/md4_by_hand.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"
#include "tests/support/independent_digest.h"
#include "tests/support/systemDisk.h"

namespace {

using namespace std::literals;

TEST(MD4Test, ThePublishedDigestsHoweverTheBytesAreCut) {
    const std::pair<const char*, const char*> published[] = {
        {"", "31d6cfe0d16ae931b73c59d7e0c089c0"},
        {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "e33b4ddc9c38f2199c3e7b164fcc0536"},
    };
    for (const auto& [text, digest] : published) EXPECT_EQ(MD4::of(text).toText(), digest) << text;
    const std::string bytes = someBytes(300);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const std::string_view whole = std::string_view(bytes).substr(0, length);
        MD4 digest;
        for (const std::size_t cut : {1U, 63U, 64U, 65U}) {
            for (std::size_t at = 0; at < length; at += cut) {
                digest.update(i4_bytes(whole.substr(at, cut)));
                digest.update({});
            }
            ASSERT_EQ(digest.finish(), MD4::of(whole)) << length << " bytes, cut each " << cut;
        }
    }
}

TEST(MD4Test, DigestsSideBySideAreWhatEachIsAlone) {
    const std::string bytes = someBytes(MD4::lanes * 1024 + 13);
    const auto* from = reinterpret_cast<const u8*>(bytes.data()) + 1;  // at an odd address
    for (const bool wide : {true, false}) {
        for (std::size_t count = 1; count <= MD4::lanes; ++count) {
            std::array<MD4, MD4::lanes> digests;
            std::array<std::string, MD4::lanes> taken;
            for (const std::size_t length : {std::size_t{64}, std::size_t{0}, std::size_t{1024}}) {
                MD4::updateEach({digests.data(), count}, from, length, wide);
                for (std::size_t i = 0; i < count; ++i) taken[i] += bytes.substr(1 + i * length, length);
            }
            for (std::size_t i = 0; i < digests.size(); ++i) {
                digests[i].update({from, i});
                taken[i] += bytes.substr(1, i);
                EXPECT_EQ(digests[i].finish(), MD4::of(taken[i])) << i << " of " << count << ", " << wide;
            }
        }
    }
}

TEST(MD4Test, TextForm) {
    const std::string text = "000102030405060708090a0b0c0d0eff";
    MD4Hash read;
    EXPECT_TRUE(read.fromText("000102030405060708090A0B0C0D0EFF"));
    EXPECT_EQ(read.bytes[1], 1);
    EXPECT_EQ(read.toText(), text);
    for (const char* bad : {"", "000102030405060708090a0b0c0d0ef", "000102030405060708090a0b0c0d0eff0",
                            "g00102030405060708090a0b0c0d0eff", "000102030405060708090a0b0c0d0e-1",
                            "@`0102030405060708090a0b0c0d0eff", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(read.fromText(bad)) << (bad ? bad : "null");
    EXPECT_EQ(read.toText(), text);
}

class FileHashTest : public testing::Test {
  protected:
    HashOutcome compute(const std::string& path, const GiveUp& giveUp = {}) {
        return MD4Hash::computeFile(hash, systemDisk(), path.c_str(), parts, giveUp, &hashed);
    }

    const TemporaryDirectory folder_;
    const std::string file = folder_.file("file");
    u64 hashed = 1;
    MD4Hash hash;
    std::vector<MD4Hash> parts;
};

TEST_F(FileHashTest, PartsAgainstAnIndependentDigest) {
    const std::string all = someBytes(90'000'000);
    const std::pair<std::size_t, std::size_t> sizes[] = {{0, 0},         {9'727'999, 0},   {9'728'000, 2},
                                                         {9'728'001, 2}, {87'552'000, 10}, {90'000'000, 10}};
    for (const auto& [size, partCount] : sizes) {
        const std::string_view bytes = std::string_view(all).substr(0, size);
        std::vector<MD4Hash> expectedParts;
        const MD4Hash expected = independentFileHash(bytes, folder_.file("independent"), expectedParts);
        writeFile(file, bytes);
        ASSERT_EQ(compute(file), HashOutcome::whole) << size;
        EXPECT_EQ(hash, expected) << size;
        EXPECT_EQ(parts, expectedParts) << size;
        EXPECT_EQ(parts.size(), partCount);
        EXPECT_EQ(hashed, size);
    }
}

TEST_F(FileHashTest, WhatIsNoFileOrCantBeReadHasNoHash) {
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    hash = hashOf(1);
    for (const std::string& none : {file, folder_.path(), "/missing"s})
        EXPECT_EQ(compute(none), HashOutcome::notOpened) << none;
    EXPECT_EQ(compute("/proc/self/mem"), HashOutcome::unreadable) << "calls itself a regular file";
    EXPECT_EQ(hash, hashOf(1));
}

TEST_F(FileHashTest, AFileThatChangesMeanwhileHasNoHash) {
    const std::string bytes = someBytes(20'000'000);
    const auto resize = [&](std::uintmax_t size) { std::filesystem::resize_file(file, size); };
    const auto touch = [&] {
        std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() + 1h);
    };
    for (const std::size_t size : {1'000'000U, 20'000'000U}) {  // one part, and several hashed side by side
        const std::function<void()> changes[] = {[&] { resize(size + 4); }, [&] { resize(size * 3 / 10); },
                                                 [&] { resize(0); }, touch};
        for (const auto& change : changes) {
            for (int when = 1; when <= 5; ++when) {
                writeFile(file, bytes.substr(0, size));
                int reads = 0;
                const GiveUp meanwhile = [&] {
                    if (++reads == when) change();
                    return false;
                };
                EXPECT_EQ(compute(file, meanwhile), HashOutcome::changed) << size << ", " << when;
            }
        }
        writeFile(file, bytes.substr(0, size));
        int reads = 0;
        EXPECT_EQ(compute(file, [&] { return ++reads == 3; }), HashOutcome::abandoned) << size;
        EXPECT_EQ(reads, 3) << size;
    }
}

TEST_F(FileHashTest, ARangeOfAStream) {
    const std::string bytes = someBytes(1'000'000);
    writeFile(file, bytes);
    const auto stream = i4_open_exact(file.c_str(), I4_FILE_READ);
    for (const auto& [start, end] : {std::pair{77u, 77u}, {5u, 262'149u}, {262'144u, 1'000'000u}}) {
        EXPECT_TRUE(MD4Hash::compute(hash, *stream, start, end));
        EXPECT_EQ(hash, MD4::of(std::string_view(bytes).substr(start, end - start))) << start;
    }
    EXPECT_FALSE(MD4Hash::compute(hash, *stream, 999'999, 1'000'001)) << "the stream ends before";
    EXPECT_FALSE(MD4Hash::compute(hash, *stream, 10, 9));
    i4_debug_file_class terminal;
    EXPECT_FALSE(MD4Hash::compute(hash, terminal, 1, 2)) << "no seeking there";
}

TEST_F(FileHashTest, ByHand) {
    writeFile(file, "abc");
    testing::internal::CaptureStdout();
    md4File(file.c_str());
    md4File("/missing");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MD4 (" + file + ") = " + MD4::of("abc").toText() + "\n/missing can't be opened\n");
}

}  // namespace

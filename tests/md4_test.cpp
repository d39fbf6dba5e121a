// The digest, its text form and the way in which a file is hashed in parts, against an independent digest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

constexpr const char* emptyDigest = "31d6cfe0d16ae931b73c59d7e0c089c0";

TEST(MD4Test, ThePublishedDigestsHoweverTheBytesAreCut) {
    const std::pair<const char*, const char*> published[] = {
        {"", emptyDigest},
        {"a", "bde52cb31de33e46245e05fbdbd6fb24"},
        {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
        {"message digest", "d9130a8164549fe818874806e1c7014b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "043f8582f241db351ce627e153e7f0e4"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "e33b4ddc9c38f2199c3e7b164fcc0536"},
    };
    for (const auto& [text, digest] : published) EXPECT_EQ(MD4::of(text).toText(), digest) << text;
    const std::string bytes = someBytes(300);
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

TEST(MD4Test, DigestsSideBySideAreWhatEachIsAlone) {
    const std::string bytes = someBytes(MD4::lanes * 1024 + 13);
    const auto* from = reinterpret_cast<const u8*>(bytes.data()) + 1;  // at no even address
    for (const bool wide : {true, false}) {
        for (std::size_t count = 1; count <= MD4::lanes; ++count) {
            std::array<MD4, MD4::lanes> digests;
            std::array<std::string, MD4::lanes> taken;
            for (const std::size_t length : {std::size_t{64}, std::size_t{0}, std::size_t{1024}}) {
                MD4::updateEach({digests.data(), count}, from, length, wide);
                for (std::size_t i = 0; i < count; ++i) taken[i] += bytes.substr(1 + i * length, length);
            }
            for (std::size_t i = 0; i < digests.size(); ++i) {
                digests[i].update(from, i);
                taken[i] += bytes.substr(1, i);
                EXPECT_EQ(digests[i].finish(), MD4::of(taken[i])) << i << " of " << count << ", " << wide;
            }
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

// What lies behind `start` is read from the disk the next time, where the system follows the advice.
void dropFromCache(const std::string& file, std::size_t start) {
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ::fsync(descriptor);
    ::posix_fadvise(descriptor, static_cast<off_t>(start), 0, POSIX_FADV_DONTNEED);
    ::close(descriptor);
}

class FileHashTest : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return folder_.file(name); }
    std::string write(const std::string& name, std::string_view bytes) const {
        writeFile(path(name), bytes);
        return path(name);
    }
    HashOutcome compute(const std::string& file, const GiveUp& giveUp = {}) {
        return MD4Hash::computeFile(hash, systemDisk(), file.c_str(), parts, giveUp);
    }

    const TemporaryDirectory folder_;
    MD4Hash hash;
    std::vector<MD4Hash> parts;
};

TEST_F(FileHashTest, PartsAgainstAnIndependentDigest) {
    const std::string all = someBytes(90'000'000);
    const std::pair<std::size_t, std::size_t> sizes[] = {{0, 0},           {1, 0},          {9'727'999, 0},
                                                         {9'728'000, 2},   {9'728'001, 2},  {20'000'000, 3},
                                                         {87'552'000, 10}, {90'000'000, 10}};
    for (const auto& [size, partCount] : sizes) {
        const std::string_view bytes = std::string_view(all).substr(0, size);
        std::vector<MD4Hash> expectedParts;
        const MD4Hash expected = independentFileHash(bytes, path("independent"), expectedParts);
        EXPECT_EQ(expectedParts.size(), partCount);
        u64 hashed = 1;
        const std::string file = write("file", bytes);
        ASSERT_EQ(MD4Hash::computeFile(hash, systemDisk(), file.c_str(), parts, {}, &hashed),
                  HashOutcome::whole)
            << size;
        EXPECT_EQ(hash, expected) << size;
        EXPECT_EQ(parts, expectedParts) << size;
        EXPECT_EQ(hashed, size);
        dropFromCache(file, size / 2);
        ASSERT_EQ(compute(file), HashOutcome::whole) << size;
        EXPECT_EQ(hash, expected) << size << ", partly from the disk";
        EXPECT_EQ(parts, expectedParts) << size << ", partly from the disk";
        MD4Hash onePiece;
        EXPECT_TRUE(md4File(onePiece, file.c_str()));
        EXPECT_EQ(onePiece, MD4::of(bytes)) << size;
    }
}

TEST_F(FileHashTest, WhatIsNoFileOrCantBeReadHasNoHash) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    const std::pair<std::string, HashOutcome> cases[] = {
        {path("missing"), HashOutcome::notOpened},   {folder_.path(), HashOutcome::notOpened},
        {path("fifo"), HashOutcome::notOpened},      {"/dev/null", HashOutcome::notOpened},
        {"/proc/self/mem", HashOutcome::unreadable},  // calls itself a regular file; reading at 0 fails
    };
    for (const auto& [name, outcome] : cases) {
        hash = MD4::of("before");
        parts.resize(3);
        EXPECT_EQ(compute(name), outcome) << name;
        EXPECT_EQ(hash, MD4::of("before")) << name;
        EXPECT_EQ(parts.size(), 3u) << name;
    }
    const std::string odd = write("C: a\\b\xff", "abc");
    EXPECT_EQ(compute(odd), HashOutcome::whole) << "an exact path";
    EXPECT_EQ(hash, MD4::of("abc"));
}

TEST_F(FileHashTest, AFileThatChangesMeanwhileHasNoHash) {
    const std::string bytes = someBytes(20'000'000);
    const std::string file = path("file");
    const auto resize = [&](std::uintmax_t size) { std::filesystem::resize_file(file, size); };
    const auto touch = [&] {
        const auto now = std::filesystem::file_time_type::clock::now();
        std::filesystem::last_write_time(file, now + std::chrono::hours(1));
    };
    for (const std::size_t size :
         {std::size_t{1'000'000}, bytes.size()}) {  // a part, and several side by side
        const std::function<void()> changes[] = {[&] { resize(size + 4); }, [&] { resize(size * 3 / 10); },
                                                 [&] { resize(0); }, touch};
        for (const auto& change : changes) {
            for (int when = 1; when <= 5; ++when) {
                write("file", bytes.substr(0, size));
                int reads = 0;
                const GiveUp meanwhile = [&] {
                    if (++reads == when) change();
                    return false;
                };
                EXPECT_EQ(compute(file, meanwhile), HashOutcome::changed) << size << ", " << when;
            }
        }
        write("file", bytes.substr(0, size));
        int reads = 0;
        EXPECT_EQ(compute(file, [&] { return ++reads == 3; }), HashOutcome::abandoned) << size;
        EXPECT_EQ(reads, 3) << size;
        EXPECT_TRUE(hash.isZero()) << size;
    }
}

TEST_F(FileHashTest, ARangeOfAStream) {
    const std::string bytes = someBytes(1'000'000);
    const std::string file = write("file", bytes);
    const auto stream = i4_open_exact(file.c_str(), I4_FILE_READ);
    for (const auto& [start, end] : {std::pair{0u, 1'000'000u},
                                     {77u, 77u},
                                     {5u, 262'149u},
                                     {262'144u, 786'432u},
                                     {1'000'000u, 1'000'000u}}) {
        EXPECT_TRUE(MD4Hash::compute(hash, *stream, start, end));
        EXPECT_EQ(hash, MD4::of(std::string_view(bytes).substr(start, end - start)))
            << start << " to " << end;
    }
    hash.clear();
    EXPECT_FALSE(MD4Hash::compute(hash, *stream, 999'999, 1'000'001)) << "the stream ends before";
    EXPECT_FALSE(MD4Hash::compute(hash, *stream, 4'294'967'294, 4'294'967'295));
    EXPECT_FALSE(MD4Hash::compute(hash, *stream, 10, 9));
    i4_debug_file_class terminal;
    EXPECT_FALSE(MD4Hash::compute(hash, terminal, 1, 2)) << "no seeking there";
    EXPECT_TRUE(hash.isZero());
}

TEST_F(FileHashTest, ByHand) {
    const std::string file = write("file", "abc");
    testing::internal::CaptureStdout();
    md4String("abc");
    md4File(file.c_str());
    md4File(path("missing").c_str());
    const std::string digest = "a448017aaf21d8525fc10ae87aa6729d\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MD4 (\"abc\") = " + digest + "MD4 (" + file + ") = " +
                                                          digest + path("missing") + " can't be opened\n");
}

}  // namespace

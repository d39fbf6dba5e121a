// Tags: their bytes, their texts, and what damaged ones do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "meta/BoolArray.h"
#include "meta/MetaTag.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"

namespace {

std::unique_ptr<MetaTag> tagOf(const Bytes& bytes, u32* left = nullptr) {
    BytesFile file(bytes);
    auto tag = MetaTag::readTag(file);
    if (left) *left = *file.bytesLeft();
    return tag;
}

Bytes bytesOf(MetaTag& tag) {
    const Bytes network = written([&](i4_file& file) { EXPECT_TRUE(tag.toNetwork(file)); });
    EXPECT_EQ(network, written([&](i4_file& file) { EXPECT_TRUE(tag.toDisk(file)); }));
    return network;
}

std::string printed(const MetaTag& tag, i32 n = 255) {
    char text[255] = "unchanged";
    const char* result = tag.printable(text, n);
    return result ? result : "(null)";
}

TEST(MetaTag, EachTypeHasItsBytesAndItsText) {
    MD4Hash hash;
    hash.fromText("000102030405060708090a0b0c0d0e0f");
    const u32 number = 1000;
    const u32 allOnes = 0xFFFFFFFF;
    const f32 largest = -std::numeric_limits<f32>::max();
    const u8 two = 2;
    BoolArray ten(10);
    ten.set(0, true);
    ten.set(5, true);
    const BoolArray eight(8);
    const BoolArray none;
    const MetaBlob blob{9, 8, 7};
    struct Case {
        std::unique_ptr<MetaTag> tag;
        Bytes bytes;
        std::string text;
        u32 sizeBeyond = 0;  // how much byteSize counts too many
    };
    Case cases[] = {
        {MetaTag::makeTag(TAG_SIZE, &number), {3, 1, 0, 2, 0xE8, 3, 0, 0}, "1000"},
        {MetaTag::makeTag(META_TAG_INT, "users", nullptr),
         {3, 5, 0, 'u', 's', 'e', 'r', 's', 0, 0, 0, 0},
         "0"},
        {MetaTag::makeTag(META_TAG_INT, nullptr, &allOnes), {3, 1, 0, 'n', 255, 255, 255, 255}, "-1"},
        {MetaTag::makeTag(META_TAG_STRING, "ab", "xyz"), {2, 2, 0, 'a', 'b', 3, 0, 'x', 'y', 'z'}, "xyz"},
        {MetaTag::makeTag(META_TAG_STRING, "", nullptr), {2, 0, 0, 0, 0}, "(null)"},
        {MetaTag::makeTag(META_TAG_FLOAT, "f", &largest),
         {4, 1, 0, 'f', 0xFF, 0xFF, 0x7F, 0xFF},
         "-340282346638528859811704183484516925440.000000"},
        {MetaTag::makeTag(META_TAG_BOOL, "b", &two), {5, 1, 0, 'b', 1}, "true"},
        {MetaTag::makeTag(META_TAG_BOOL, "b", nullptr), {5, 1, 0, 'b', 0}, "false"},
        {MetaTag::makeTag(TAG_PART_HASH, &hash),
         {1, 1, 0, 7, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
         "000102030405060708090a0b0c0d0e0f"},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &ten), {6, 1, 0, 'a', 10, 0, 0x21, 0}, "unchanged"},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &eight), {6, 1, 0, 'a', 8, 0, 0, 0}, "unchanged"},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &none), {6, 1, 0, 'a', 0, 0}, "unchanged", 1},
        {MetaTag::makeTag(META_TAG_BLOB, "x", &blob), {7, 1, 0, 'x', 3, 0, 0, 0, 9, 8, 7}, "unchanged"},
        {MetaTag::makeTag(META_TAG_BLOB, "x", nullptr), {7, 1, 0, 'x', 0, 0, 0, 0}, "unchanged"},
    };
    for (Case& one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.bytes));
        EXPECT_EQ(bytesOf(*one.tag), one.bytes);
        EXPECT_EQ(one.tag->byteSize(), one.bytes.size() + one.sizeBeyond);
        EXPECT_EQ(printed(*one.tag), one.text);
        u32 left = 1;
        const auto read = tagOf(one.bytes, &left);
        ASSERT_TRUE(read);
        EXPECT_EQ(left, 0u);
        EXPECT_EQ(bytesOf(*read), one.bytes);
        EXPECT_EQ(bytesOf(*one.tag->clone()), one.bytes);
        EXPECT_EQ(one.tag->clone()->id(), one.tag->id());
    }
}

TEST(MetaTag, ANameOfOneByteIsARow) {
    // The first rows and the last, two that aren't there, a tag without a name, with an empty one, and with
    // one that a NUL ends.
    const struct {
        Bytes name;
        const char* own;
        u32 id;
        const char* shown;
        bool flag;
    } cases[] = {{{1}, "\x01", TAG_NAME, "Name", true},
                 {{2}, "\x02", TAG_SIZE, "Size", false},
                 {{23}, "\x17", TAG_PARTS, "parts", false},
                 {{24}, "\x18", 24, "\x18", true},
                 {{255}, "\xFF", 255, "\xFF", true},
                 {{'n'}, nullptr, 0, nullptr, true},
                 {{}, "", 0, "", true},
                 {{0}, "", 0, "", true},
                 {{2, 0, 'x'}, "\x02", TAG_SIZE, "Size", false},
                 {{'n', 0}, nullptr, 0, nullptr, true}};
    for (const auto& c : cases) {
        Bytes bytes{3, static_cast<u8>(c.name.size()), 0};
        bytes.insert(bytes.end(), c.name.begin(), c.name.end());
        bytes.insert(bytes.end(), {5, 0, 0, 0});
        SCOPED_TRACE(testing::PrintToString(bytes));
        const auto tag = tagOf(bytes);
        EXPECT_STREQ(tag->name(), c.own);
        EXPECT_EQ(tag->id(), c.id);
        EXPECT_STREQ(tag->displayName(), c.shown);
        EXPECT_EQ(tag->flagA(), c.flag);
        EXPECT_EQ(tag->isNamed("n"), false);
        EXPECT_EQ(*static_cast<const u32*>(tag->getValue()), 5U);
    }
    // A tag that was given the row's name by hand is found by it, but shows it.
    const auto byHand = MetaTag::makeTag(META_TAG_INT, tagTable[TAG_SIZE].wireName, nullptr);
    EXPECT_TRUE(byHand->isNamed(oneByteName(TAG_SIZE)));
    EXPECT_STREQ(byHand->displayName(), "\x02");
}

TEST(MetaTag, TextsAreCutToTheirRoomAndRowsAreNamedInTheUsersLanguage) {
    const auto text = MetaTag::makeTag(TAG_NAME, "abcdef");
    EXPECT_EQ(printed(*text, 4), "abc");
    EXPECT_EQ(printed(*text, 7), "abcdef");
    EXPECT_EQ(printed(*text, 0), "(null)");
    EXPECT_EQ(printed(*MetaTag::makeTag(TAG_PART_HASH, nullptr), 5), "0000");
    const auto version = tagOf({3, 1, 0, 17, 5, 0, 0, 0});
    const char* before = version->displayName();
    setTagDisplayName(TAG_VERSION, "Fassung");
    EXPECT_STREQ(version->displayName(), "Fassung");
    EXPECT_STREQ(before, "Version") << "texts that were handed out stay";
    EXPECT_EQ(bytesOf(*version), (Bytes{3, 1, 0, 17, 5, 0, 0, 0}));
    setTagDisplayName(TAG_VERSION, before);
}

TEST(MetaTag, WhatIsNoTagGivesNone) {
    CapturedLog log;
    EXPECT_EQ(MetaTag::makeTag(8, nullptr, nullptr), nullptr);
    EXPECT_EQ(log.take(), "ERROR: unknown type MetaTag::makeTag() 8\n");
    EXPECT_EQ(MetaTag::makeTag(static_cast<TagIndex>(24), nullptr), nullptr);
    EXPECT_EQ(MetaTag::makeTag(static_cast<TagIndex>(0), nullptr), nullptr);
    EXPECT_EQ(tagOf({0, 1, 0, 'a'}), nullptr);
    EXPECT_EQ(log.take(), "ERROR: unknown type MetaTag::makeTag() 0\nerror in tag from bytes\n");
    // Short streams, and lengths that promise more than there is, say nothing.
    log.verbose = 1;
    EXPECT_EQ(tagOf({}), nullptr);
    EXPECT_EQ(tagOf({3, 1, 0, 2, 1, 0, 0}), nullptr);
    EXPECT_EQ(tagOf({7, 1, 0, 'x', 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}), nullptr);
    EXPECT_EQ(tagOf({2, 1, 0, 1, 0xFF, 0xFF, 1, 2}), nullptr);
    EXPECT_EQ(tagOf({2, 0xFF, 0xFF, 1, 2}), nullptr);
    EXPECT_EQ(tagOf({6, 1, 0, 'a', 0xFF, 0xFF, 1, 2}), nullptr);
    EXPECT_EQ(log.take(), "");
}

TEST(MetaTag, ABlobOffAStreamThatCannotTellItsLengthIsBelievedAPieceAtATime) {
    class Unknown : public BytesFile {
      public:
        using BytesFile::BytesFile;
        std::optional<u32> bytesLeft() override { return std::nullopt; }
    };
    Bytes bytes{7, 1, 0, 'x', 0, 0, 2, 0};  // 128 KiB
    bytes.resize(bytes.size() + 128 * 1024, 5);
    Unknown whole(bytes);
    const auto tag = MetaTag::readTag(whole);
    ASSERT_TRUE(tag);
    EXPECT_EQ(*static_cast<const MetaBlob*>(tag->getValue()), MetaBlob(128 * 1024, 5));
    // 4 GiB that never come: an allocation of that size would be refused under the sanitizers.
    bytes[4] = bytes[5] = bytes[6] = bytes[7] = 0xFF;
    Unknown hostile(bytes);
    EXPECT_EQ(MetaTag::readTag(hostile), nullptr);
}

TEST(MetaTag, AStreamThatTakesNothingIsAFailure) {
    CapturedLog log;
    log.verbose = 1;
    const auto tag = MetaTag::makeTag(META_TAG_STRING, "name", "value");
    for (u32 room = 0; room < tag->byteSize(); ++room) {
        Bytes bytes(room);
        BytesFile file(bytes);
        EXPECT_FALSE(tag->toNetwork(file)) << room;
    }
    EXPECT_THAT(log.take(), testing::AllOf(testing::HasSubstr("**I4 error in MetaTag::toBytes()\n"),
                                           testing::HasSubstr("**I4 error in MetaTagString::toBytes()\n")));
}

TEST(MetaTag, DamageIsRefusedOrRead) {
    CapturedLog log;
    const u8 one = 1;
    BoolArray bits(20);
    bits.setAll(true);
    const MetaBlob blob{1, 2, 3, 4};
    const std::unique_ptr<MetaTag> tags[] = {
        MetaTag::makeTag(TAG_PART_HASH, nullptr),         MetaTag::makeTag(TAG_NAME, "a name"),
        MetaTag::makeTag(META_TAG_INT, "users", nullptr), MetaTag::makeTag(META_TAG_FLOAT, nullptr, nullptr),
        MetaTag::makeTag(META_TAG_BOOL, "flag", &one),    MetaTag::makeTag(META_TAG_BOOLARRAY, "bits", &bits),
        MetaTag::makeTag(META_TAG_BLOB, "blob", &blob),
    };
    for (const auto& tag : tags) {
        sweepDamage(bytesOf(*tag), [](std::span<const std::uint8_t> bytes) {
            BytesFile file(bytes);
            const auto read = MetaTag::readTag(file);
            if (!read) return;
            // What was read is written as it is told, and reads again as the same.
            const Bytes again = bytesOf(*read);
            EXPECT_EQ(bytesOf(*tagOf(again)), again);
            printed(*read);
            read->displayName();
        });
    }
}

TEST(BoolArray, BitsLieInTheirBytesAndNoneBehindThem) {
    const auto onStream = [](const BoolArray& bits) {
        return written([&](i4_file& file) { EXPECT_TRUE(bits.write(file)); });
    };
    BoolArray bits(10);
    for (const i32 at : {0, 5, 10, -1}) bits.set(at, true);
    EXPECT_EQ(bits.toText(), "1000010000");
    bits.set(5, false);
    for (const i32 at : {5, 10, 1000000, -1}) EXPECT_FALSE(bits.get(at)) << at;
    EXPECT_EQ(onStream(bits), (Bytes{10, 0, 1, 0}));
    bits.setAll(true);
    EXPECT_EQ(onStream(bits), (Bytes{10, 0, 0xFF, 0xFF}));
    BoolArray copy(3);
    copy.copyFrom(&bits);
    EXPECT_EQ(copy, bits);
    copy.copyFrom(nullptr);
    EXPECT_EQ(copy.toText(), "0000000000");
    bits.setSize(0);
    EXPECT_EQ(onStream(bits), (Bytes{0, 0}));

    BytesFile cut(Bytes{9, 0, 0xFF});
    EXPECT_THROW(copy.read(cut), i4_err);
    EXPECT_EQ(copy.size(), 0);
    BytesFile whole(Bytes{9, 0, 0xFF, 0xFF});
    copy.read(whole);
    EXPECT_EQ(copy.toText(), "111111111");
}

}  // namespace

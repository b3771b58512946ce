// tString, tStringList and tBlob: the text and buffer behaviour other layers rely on.
#include <gtest/gtest.h>

#include <cstring>

#include <random>
#include <string>
#include <vector>

#include "tBlob.h"
#include "tString.h"
#include "tStringList.h"

TEST(tString, BytesSplittingAndPaths)
{
    tString withNul("a\0b", 3);
    EXPECT_EQ(3u, withNul.length());
    EXPECT_NE(withNul, tString("a"));
    EXPECT_TRUE(tString(nullptr).isEmpty());
    EXPECT_TRUE(tString() == "");
    EXPECT_EQ(tString("ab"), "a" + tString("b"));
    EXPECT_EQ(tString("ab"), tString("a") + "b");

    tString kv("key=value=more");
    EXPECT_EQ("key", kv.strBefor("="));
    EXPECT_EQ("value=more", kv.strAfter("="));
    EXPECT_EQ("key=value=more", kv.strBefor(":"));
    EXPECT_EQ("", kv.strAfter(":"));
    EXPECT_EQ("", tString("=x").strBefor("="));
    EXPECT_EQ("", tString("x=").strAfter("="));
    EXPECT_EQ("value", kv.strAfter("key=").strBefor("=m"));

    EXPECT_EQ("", tString().completePath());
    EXPECT_EQ("a/", tString("a").completePath());
    EXPECT_EQ("a/", tString("a/").completePath());
    EXPECT_EQ("18446744073709551615", tString::fromUInt64(18446744073709551615ULL));
    EXPECT_EQ("0", tString::fromUInt64(0));
    EXPECT_EQ("-9223372036854775808", tString::fromInt64(-9223372036854775807LL - 1));
    EXPECT_EQ(std::string(300, 'x') + "7", tString::format("%s%d", std::string(300, 'x').c_str(), 7).str());
}

TEST(tString, ToIntDefTakesOnlyWholeNumbers)
{
    EXPECT_EQ(42, tString("42").toIntDef(-1));
    EXPECT_EQ(-42, tString("-42").toIntDef(-1));
    EXPECT_EQ(42, tString("+42").toIntDef(-1));
    EXPECT_EQ(0, tString("-0").toIntDef(-1));
    EXPECT_EQ(7, tString("007").toIntDef(-1));
    EXPECT_EQ(9223372036854775807LL, tString("9223372036854775807").toIntDef(-1));
    EXPECT_EQ(-9223372036854775807LL - 1, tString("-9223372036854775808").toIntDef(-1));
    for (char const* bad : {"", "-", "+", " 1", "1 ", "1a", "0x10", "1.5", "--1", "+-1", "9223372036854775808",
                            "-9223372036854775809", "99999999999999999999999"})
        EXPECT_EQ(-1, tString(bad).toIntDef(-1)) << bad;
    EXPECT_EQ(-1, tString("1\0002", 3).toIntDef(-1));
}

TEST(tStringList, GetPastTheEndIsEmpty)
{
    tStringList a;
    a.add("x");
    a.add("y");
    tStringList b;
    b.add("z");
    a.add(b);
    a.add(a);
    ASSERT_EQ(6u, a.count());
    EXPECT_EQ("z", a.get(2));
    EXPECT_EQ("x", a.get(3));
    EXPECT_EQ("", a.get(6));
    EXPECT_EQ("", a.get(0xFFFFFFFFu));
}

TEST(tBlob, SlicePrependAndSearch)
{
    unsigned char const bytes[] = {1, 2, 3, 4, 5};
    tBlob b(bytes, 5);
    EXPECT_EQ(2u, b.getIndexOf(3));
    EXPECT_EQ(0xFFFFFFFFu, b.getIndexOf(9));
    b.slice(2);
    ASSERT_EQ(3u, b.size());
    EXPECT_EQ(3, b.getBuffer()[0]);
    EXPECT_EQ(0u, b.getIndexOf(3));
    EXPECT_EQ(0xFFFFFFFFu, b.getIndexOf(1));  // cut bytes are not found again

    unsigned char const head[] = {9, 8};
    b.prepend(head, 2);
    EXPECT_EQ(tBlob(std::vector<unsigned char>{9, 8, 3, 4, 5}.data(), 5), b);
    unsigned char const longHead[] = {7, 7, 7};
    b.prepend(longHead, 3);
    EXPECT_EQ(tBlob(std::vector<unsigned char>{7, 7, 7, 9, 8, 3, 4, 5}.data(), 8), b);

    b.append(b);  // a blob may be appended to itself
    EXPECT_EQ(16u, b.size());
    EXPECT_EQ(7, b.getBuffer()[8]);
    b.slice(1000);
    EXPECT_TRUE(b.isEmpty());
    EXPECT_EQ(0xFFFFFFFFu, b.getIndexOf(7));

    tBlob fromNull(static_cast<tBlob const*>(nullptr));
    EXPECT_TRUE(fromNull.isEmpty());
    tBlob src(bytes, 5);
    src.slice(1);
    tBlob copy(&src);
    EXPECT_EQ(src, copy);
    EXPECT_EQ(4u, copy.size());
    EXPECT_EQ(2, copy.getBuffer()[0]);
}

// A stream parser's pattern: append chunks, cut frames off the front, grow and shrink; the
// bytes must stay exactly those of a plain reference queue through every compaction.
TEST(tBlob, LongSliceSequencesKeepTheBytes)
{
    std::mt19937 rng(5);
    tBlob blob;
    std::vector<unsigned char> reference;
    unsigned char next = 0;
    for (int round = 0; round < 20000; ++round) {
        unsigned add = rng() % 300;
        std::vector<unsigned char> chunk(add);
        for (auto& c : chunk) c = next++;
        blob.append(chunk.data(), add);
        reference.insert(reference.end(), chunk.begin(), chunk.end());
        unsigned cut = rng() % 310;
        blob.slice(cut);
        reference.erase(reference.begin(), reference.begin() + std::min<std::size_t>(cut, reference.size()));
        if (round % 13 == 0) {  // grown in place or into new storage, the new bytes written after
            const unsigned grow = rng() % 700, old = blob.size();
            unsigned char* q = blob.resize(old + grow);
            for (unsigned i = 0; i < grow; ++i) reference.push_back(q[old + i] = next++);
        }
        if (round % 29 == 0) {
            const unsigned shrink = std::min<unsigned>(blob.size(), rng() % 60);
            blob.resize(blob.size() - shrink);
            reference.resize(reference.size() - shrink);
        }
        if (round % 31 == 0) blob.reserve(blob.size() + rng() % 5000);
        if (round % 97 == 0) {
            unsigned char marker = 0xAA;
            blob.prepend(&marker, 1);
            reference.insert(reference.begin(), marker);
        }
        ASSERT_EQ(reference.size(), blob.size());
        ASSERT_TRUE(reference.empty() || std::equal(reference.begin(), reference.end(), blob.getBuffer()));
    }
    tBlob moved(std::move(blob));
    EXPECT_EQ(reference.size(), moved.size());
    unsigned char* p = moved.resize(moved.size() + 10);
    EXPECT_TRUE(reference.empty() || std::equal(reference.begin(), reference.end(), p));
}

// Blobs of a MiB and more live in storage of their own that grows without copying: appends,
// cuts, resizes, reserves and prepends across that size keep exactly the bytes of a plain
// reference, and copies, moves and swaps of such blobs stand on their own.
TEST(tBlob, LargeBlobsKeepTheBytesWhileTheyGrow)
{
    std::mt19937 rng(6);
    tBlob blob;
    std::vector<unsigned char> reference;
    unsigned char next = 0;
    std::size_t largest = 0;
    for (int round = 0; round < 400; ++round) {
        std::vector<unsigned char> chunk(rng() % 60000);
        for (auto& c : chunk) c = next++;
        blob.append(chunk.data(), static_cast<unsigned int>(chunk.size()));
        reference.insert(reference.end(), chunk.begin(), chunk.end());
        const unsigned cut = round % 50 == 49 ? blob.size() - 10 : rng() % 20000;
        blob.slice(cut);
        reference.erase(reference.begin(), reference.begin() + std::min<std::size_t>(cut, reference.size()));
        if (round % 7 == 0) {
            const unsigned grow = rng() % 600000, old = blob.size();
            unsigned char* q = blob.resize(old + grow);
            for (unsigned i = 0; i < grow; ++i) reference.push_back(q[old + i] = next++);
        }
        if (round % 11 == 0) blob.reserve(blob.size() + rng() % 4000000);
        if (round % 13 == 0) {
            std::vector<unsigned char> head(rng() % 5000, 0xAB);
            blob.prepend(head.data(), static_cast<unsigned int>(head.size()));
            reference.insert(reference.begin(), head.begin(), head.end());
        }
        ASSERT_EQ(reference.size(), blob.size());
        ASSERT_TRUE(reference.empty() || std::memcmp(reference.data(), blob.getBuffer(), reference.size()) == 0) << round;
        largest = std::max<std::size_t>(largest, blob.size());
    }
    EXPECT_GT(largest, 2u << 20);
    // Grown while bytes are cut off its front, as a stream is.
    tBlob stream;
    std::vector<unsigned char> sent;
    for (unsigned int piece = 0; piece < 12; ++piece) {
        std::vector<unsigned char> bytes(700000 + piece);
        for (auto& c : bytes) c = next++;
        stream.append(bytes.data(), static_cast<unsigned int>(bytes.size()));
        sent.insert(sent.end(), bytes.begin(), bytes.end());
        stream.slice(100000);
        sent.erase(sent.begin(), sent.begin() + 100000);
        ASSERT_EQ(stream, tBlob(sent.data(), static_cast<unsigned int>(sent.size()))) << piece;
    }
    std::vector<unsigned char> tail(3u << 20, 0x5C);
    blob.append(tail.data(), static_cast<unsigned int>(tail.size()));
    reference.insert(reference.end(), tail.begin(), tail.end());
    tBlob copy(blob), moved(std::move(copy)), swapped;
    swapped.swap(moved);
    blob.getBuffer()[0] ^= 0xFF;
    EXPECT_EQ(swapped.size(), reference.size());
    EXPECT_EQ(0, std::memcmp(swapped.getBuffer(), reference.data(), reference.size()));
    EXPECT_EQ(moved.size(), 0u);
    blob = swapped;
    EXPECT_EQ(blob, swapped);
    blob.clear();
    blob.append(swapped.getBuffer() + 5, 100);  // from another blob's storage
    EXPECT_EQ(blob, tBlob(reference.data() + 5, 100));
}

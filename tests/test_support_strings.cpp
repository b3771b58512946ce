// tString, tStringList and tBlob: the text and buffer behaviour other layers rely on.
#include <gtest/gtest.h>

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

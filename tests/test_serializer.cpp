#include <gtest/gtest.h>

#include "test_helpers.h"

#include <vector>

#include "nk_serializer.h"

TEST(Serializer, FixedWidthFieldsAreLittleEndian)
{
    nk_serializer s;
    unsigned char a = 0xAB;
    signed char b = -2;
    unsigned short c = 0x1234;
    short d = -1;
    unsigned int e = 0x01020304;
    unsigned long long f = 1;
    ASSERT_TRUE(s.u8(a, nk_serializer::SER_WRITE));
    ASSERT_TRUE(s.i8(b, nk_serializer::SER_WRITE));
    ASSERT_TRUE(s.u16(c, nk_serializer::SER_WRITE));
    ASSERT_TRUE(s.i16(d, nk_serializer::SER_WRITE));
    ASSERT_TRUE(s.u32(e, nk_serializer::SER_WRITE));
    ASSERT_TRUE(s.u64(f, nk_serializer::SER_WRITE));
    EXPECT_EQ(bytes(s), (std::vector<unsigned char>{0xAB, 0xFE, 0x34, 0x12, 0xFF, 0xFF, 0x04, 0x03, 0x02, 0x01,
                                                    0x01, 0, 0, 0, 0, 0, 0, 0}));

    unsigned char a2 = 0;
    signed char b2 = 0;
    unsigned short c2 = 0;
    short d2 = 0;
    unsigned int e2 = 0;
    unsigned long long f2 = 0;
    EXPECT_TRUE(s.u8(a2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.i8(b2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.u16(c2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.i16(d2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.u32(e2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.u64(f2, nk_serializer::SER_READ));
    EXPECT_EQ(a2, a);
    EXPECT_EQ(b2, b);
    EXPECT_EQ(c2, c);
    EXPECT_EQ(d2, d);
    EXPECT_EQ(e2, e);
    EXPECT_EQ(f2, f);
    EXPECT_EQ(s.readPosition(), 18u);
    EXPECT_FALSE(s.u8(a2, nk_serializer::SER_READ));
}

TEST(Serializer, ShortReadsFailWithoutMoving)
{
    unsigned char three[] = {1, 2, 3};
    tBlob in(three, 3);
    nk_serializer s(&in);
    unsigned int v = 77;
    EXPECT_FALSE(s.u32(v, nk_serializer::SER_READ));
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(s.readPosition(), 0u);
    unsigned short w = 0;
    EXPECT_TRUE(s.u16(w, nk_serializer::SER_READ));
    EXPECT_EQ(w, 0x0201);
    EXPECT_EQ(in.size(), 3u);  // the caller's blob is not changed

    // Bytes cut off with the plain buffer operations leave the read position behind the
    // end: nothing more is read, whatever the position.
    s.slice(3);
    unsigned char b = 0;
    EXPECT_FALSE(s.u8(b, nk_serializer::SER_READ));
    EXPECT_EQ(s.remaining(), 0u);
    tString str("x");
    EXPECT_FALSE(s.string(str, nk_serializer::SER_READ));
    EXPECT_TRUE(str.isEmpty());
}

TEST(Serializer, StringsAndBlobs)
{
    nk_serializer s;
    tString empty;
    tString binary("a\0b\xff", 4);
    unsigned char raw[] = {9, 8, 7};
    tBlob blob(raw, 3);
    s.string(empty, nk_serializer::SER_WRITE);
    s.string(binary, nk_serializer::SER_WRITE);
    s.blob(blob, nk_serializer::SER_WRITE);
    EXPECT_EQ(bytes(s), (std::vector<unsigned char>{0, 0, 0, 0, 4, 0, 0, 0, 'a', 0, 'b', 0xFF, 3, 0, 0, 0, 9, 8, 7}));

    tString r1("x"), r2;
    tBlob r3;
    EXPECT_TRUE(s.string(r1, nk_serializer::SER_READ));
    EXPECT_TRUE(s.string(r2, nk_serializer::SER_READ));
    EXPECT_TRUE(s.blob(r3, nk_serializer::SER_READ));
    EXPECT_TRUE(r1.isEmpty());
    EXPECT_EQ(r2, binary);
    EXPECT_EQ(r3, blob);

    // clearSer leaves an empty serializer that builds from scratch.
    s.clearSer();
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s.readPosition(), 0u);
    unsigned char one = 1;
    s.u8(one, nk_serializer::SER_WRITE);
    EXPECT_EQ(bytes(s), std::vector<unsigned char>{1});
}

TEST(Serializer, LengthPastTheEndFailsAndConsumesOnlyTheCount)
{
    std::vector<unsigned char> raw = {10, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i'};
    tBlob in(raw.data(), static_cast<unsigned int>(raw.size()));
    nk_serializer s(&in);
    tString str("old");
    EXPECT_FALSE(s.string(str, nk_serializer::SER_READ));
    EXPECT_TRUE(str.isEmpty());
    EXPECT_EQ(s.readPosition(), 4u);

    // A count near 2^32 must not wrap the bounds check.
    std::vector<unsigned char> huge = {0xFF, 0xFF, 0xFF, 0xFF, 1, 2};
    tBlob in2(huge.data(), static_cast<unsigned int>(huge.size()));
    nk_serializer s2(&in2);
    tBlob b;
    EXPECT_FALSE(s2.blob(b, nk_serializer::SER_READ));
    EXPECT_EQ(b.size(), 0u);
}

TEST(Serializer, WritingAppendsWhateverTheReadPosition)
{
    nk_serializer s;
    unsigned short v = 0x0102;
    s.u16(v, nk_serializer::SER_WRITE);
    unsigned char first = 0;
    s.u8(first, nk_serializer::SER_READ);
    unsigned char more = 0x33;
    s.u8(more, nk_serializer::SER_WRITE);
    EXPECT_EQ(bytes(s), (std::vector<unsigned char>{0x02, 0x01, 0x33}));
    EXPECT_EQ(s.readPosition(), 1u);
}

TEST(Serializer, InPlaceReadingSeesOnlyTheGivenBytes)
{
    unsigned char raw[] = {2, 0, 0, 0, 'h', 'i', 0x34, 0x12, 0xEE};
    nk_serializer s(raw, 8);  // the last byte is outside the view
    tString text;
    unsigned short v = 0;
    unsigned char past = 0;
    EXPECT_TRUE(s.string(text, nk_serializer::SER_READ));
    EXPECT_TRUE(s.u16(v, nk_serializer::SER_READ));
    EXPECT_FALSE(s.u8(past, nk_serializer::SER_READ));
    EXPECT_EQ(text, "hi");
    EXPECT_EQ(v, 0x1234);
    EXPECT_EQ(s.remaining(), 0u);

    // Writing appends to the serializer's own buffer; clearSer drops the view.
    unsigned char one = 1;
    s.u8(one, nk_serializer::SER_WRITE);
    EXPECT_EQ(bytes(s), std::vector<unsigned char>{1});
    s.clearSer();
    EXPECT_EQ(s.remaining(), 0u);
    EXPECT_FALSE(s.u8(past, nk_serializer::SER_READ));
}

// Formats two peers share byte for byte: CRC-8, base128, SHA-1 text and base64.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "base128.h"
#include "base64.h"
#include "crc8.h"
#include "SHA1.h"

namespace
{
using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<unsigned char>(rng());
    return b;
}

Bytes b128Encode(Bytes const& in)
{
    Bytes out(base128::encodedSize(static_cast<unsigned>(in.size())));
    out.resize(base128::encode(out.data(), in.data(), static_cast<unsigned>(in.size())));
    return out;
}

Bytes b128Decode(Bytes const& in)
{
    Bytes out(base128::decodedSize(static_cast<unsigned>(in.size())));
    out.resize(base128::decode(out.data(), in.data(), static_cast<unsigned>(in.size())));
    return out;
}

// The format read literally: one bit at a time, most significant bit first.
Bytes bitwiseBase128(Bytes const& in)
{
    Bytes out;
    unsigned group = 0, bits = 0;
    for (unsigned char byte : in)
        for (int i = 7; i >= 0; --i) {
            group = (group << 1) | ((byte >> i) & 1u);
            if (++bits == 7) {
                out.push_back(static_cast<unsigned char>(0x80 | group));
                group = bits = 0;
            }
        }
    if (bits) out.push_back(static_cast<unsigned char>(0x80 | (group << (7 - bits))));
    return out;
}

unsigned char bitwiseCrc8(Bytes const& in)
{
    unsigned crc = 0;
    for (unsigned char byte : in) {
        crc ^= byte;
        for (int i = 0; i < 8; ++i) crc = (crc & 0x80) ? ((crc << 1) ^ 0x07) & 0xFF : (crc << 1) & 0xFF;
    }
    return static_cast<unsigned char>(crc);
}

std::string sha1Of(Bytes const& b)
{
    SHA1 sha;
    sha.Input(b.data(), static_cast<unsigned>(b.size()));
    return sha.Result().str();
}

Bytes asBytes(std::string const& s) { return Bytes(s.begin(), s.end()); }
}

TEST(Crc8, CatalogueCheckValueAndSelfCheck)
{
    Bytes check = asBytes("123456789");
    EXPECT_EQ(0xF4, crc_crc8init(check.data(), 9));
    EXPECT_EQ(0x00, crc_crc8init(nullptr, 0));

    for (std::size_t n = 0; n <= 70; ++n) {
        Bytes data = randomBytes(n, static_cast<unsigned>(n));
        unsigned char crc = crc_crc8init(data.data(), static_cast<unsigned>(n));
        EXPECT_EQ(bitwiseCrc8(data), crc) << n;
        data.push_back(crc);
        EXPECT_EQ(0x00, crc_crc8init(data.data(), static_cast<unsigned>(data.size()))) << n;
    }

    // Every length class: the tables, the 128-bit folding and the wide folding where the
    // processor has it, each continued from a CRC that is not zero.
    for (std::size_t n : {255u, 256u, 257u, 1000u, 2047u, 2048u, 2049u, 2303u, 4096u, 70001u}) {
        Bytes data = randomBytes(n + 5, static_cast<unsigned>(n));
        const unsigned char head = crc_crc8init(data.data(), 5);
        EXPECT_EQ(bitwiseCrc8(data), crc_crc8update(head, data.data() + 5, static_cast<unsigned>(n))) << n;
    }

    Bytes big = randomBytes(100003, 7);
    unsigned char whole = crc_crc8init(big.data(), static_cast<unsigned>(big.size()));
    unsigned char pieces = crc_crc8init(big.data(), 13);
    pieces = crc_crc8update(pieces, big.data() + 13, 50000);
    pieces = crc_crc8update(pieces, big.data() + 50013, static_cast<unsigned>(big.size() - 50013));
    EXPECT_EQ(whole, pieces);
    EXPECT_EQ(bitwiseCrc8(big), whole);
}

TEST(Base128, HandComputedVectorsAndSizes)
{
    EXPECT_EQ((Bytes{0xFF, 0xC0}), b128Encode({0xFF}));
    EXPECT_EQ((Bytes{0x80, 0x80}), b128Encode({0x00}));
    EXPECT_EQ((Bytes{0x80, 0xC0, 0xC0, 0xB0}), b128Encode({0x01, 0x02, 0x03}));
    EXPECT_EQ((Bytes{0xA0, 0xD0, 0xC0}), b128Encode({0x41, 0x42}));
    EXPECT_EQ(Bytes(8, 0xFF), b128Encode(Bytes(7, 0xFF)));
    EXPECT_EQ(Bytes(), b128Encode(Bytes()));

    EXPECT_EQ(0u, base128::encodedSize(0));
    EXPECT_EQ(2u, base128::encodedSize(1));
    EXPECT_EQ(8u, base128::encodedSize(7));
    EXPECT_EQ(10u, base128::encodedSize(8));
    EXPECT_EQ(1u, base128::decodedSize(2));
    EXPECT_EQ(7u, base128::decodedSize(8));
    EXPECT_EQ(0u, base128::decodedSize(1));
    // No 32-bit overflow in 8n + 6.
    EXPECT_EQ(613566757u, base128::encodedSize(536870912u));
    EXPECT_EQ(3758096383u, base128::decodedSize(0xFFFFFFFFu) );

    // The top bit of encoded bytes is ignored on decoding.
    EXPECT_EQ((Bytes{0xFF}), b128Decode({0x7F, 0x40}));
    EXPECT_EQ((Bytes{0x01, 0x02, 0x03}), b128Decode({0x80, 0xC0, 0xC0, 0xB0}));
}

TEST(Base128, RoundTripsMatchTheBitStream)
{
    for (std::size_t n = 0; n <= 64; ++n) {
        Bytes data = randomBytes(n, static_cast<unsigned>(1000 + n));
        Bytes encoded = b128Encode(data);
        ASSERT_EQ(bitwiseBase128(data), encoded) << n;
        for (unsigned char b : encoded) ASSERT_GE(b, 0x80) << n;
        ASSERT_EQ(data, b128Decode(encoded)) << n;
    }
    for (std::size_t n : {1000u, 65536u, 1000003u}) {
        Bytes data = randomBytes(n, static_cast<unsigned>(n));
        Bytes encoded = b128Encode(data);
        ASSERT_EQ(bitwiseBase128(data), encoded) << n;
        ASSERT_EQ(data, b128Decode(encoded)) << n;
    }
}

// decodeChecked decodes as decode does and tells whether a byte below 0x80 was among the
// input, wherever it lies (the wide steps, the eight-byte steps, the tail).
TEST(Base128, CheckedDecodingFindsEveryByteBelow0x80)
{
    for (std::size_t n : {1u, 7u, 20u, 100u, 1001u}) {
        const Bytes encoded = b128Encode(randomBytes(n, static_cast<unsigned>(n) + 40));
        Bytes out(base128::decodedSize(static_cast<unsigned>(encoded.size())));
        ASSERT_TRUE(base128::decodeChecked(out.data(), encoded.data(), static_cast<unsigned>(encoded.size())));
        ASSERT_EQ(out, b128Decode(encoded));
        for (std::size_t at = 0; at < encoded.size(); ++at) {
            Bytes damaged = encoded;
            damaged[at] &= 0x7F;
            ASSERT_FALSE(base128::decodeChecked(out.data(), damaged.data(), static_cast<unsigned>(damaged.size())))
                << n << " " << at;
            ASSERT_EQ(out, b128Decode(encoded)) << "the top bit is ignored as decode ignores it";
        }
    }
}

TEST(Sha1, Fips180Vectors)
{
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", sha1Of(asBytes("abc")));
    EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", sha1Of(Bytes()));
    EXPECT_EQ("84983e441c3bd26ebaae4aa1f95129e5e54670f1",
              sha1Of(asBytes("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")));

    SHA1 sha;
    Bytes thousand(1000, 'a');
    for (int i = 0; i < 1000; ++i) sha.Input(thousand.data(), 1000);
    EXPECT_EQ("34aa973cd4c4daa4f61eeb2bdbad27316534016f", sha.Result().str());
    EXPECT_EQ("34aa973cd4c4daa4f61eeb2bdbad27316534016f", sha.Result().str());
    // Input after Result starts a new digest.
    sha.Input(tString("abc"));
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", sha.Result().str());
}

TEST(Sha1, SameTextAsSha1sum)
{
    char path[] = "/tmp/nk_sha1_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    for (std::size_t n : {1u, 55u, 64u, 4097u}) {
        Bytes data = randomBytes(n, static_cast<unsigned>(n * 31));
        FILE* f = std::fopen(path, "wb");
        ASSERT_NE(nullptr, f);
        ASSERT_EQ(n, std::fwrite(data.data(), 1, n, f));
        std::fclose(f);
        FILE* p = popen((std::string("sha1sum ") + path).c_str(), "r");
        ASSERT_NE(nullptr, p);
        char line[128] = {};
        ASSERT_NE(nullptr, std::fgets(line, sizeof line, p));
        pclose(p);
        EXPECT_EQ(std::string(line, 40), sha1Of(data)) << n;
    }
    std::remove(path);
}

TEST(Base64, Rfc4648VectorsAndRefusals)
{
    char const* const plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    char const* const coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (int i = 0; i < 7; ++i) {
        std::string p = plain[i];
        EXPECT_EQ(coded[i], base64::encode(reinterpret_cast<unsigned char const*>(p.data()), p.size()).str());
        tBlob out;
        ASSERT_TRUE(base64::decode(coded[i], out)) << coded[i];
        EXPECT_EQ(p, std::string(reinterpret_cast<char const*>(out.getBuffer()), out.size()));
    }
    Bytes all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    tBlob back;
    ASSERT_TRUE(base64::decode(base64::encode(all.data(), 256), back));
    EXPECT_EQ(tBlob(all.data(), 256), back);

    for (char const* bad : {"Zg=", "Zg", "Zh==", "Zm9=", "Z===", "====", "Zm9v====", "Zm=v", "Zm9v\n",
                            " Zm9v", "Zm 9v", "Zm8-", "Zm8_", "Zg==Zg=="}) {
        tBlob out;
        out.append(static_cast<unsigned char>(1));
        EXPECT_FALSE(base64::decode(bad, out)) << bad;
        EXPECT_EQ(0u, out.size()) << bad;
    }
}

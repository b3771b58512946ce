#include <gtest/gtest.h>

#include <functional>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "tCompression.h"

namespace
{
using Bytes = std::vector<unsigned char>;

tBlob blobOf(Bytes const& b) { return tBlob(b.data(), static_cast<unsigned int>(b.size())); }
tBlob blobOf(std::string const& s) { return tBlob(reinterpret_cast<unsigned char const*>(s.data()), static_cast<unsigned int>(s.size())); }
Bytes bytesOf(tBlob const& b) { return Bytes(b.getBuffer(), b.getBuffer() + b.size()); }

Bytes randomBytes(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& c : b) c = static_cast<unsigned char>(rng());
    return b;
}

// Symbol i appears fib(i) times: an unlimited Huffman code would be 24 bits deep.
Bytes fibonacciSkewed()
{
    Bytes b;
    unsigned a = 1, c = 1;
    for (unsigned s = 0; s < 25; ++s) {
        b.insert(b.end(), a, static_cast<unsigned char>(s * 7));
        const unsigned next = a + c;
        a = c;
        c = next;
    }
    std::shuffle(b.begin(), b.end(), std::mt19937(5));
    return b;
}

unsigned maxCodeLength(Bytes const& huffmanForm)
{
    unsigned m = 0;
    for (std::size_t k = 4; k < 4 + 128 && k < huffmanForm.size(); ++k)
        m = std::max({m, huffmanForm[k] & 0x0Fu, unsigned(huffmanForm[k] >> 4)});
    return m;
}

// Bits of an unlimited Huffman code for the byte counts of data (the sum of merged weights).
uint64_t unlimitedHuffmanBits(Bytes const& data)
{
    uint64_t counts[256] = {};
    for (unsigned char c : data) ++counts[c];
    std::priority_queue<uint64_t, std::vector<uint64_t>, std::greater<uint64_t>> q;
    for (uint64_t c : counts)
        if (c) q.push(c);
    if (q.size() == 1) return q.top();
    uint64_t bits = 0;
    while (q.size() > 1) {
        const uint64_t a = q.top(); q.pop();
        const uint64_t b = q.top(); q.pop();
        bits += a + b;
        q.push(a + b);
    }
    return bits;
}
}

// The Huffman form of "AAAAABCDD", worked by hand.
static Bytes workedHuffman()
{
    Bytes huffman(4 + 128 + 2, 0);
    huffman[0] = 0x09;
    huffman[4 + 32] = 0x10;  // 'A' (0x41, high nibble): 1 bit
    huffman[4 + 33] = 0x33;  // 'B', 'C': 3 bits
    huffman[4 + 34] = 0x02;  // 'D': 2 bits
    huffman[132] = 0x06;     // 0 0 0 0 0 110 111 10 10, one zero bit of padding
    huffman[133] = 0xF4;
    return huffman;
}

TEST(Compression, WorkedExamplesAreByteExact)
{
    // "AAAAABCDD": the example of docs/wire-format.md.
    const tBlob in = blobOf(std::string("AAAAABCDD"));
    EXPECT_EQ(bytesOf(tCompression::encodeRLE(in)),
              (Bytes{0x09, 0, 0, 0, 0xFC, 0x41, 0x03, 0x42, 0x43, 0x44, 0x44}));

    const Bytes huffman = workedHuffman();
    EXPECT_EQ(bytesOf(tCompression::encodeHuffman(in)), huffman);
    EXPECT_EQ(tCompression::decodeHuffman(blobOf(huffman)), in);

    // PackBits rule at the edges: pairs stay literal, runs split at 128, a 2-byte rest is literal.
    EXPECT_EQ(bytesOf(tCompression::encodeRLE(blobOf(std::string("aab")))),
              (Bytes{3, 0, 0, 0, 0x02, 'a', 'a', 'b'}));
    EXPECT_EQ(bytesOf(tCompression::encodeRLE(blobOf(std::string(130, 'x') + "y"))),
              (Bytes{131, 0, 0, 0, 0x81, 'x', 0x02, 'x', 'x', 'y'}));
    EXPECT_EQ(bytesOf(tCompression::encodeRLE(tBlob())), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(bytesOf(tCompression::encodeHuffman(tBlob())), (Bytes{0, 0, 0, 0}));
    // A single symbol gets the 1-bit code 0.
    Bytes single(4 + 128 + 2, 0);
    single[0] = 9;
    single[4 + 0x7A / 2] = 0x01;
    EXPECT_EQ(bytesOf(tCompression::encodeHuffman(blobOf(std::string(9, 'z')))), single);
    // A decoder skips the no-op control byte 128.
    EXPECT_EQ(tCompression::decodeRLE(blobOf(Bytes{2, 0, 0, 0, 0x80, 0xFF, 'q', 0x80})), blobOf(std::string("qq")));
}

TEST(Compression, RoundTripsAndSizesAgree)
{
    std::vector<Bytes> inputs = {{}, {0x42}, Bytes(1000, 'z'), randomBytes(100000, 1), fibonacciSkewed()};
    Bytes runs;
    for (unsigned r = 1; r < 300; r += 1) runs.insert(runs.end(), r, static_cast<unsigned char>(r));
    inputs.push_back(runs);
    Bytes all;
    for (unsigned i = 0; i < 3000; ++i) all.push_back(static_cast<unsigned char>(i * 37 + i / 256));
    inputs.push_back(all);
    Bytes pairs = randomBytes(5000, 2);  // runs of 2 and 3 next to literals of every length
    for (std::size_t i = 0; i + 3 < pairs.size(); i += 7 + pairs[i] % 150) pairs[i + 1] = pairs[i + 2] = pairs[i];
    inputs.push_back(pairs);
    Bytes text;
    const char* words[] = {"the ", "station ", "sends ", "a ", "schedule ", "to ", "every ", "display. "};
    std::mt19937 rng(3);
    while (text.size() < 50000) for (char const* c = words[rng() % 8]; *c; ++c) text.push_back(*c);
    inputs.push_back(text);

    tBlob kept;  // encoded into again and again: its storage still holds the forms before
    for (Bytes const& data : inputs) {
        SCOPED_TRACE(data.size());
        const tBlob in = blobOf(data);
        const tBlob rle = tCompression::encodeRLE(in);
        const tBlob huffman = tCompression::encodeHuffman(in);
        EXPECT_TRUE(tCompression::encodeHuffman(in, kept));
        EXPECT_EQ(kept, huffman);
        EXPECT_TRUE(tCompression::encodeRLE(in, kept));
        EXPECT_EQ(kept, rle);
        unsigned int rleSize = 0, huffmanSize = 0;
        tCompression::encodedSizes(data.data(), static_cast<unsigned int>(data.size()), rleSize, huffmanSize);
        EXPECT_EQ(rleSize, rle.size());
        EXPECT_EQ(huffmanSize, huffman.size());
        EXPECT_EQ(tCompression::encodedSizeRLE(data.data(), static_cast<unsigned int>(data.size())), rleSize);
        EXPECT_LE(tCompression::minHuffmanSize(static_cast<unsigned int>(data.size())), huffmanSize);
        EXPECT_EQ(tCompression::decodeRLE(rle), in);
        tBlob out;
        EXPECT_TRUE(tCompression::decodeHuffman(huffman, out));
        EXPECT_EQ(out, in);
        EXPECT_LE(maxCodeLength(bytesOf(huffman)), 12u);
        // Package-merge is optimal: where the plain Huffman code fits in 12 bits it is as short.
        if (data.size() > 1 && maxCodeLength(bytesOf(huffman)) < 12) {
            EXPECT_EQ(huffman.size(), 4 + 128 + (unlimitedHuffmanBits(data) + 7) / 8);
        }
    }
    EXPECT_EQ(maxCodeLength(bytesOf(tCompression::encodeHuffman(blobOf(fibonacciSkewed())))), 12u);

    tBlob same = tCompression::encodeRLE(blobOf(runs));  // decoding in place
    EXPECT_TRUE(tCompression::decodeRLE(same, same));
    EXPECT_EQ(same, blobOf(runs));
    EXPECT_TRUE(tCompression::encodeHuffman(same, same));  // and encoding
    EXPECT_EQ(same, tCompression::encodeHuffman(blobOf(runs)));
    same = blobOf(runs);
    EXPECT_TRUE(tCompression::encodeRLE(same, same));
    EXPECT_EQ(same, tCompression::encodeRLE(blobOf(runs)));
}

TEST(Compression, DamagedInputIsRefused)
{
    const Bytes text = [] {
        std::string s;
        for (int i = 0; i < 40; ++i) s += "compress me, compress me again; ";
        return Bytes(s.begin(), s.end());
    }();
    const Bytes rle = bytesOf(tCompression::encodeRLE(blobOf(Bytes(text.begin(), text.begin() + 300))));
    const Bytes huffman = bytesOf(tCompression::encodeHuffman(blobOf(text)));
    tBlob out;
    for (std::size_t n = 0; n < rle.size(); ++n)
        EXPECT_FALSE(tCompression::decodeRLE(blobOf(Bytes(rle.begin(), rle.begin() + n)), out)) << n;
    for (std::size_t n = 0; n < huffman.size(); ++n)
        EXPECT_FALSE(tCompression::decodeHuffman(blobOf(Bytes(huffman.begin(), huffman.begin() + n)), out)) << n;
    EXPECT_EQ(out.size(), 0u);

    auto withRle = [&](std::function<void(Bytes&)> damage) { Bytes b = rle; damage(b); return tCompression::decodeRLE(blobOf(b), out); };
    auto withHuffman = [&](std::function<void(Bytes&)> damage) { Bytes b = huffman; damage(b); return tCompression::decodeHuffman(blobOf(b), out); };
    EXPECT_FALSE(withRle([](Bytes& b) { b[0] += 1; }));                    // announced length too long
    EXPECT_FALSE(withRle([](Bytes& b) { b[0] -= 1; }));                    // a packet runs past it
    EXPECT_FALSE(withRle([](Bytes& b) { b.push_back(0x00); b.push_back('x'); }));  // trailing packet
    EXPECT_FALSE(tCompression::decodeRLE(blobOf(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}), out));  // beyond 64x
    EXPECT_FALSE(withHuffman([](Bytes& b) { b[1] += 1; }));
    EXPECT_FALSE(withHuffman([](Bytes& b) { b.push_back(0); }));           // trailing byte
    Bytes padded = workedHuffman();
    padded.back() |= 1;  // padding bit set
    EXPECT_FALSE(tCompression::decodeHuffman(blobOf(padded), out));
    EXPECT_FALSE(withHuffman([](Bytes& b) { b[4 + 0x20 / 2] = 0x11; }));   // over-subscribed
    EXPECT_FALSE(withHuffman([](Bytes& b) { std::fill(b.begin() + 4, b.begin() + 132, 0); b[4] = 0x21; }));  // incomplete
    EXPECT_FALSE(withHuffman([](Bytes& b) { b[4 + ' ' / 2] |= 0x0D; }));   // length 13
    EXPECT_FALSE(tCompression::decodeHuffman(blobOf(Bytes{0, 0, 0, 0, 0}), out));  // empty with a body
    EXPECT_FALSE(tCompression::decodeHuffman(blobOf(Bytes{0xFF, 0xFF, 0xFF, 0x7F, 0, 0}), out));
    Bytes single = bytesOf(tCompression::encodeHuffman(blobOf(Bytes(20, 'z'))));
    single.back() = 0x80;  // a 1 has no code when one symbol has the code 0
    EXPECT_FALSE(tCompression::decodeHuffman(blobOf(single), out));

    // Garbage: refused or decoded, never a crash; what decodes re-encodes to the same content.
    std::mt19937 rng(9);
    for (int i = 0; i < 2000; ++i) {
        Bytes g = randomBytes(rng() % 200, static_cast<unsigned>(i));
        if (g.size() >= 4) g[2] = g[3] = 0;
        if (i % 2 && g.size() > 132) g = Bytes(huffman.begin(), huffman.begin() + 132), g.resize(150, static_cast<unsigned char>(i));
        tBlob decoded;
        if (tCompression::decodeRLE(blobOf(g), decoded)) {
            EXPECT_EQ(tCompression::decodeRLE(tCompression::encodeRLE(decoded)), decoded);
        }
        if (tCompression::decodeHuffman(blobOf(g), decoded)) {
            EXPECT_EQ(tCompression::decodeHuffman(tCompression::encodeHuffman(decoded)), decoded);
        }
    }
}

namespace
{
// Canonical Huffman decoding one bit at a time, as a peer would write it from the format: the
// reference for the table-driven decoder, which splits long streams into lanes.
bool referenceHuffmanDecode(Bytes const& form, Bytes& out)
{
    const uint32_t length = form[0] | form[1] << 8 | form[2] << 16 | uint32_t(form[3]) << 24;
    unsigned lengths[256], perLength[13] = {}, present = 0;
    for (unsigned s = 0; s < 256; ++s) {
        lengths[s] = s % 2 ? form[4 + s / 2] >> 4 : form[4 + s / 2] & 0x0F;
        if (lengths[s] > 12) return false;
        if (lengths[s]) ++perLength[lengths[s]], ++present;
    }
    unsigned kraft = 0;
    for (unsigned l = 1; l <= 12; ++l) kraft += perLength[l] << (12 - l);
    if (kraft != 4096 && !(present == 1 && perLength[1] == 1)) return false;
    std::vector<unsigned> symbolsByCode;  // canonical order: by length, then symbol
    for (unsigned l = 1; l <= 12; ++l)
        for (unsigned s = 0; s < 256; ++s)
            if (lengths[s] == l) symbolsByCode.push_back(s);
    const std::size_t streamBytes = form.size() - 132;
    uint64_t bitPos = 0;
    auto bit = [&] {
        const uint64_t p = bitPos++;
        return p / 8 < streamBytes ? (form[132 + p / 8] >> (7 - p % 8)) & 1 : 0;
    };
    out.clear();
    for (uint32_t i = 0; i < length; ++i) {
        unsigned code = 0, first = 0, index = 0, l = 1;
        for (; l <= 12; ++l) {
            code = code << 1 | bit();
            if (code - first < perLength[l]) break;
            index += perLength[l];
            first = (first + perLength[l]) << 1;
        }
        if (l > 12) return false;  // only the incomplete single-symbol code gets here
        out.push_back(static_cast<unsigned char>(symbolsByCode[index + code - first]));
    }
    if (bitPos > streamBytes * 8 || (bitPos + 7) / 8 != streamBytes) return false;
    for (uint64_t p = bitPos; p < streamBytes * 8; ++p)
        if (bit()) return false;
    return true;
}
}

// Long streams are decoded in lanes that start at fixed bit positions and must join the true
// decoding; whatever the content, the result is the one decoding bit by bit gives.
TEST(Compression, LongHuffmanStreamsDecodeLikeOneChain)
{
    std::mt19937 rng(11);
    Bytes text;
    const char* words[] = {"panel ", "shows ", "the ", "image ", "until ", "noon; ", "then ", "a ", "slide ", "show. "};
    while (text.size() < 400000) for (char const* c = words[rng() % 10]; *c; ++c) text.push_back(*c);
    Bytes eightSymbols(300000);  // every code 3 bits long: a lane off a code boundary never joins
    for (auto& b : eightSymbols) b = static_cast<unsigned char>('a' + rng() % 8);
    Bytes mixed(text.begin(), text.begin() + 150000);
    mixed.insert(mixed.end(), eightSymbols.begin(), eightSymbols.begin() + 100000);
    mixed.insert(mixed.end(), text.begin(), text.begin() + 150000);
    std::vector<Bytes> inputs = {text, eightSymbols, mixed, randomBytes(200000, 12)};
    for (std::size_t n = 60000; n < 75000; n += 1111) inputs.emplace_back(text.begin(), text.begin() + n);

    for (Bytes const& data : inputs) {
        SCOPED_TRACE(data.size());
        const Bytes form = bytesOf(tCompression::encodeHuffman(blobOf(data)));
        tBlob out;
        ASSERT_TRUE(tCompression::decodeHuffman(blobOf(form), out));
        EXPECT_TRUE(out == blobOf(data));
    }

    // Damage anywhere (in the first lane, where a lane starts, in the tail) and a changed
    // length are judged exactly as one chain judges them.
    const Bytes form = bytesOf(tCompression::encodeHuffman(blobOf(text)));
    std::vector<std::size_t> places = {140, 132 + 8192, 132 + 8192 * 2 + 1, 132 + 8192 * 3 - 1, form.size() - 3};
    for (int i = 0; i < 20; ++i) places.push_back(132 + rng() % (form.size() - 132));
    int refused = 0;
    for (std::size_t place : places) {
        for (int variant = 0; variant < 3; ++variant) {
            SCOPED_TRACE(testing::Message() << place << " " << variant);
            Bytes damaged = form;
            if (variant == 0) damaged[place] ^= static_cast<unsigned char>(1u << (place % 8));
            if (variant == 1) damaged[place] = static_cast<unsigned char>(rng());
            if (variant == 2) damaged[0] = static_cast<unsigned char>(damaged[0] + 1 + place % 5);
            Bytes expected;
            const bool ok = referenceHuffmanDecode(damaged, expected);
            tBlob out;
            ASSERT_EQ(tCompression::decodeHuffman(blobOf(damaged), out), ok);
            if (ok) {
                EXPECT_TRUE(out == blobOf(expected));
            }
            refused += !ok;
        }
    }
    EXPECT_GT(refused, 0);
}

namespace
{
// The PackBits size of the greedy rule, written plainly: the reference for the encoder's run
// search, which passes long stretches without runs many positions at a time.
uint64_t plainPackBitsSize(Bytes const& d)
{
    uint64_t size = 4;
    std::size_t i = 0;
    auto runAt = [&](std::size_t p) { return p + 2 < d.size() && d[p] == d[p + 1] && d[p + 1] == d[p + 2]; };
    while (i < d.size()) {
        if (runAt(i)) {
            std::size_t j = i;
            while (j < d.size() && j - i < 128 && d[j] == d[i]) ++j;
            size += 2;
            i = j;
            continue;
        }
        std::size_t j = i;
        while (j < d.size() && !runAt(j)) ++j;
        size += (j - i) + (j - i + 127) / 128;
        i = j;
    }
    return size;
}
}

// A run may start at any position of the blocks the search steps through, at the very end,
// or not at all; the sizes (and so the compression choice) are the plain rule's.
TEST(Compression, RunSearchFindsEveryRunStart)
{
    const Bytes noise = randomBytes(5000, 21);
    Bytes withoutRuns = noise;
    for (std::size_t i = 2; i < withoutRuns.size(); ++i)
        if (withoutRuns[i] == withoutRuns[i - 1] && withoutRuns[i - 1] == withoutRuns[i - 2]) withoutRuns[i] ^= 1;
    std::vector<Bytes> inputs = {withoutRuns};
    for (std::size_t at = 0; at < 2100; at += at < 80 ? 1 : 37) {
        for (std::size_t length : {2u, 3u, 4u, 130u}) {
            Bytes d = withoutRuns;
            d.resize(std::min<std::size_t>(d.size(), at + length + (at % 3 ? 1100 : 1) + at % 50));
            for (std::size_t k = at; k < at + length && k < d.size(); ++k) d[k] = 0x5A;
            inputs.push_back(d);
        }
    }
    for (Bytes const& data : inputs) {
        SCOPED_TRACE(data.size());
        unsigned int rle = 0, huffman = 0;
        tCompression::encodedSizes(data.data(), static_cast<unsigned int>(data.size()), rle, huffman);
        ASSERT_EQ(plainPackBitsSize(data), rle);
        ASSERT_EQ(tCompression::encodeHuffman(blobOf(data)).size(), huffman);
    }
}

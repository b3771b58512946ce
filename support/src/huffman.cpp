// Canonical Huffman with code lengths limited to 12 bits (package-merge), a table-driven
// decoder and a 64-bit bit writer.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "compression_internal.h"

// On x86-64 a shift by a register amount also waits for the flags of whatever instruction
// wrote them last (a shift by 0 leaves them alone), which ties independent chains of shifts
// together again; BMI2's shifts leave the flags alone. The encoder and the lane decoder are
// therefore built a second time for BMI2 and picked at run time (by a plain test, not by the
// loader: a loader-time choice runs before a sanitizer's runtime is ready).
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define NK_HUFFMAN_BMI2 1
#define NK_HUFFMAN_BODY inline __attribute__((always_inline))
#else
#define NK_HUFFMAN_BODY inline
#endif

namespace nk
{
namespace huffman
{
namespace
{
constexpr unsigned kTableBits = kMaxCodeLength;
constexpr uint32_t kTableSize = 1u << kTableBits;
// Inputs from this length on are encoded two bytes per table entry.
constexpr std::size_t kPairTableMinInput = 256 * 1024;

// Canonical codes as in DEFLATE: shorter codes first, equal lengths in symbol order.
void canonicalCodes(uint8_t const lengths[256], uint16_t codes[256])
{
    unsigned lengthCount[kMaxCodeLength + 1] = {};
    for (unsigned s = 0; s < 256; ++s) ++lengthCount[lengths[s]];
    lengthCount[0] = 0;
    unsigned nextCode[kMaxCodeLength + 1] = {};
    unsigned code = 0;
    for (unsigned bits = 1; bits <= kMaxCodeLength; ++bits) {
        code = (code + lengthCount[bits - 1]) << 1;
        nextCode[bits] = code;
    }
    for (unsigned s = 0; s < 256; ++s)
        codes[s] = lengths[s] ? static_cast<uint16_t>(nextCode[lengths[s]]++) : 0;
}

void readLengthTable(unsigned char const* table, uint8_t lengths[256])
{
    for (unsigned k = 0; k < kLengthTableBytes; ++k) {
        lengths[2 * k] = table[k] & 0x0F;
        lengths[2 * k + 1] = table[k] >> 4;
    }
}
}

void buildCodeLengths(uint32_t const counts[256], uint8_t lengths[256])
{
    std::memset(lengths, 0, 256);
    uint16_t symbols[256];
    unsigned n = 0;
    for (unsigned s = 0; s < 256; ++s)
        if (counts[s]) symbols[n++] = static_cast<uint16_t>(s);
    if (n == 0) return;
    if (n == 1) {
        lengths[symbols[0]] = 1;
        return;
    }
    // Ties broken by symbol value so the lengths, and so the encoded size, are deterministic.
    std::sort(symbols, symbols + n, [&](uint16_t a, uint16_t b) {
        return counts[a] != counts[b] ? counts[a] < counts[b] : a < b;
    });

    // Package-merge. Level 0 is the deepest list (the leaves alone); each shallower list
    // merges the leaves with the pairs of the list below it. Only whether each item is a
    // leaf is kept: the leaves of every list are the lightest symbols in order.
    constexpr unsigned kLevels = kMaxCodeLength;
    constexpr unsigned kMaxItems = 2 * 256;
    static_assert((1u << kLevels) >= 256, "every byte value must fit under the length limit");
    bool isLeaf[kLevels][kMaxItems];
    unsigned itemCount[kLevels];
    uint64_t below[kMaxItems];
    uint64_t merged[kMaxItems];
    for (unsigned i = 0; i < n; ++i) {
        below[i] = counts[symbols[i]];
        isLeaf[0][i] = true;
    }
    itemCount[0] = n;
    for (unsigned level = 1; level < kLevels; ++level) {
        const unsigned packages = itemCount[level - 1] / 2;
        unsigned leaf = 0, pkg = 0, out = 0;
        while (leaf < n || pkg < packages) {
            const uint64_t pkgWeight = pkg < packages ? below[2 * pkg] + below[2 * pkg + 1] : 0;
            if (pkg == packages || (leaf < n && counts[symbols[leaf]] <= pkgWeight)) {
                merged[out] = counts[symbols[leaf++]];
                isLeaf[level][out++] = true;
            } else {
                merged[out] = pkgWeight;
                isLeaf[level][out++] = false;
                ++pkg;
            }
        }
        itemCount[level] = out;
        std::memcpy(below, merged, out * sizeof(uint64_t));
    }
    // The 2n-2 lightest items of the shallowest list are the solution; every time a symbol
    // appears in it (directly or inside a package) its code gets one bit longer.
    unsigned take = 2 * n - 2;
    for (unsigned level = kLevels; level-- > 0;) {
        unsigned leaves = 0;
        for (unsigned i = 0; i < take; ++i) leaves += isLeaf[level][i];
        for (unsigned i = 0; i < leaves; ++i) ++lengths[symbols[i]];
        take = 2 * (take - leaves);
    }
}

uint64_t codeStreamBits(uint32_t const counts[256], uint8_t const lengths[256])
{
    uint64_t bits = 0;
    for (unsigned s = 0; s < 256; ++s) bits += static_cast<uint64_t>(counts[s]) * lengths[s];
    return bits;
}

uint64_t encodedSize(uint64_t length, uint32_t const counts[256], uint8_t const lengths[256])
{
    if (length == 0) return compression::kHeaderBytes;
    return compression::kHeaderBytes + kLengthTableBytes + (codeStreamBits(counts, lengths) + 7) / 8;
}

namespace
{
#if NK_HUFFMAN_BMI2
bool hasBmi2()
{
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("bmi2") != 0;
    }();
    return available;
}
#endif

// The appending of codes is one chain of shifts (see NK_HUFFMAN_BMI2).
NK_HUFFMAN_BODY std::size_t encodeCodes(unsigned char const* data, std::size_t length, uint8_t const lengths[256],
                                        unsigned char* out)
{
    for (unsigned k = 0; k < kLengthTableBytes; ++k)
        out[k] = static_cast<unsigned char>(lengths[2 * k] | (lengths[2 * k + 1] << 4));

    uint16_t codes[256];
    canonicalCodes(lengths, codes);
    uint32_t entry[256];  // code << 8 | length: one load per symbol
    for (unsigned s = 0; s < 256; ++s) entry[s] = (static_cast<uint32_t>(codes[s]) << 8) | lengths[s];

    // Pending bits sit in the low `bits` bits of acc. Each flush stores them, left-aligned and
    // zero-filled, 8 bytes at once: the partial last byte is thereby always padded with zeros.
    unsigned char* o = out + kLengthTableBytes;
    uint64_t acc = 0;
    unsigned bits = 0;
    auto put = [&](uint32_t e) {  // code << 8 | length
        acc = (acc << (e & 0xFF)) | (e >> 8);
        bits += e & 0xFF;
    };
    auto flush = [&] {
        compression::writeBE64(o, acc << (64 - bits));
        o += bits >> 3;
        bits &= 7;
    };
    std::size_t i = 0;
    // Appending codes is one chain of shifts, each waiting for the one before. For long inputs
    // a table of the codes of every two-byte pair (24 bits at most) halves that chain; it costs
    // 64 Ki entries to build, so short inputs go symbol by symbol.
    if (length >= kPairTableMinInput) {
        std::unique_ptr<uint32_t[]> pairs(new (std::nothrow) uint32_t[1u << 16]);
        if (pairs) {
            // Indexed as readLE gives two bytes: the first in the low byte.
            for (unsigned b = 0; b < 256; ++b) {
                const uint32_t second = entry[b] >> 8, secondLength = entry[b] & 0xFF;
                for (unsigned a = 0; a < 256; ++a)
                    pairs[a | b << 8] = ((entry[a] >> 8) << secondLength | second) << 8 |
                                        ((entry[a] & 0xFF) + secondLength);
            }
            // Two pairs add at most 48 bits to at most 7 pending ones.
            for (; i + 4 <= length; i += 4) {
                put(pairs[readLE<uint16_t>(data + i)]);
                put(pairs[readLE<uint16_t>(data + i + 2)]);
                flush();
            }
        }
    }
    // Four symbols add at most 48 bits to at most 7 pending ones.
    for (; i + 4 <= length; i += 4) {
        put(entry[data[i]]);
        put(entry[data[i + 1]]);
        put(entry[data[i + 2]]);
        put(entry[data[i + 3]]);
        flush();
    }
    for (; i < length; ++i) {
        put(entry[data[i]]);
        flush();
    }
    if (bits) ++o;
    return static_cast<std::size_t>(o - out);
}

#if NK_HUFFMAN_BMI2
__attribute__((target("bmi2"))) std::size_t encodeCodesBmi2(unsigned char const* data, std::size_t length,
                                                            uint8_t const lengths[256], unsigned char* out)
{
    return encodeCodes(data, length, lengths, out);
}
#endif
}

std::size_t encodeBody(unsigned char const* data, std::size_t length, uint8_t const lengths[256],
                       unsigned char* out)
{
#if NK_HUFFMAN_BMI2
    if (hasBmi2()) return encodeCodesBmi2(data, length, lengths, out);
#endif
    return encodeCodes(data, length, lengths, out);
}

namespace
{
// The decoder's two tables, built from the code lengths. `single` gives one symbol per 12-bit
// window: symbol | length << 8. `multi` takes as many symbols, up to three, as have their whole
// codes in the same 12 bits: their bits | the symbols << 6 | how many << 30. The bits sit
// lowest so that the shift of the window, which the next lookup waits for, takes the entry as
// it is (a 64-bit shift uses the low six bits of its count); each other field is one shift
// away. Short codes are the common ones, so text gives two or three symbols per lookup.
struct DecodeTables
{
    uint16_t single[kTableSize];
    uint32_t multi[kTableSize];

    explicit DecodeTables(uint8_t const lengths[256])
    {
        uint16_t codes[256];
        canonicalCodes(lengths, codes);
        for (unsigned s = 0; s < 256; ++s) {
            if (!lengths[s]) continue;
            const unsigned shift = kTableBits - lengths[s];
            const uint16_t e = static_cast<uint16_t>(s | (lengths[s] << 8));
            std::fill(single + (static_cast<uint32_t>(codes[s]) << shift),
                      single + (static_cast<uint32_t>(codes[s] + 1) << shift), e);
        }
        for (uint32_t index = 0; index < kTableSize; ++index) {
            uint32_t symbols = 0;
            unsigned bits = 0, count = 0;
            while (count < 3) {
                const uint16_t e = single[(index << bits) & (kTableSize - 1)];
                const unsigned length = e >> 8;
                if (count > 0 && bits + length > kTableBits) break;
                symbols |= static_cast<uint32_t>(e & 0xFF) << (8 * count);
                bits += length;
                ++count;
            }
            multi[index] = count << 30 | symbols << 6 | bits;
        }
    }

    // Four lookups from one 64-bit window (at least 57 valid bits, four codes of up to 12).
    // Each lookup stores four bytes and keeps up to three, so 16 bytes of output must remain,
    // and the 8 stream bytes at bitPos must exist.
    static constexpr std::size_t kOutputRoom = 16;
    void decodeFour(unsigned char const* stream, uint64_t& bitPos, unsigned char*& o) const
    {
        uint64_t window = compression::readBE64(stream + (bitPos >> 3)) << (bitPos & 7);
        unsigned consumed = 0;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC unroll 4
#endif
        for (int k = 0; k < 4; ++k) {
            const uint32_t e = multi[window >> (64 - kTableBits)];
            writeLE<uint32_t>(o, e >> 6);  // the fourth byte is a count, overwritten or past the end
            o += e >> 30;
            window <<= e & 63;
            consumed += e & 63;
        }
        bitPos += consumed;
    }

    // One symbol; the window is filled from the remaining bytes and then zeros, so a symbol
    // that needed those zeros shows as a bit position past the end of the stream.
    unsigned char decodeOne(unsigned char const* stream, std::size_t streamBytes, uint64_t& bitPos) const
    {
        const std::size_t byte = static_cast<std::size_t>(bitPos >> 3);
        uint64_t window = 0;
        if (byte + 8 <= streamBytes) {
            window = compression::readBE64(stream + byte);
        } else {
            for (unsigned k = 0; k < 8; ++k) window = (window << 8) | (byte + k < streamBytes ? stream[byte + k] : 0);
        }
        window <<= bitPos & 7;
        const uint16_t e = single[window >> (64 - kTableBits)];
        bitPos += e >> 8;
        return static_cast<unsigned char>(e);
    }
};

// A single code stream is one long chain of dependent lookups, each waiting for the length of
// the one before; that chain, not the work, bounds a plain decoder. So a long stream is cut
// into groups of four lanes that are decoded side by side. Lane 0 starts where the output
// stands; lanes 1 to 3 start at fixed bit positions that may fall inside a code. A prefix code
// resynchronises: a lane that starts off a code boundary soon lands on one that the true
// decoding also passes through, and from there on both agree. Each lane notes where its first
// symbols began; the lane before it, once past its own end, steps on one symbol at a time until
// it reaches one of those places, and the later lane's symbols from there on are kept. A lane
// that never meets the true decoding within its noted symbols (a fixed-length code whose length
// does not divide the lane size never does) leaves its group to be decoded from the true
// position as the next group, so the result is always that of decoding in one chain.
constexpr unsigned kLanes = 4;
constexpr uint64_t kLaneBits = uint64_t(1) << 16;
constexpr uint64_t kGroupBits = kLanes * kLaneBits;
constexpr unsigned kMarks = 128;              // symbol starts noted at the front of each lane
constexpr uint64_t kSlackBits = 4096;         // stream and output kept in reserve behind a group
constexpr std::size_t kLaneScratch = kLaneBits + 64;  // a lane decodes at most kLaneBits + 48 symbols
constexpr unsigned kGiveUpAfter = 2;          // groups in a row that did not join: decode in one chain

// The lanes' shifts are independent chains (see NK_HUFFMAN_BMI2).
NK_HUFFMAN_BODY void decodeLanesWith(DecodeTables const& t, unsigned char const* stream, std::size_t streamBytes,
                                     uint64_t& bitPos, unsigned char*& o, unsigned char* const end)
{
    const uint64_t streamBits = static_cast<uint64_t>(streamBytes) * 8;
    auto roomForGroup = [&] {
        return streamBits - bitPos >= kGroupBits + kSlackBits &&
               static_cast<uint64_t>(end - o) >= kGroupBits + kSlackBits;
    };
    if (!roomForGroup()) return;
    std::unique_ptr<unsigned char[]> scratch(new (std::nothrow) unsigned char[(kLanes - 1) * kLaneScratch]);
    if (!scratch) return;

    unsigned failedInARow = 0;
    while (failedInARow < kGiveUpAfter && roomForGroup()) {
        uint64_t pos[kLanes];
        uint64_t limit[kLanes];
        unsigned char* out[kLanes];
        unsigned char* laneStart[kLanes];
        uint64_t marks[kLanes][kMarks + 1];
        for (unsigned j = 0; j < kLanes; ++j) {
            pos[j] = bitPos + j * kLaneBits;
            limit[j] = pos[j] + kLaneBits;
            laneStart[j] = out[j] = j == 0 ? o : scratch.get() + (j - 1) * kLaneScratch;
        }
        for (unsigned j = 1; j < kLanes; ++j) {
            marks[j][0] = pos[j];
            for (unsigned k = 1; k <= kMarks; ++k) {
                *out[j]++ = t.decodeOne(stream, streamBytes, pos[j]);
                marks[j][k] = pos[j];
            }
        }
        while (pos[0] < limit[0] && pos[1] < limit[1] && pos[2] < limit[2] && pos[3] < limit[3]) {
            t.decodeFour(stream, pos[0], out[0]);
            t.decodeFour(stream, pos[1], out[1]);
            t.decodeFour(stream, pos[2], out[2]);
            t.decodeFour(stream, pos[3], out[3]);
        }
        for (unsigned j = 0; j < kLanes; ++j)
            while (pos[j] < limit[j]) t.decodeFour(stream, pos[j], out[j]);

        uint64_t truePos = pos[0];
        unsigned char* trueOut = out[0];
        bool joined = true;
        for (unsigned j = 1; j < kLanes && joined; ++j) {
            unsigned k = 0;
            for (;;) {
                while (k <= kMarks && marks[j][k] < truePos) ++k;
                if (k > kMarks) {
                    joined = false;
                    break;
                }
                if (marks[j][k] == truePos) break;
                *trueOut++ = t.decodeOne(stream, streamBytes, truePos);
            }
            if (!joined) break;
            const std::size_t kept = static_cast<std::size_t>(out[j] - (laneStart[j] + k));
            std::memcpy(trueOut, laneStart[j] + k, kept);
            trueOut += kept;
            truePos = pos[j];
        }
        bitPos = truePos;
        o = trueOut;
        failedInARow = joined ? 0 : failedInARow + 1;
    }
}

#if NK_HUFFMAN_BMI2
__attribute__((target("bmi2"))) void decodeLanesBmi2(DecodeTables const& t, unsigned char const* stream,
                                                     std::size_t streamBytes, uint64_t& bitPos, unsigned char*& o,
                                                     unsigned char* const end)
{
    decodeLanesWith(t, stream, streamBytes, bitPos, o, end);
}
#endif

void decodeLanes(DecodeTables const& t, unsigned char const* stream, std::size_t streamBytes, uint64_t& bitPos,
                 unsigned char*& o, unsigned char* const end)
{
#if NK_HUFFMAN_BMI2
    if (hasBmi2()) return decodeLanesBmi2(t, stream, streamBytes, bitPos, o, end);
#endif
    decodeLanesWith(t, stream, streamBytes, bitPos, o, end);
}
}

bool decodeBody(unsigned char const* in, std::size_t inLength, unsigned char* out, std::size_t outLength)
{
    if (inLength < kLengthTableBytes) return false;
    uint8_t lengths[256];
    readLengthTable(in, lengths);
    unsigned char const* stream = in + kLengthTableBytes;
    const std::size_t streamBytes = inLength - kLengthTableBytes;

    uint32_t kraft = 0;  // in units of 2^-12
    unsigned present = 0;
    unsigned lastSymbol = 0;
    for (unsigned s = 0; s < 256; ++s) {
        if (!lengths[s]) continue;
        if (lengths[s] > kMaxCodeLength) return false;
        kraft += kTableSize >> lengths[s];
        ++present;
        lastSymbol = s;
    }
    // One symbol of length 1 is the only incomplete code accepted: its code is the single bit
    // 0, so the stream is all zero bits and exactly long enough for outLength of them.
    if (present == 1 && lengths[lastSymbol] == 1) {
        if (streamBytes != (outLength + 7) / 8) return false;
        for (std::size_t i = 0; i < streamBytes; ++i)
            if (stream[i]) return false;
        std::memset(out, static_cast<int>(lastSymbol), outLength);
        return true;
    }
    // Any other code must be complete: every 12-bit prefix then decodes to a symbol.
    if (kraft != kTableSize) return false;

    const DecodeTables t(lengths);
    uint64_t bitPos = 0;
    unsigned char* o = out;
    unsigned char* const end = out + outLength;
    decodeLanes(t, stream, streamBytes, bitPos, o, end);
    while (static_cast<std::size_t>(end - o) >= DecodeTables::kOutputRoom && (bitPos >> 3) + 8 <= streamBytes)
        t.decodeFour(stream, bitPos, o);
    const uint64_t streamBits = static_cast<uint64_t>(streamBytes) * 8;
    while (o < end) {
        if (bitPos >= streamBits) return false;
        *o++ = t.decodeOne(stream, streamBytes, bitPos);
    }
    // The stream must end exactly in the byte of the last code, its padding bits zero.
    if (bitPos > streamBits || (bitPos + 7) / 8 != streamBytes) return false;
    const unsigned usedInLast = static_cast<unsigned>(bitPos & 7);
    if (usedInLast && (stream[streamBytes - 1] & (0xFFu >> usedInLast))) return false;
    return true;
}
}
}

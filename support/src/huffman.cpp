// Canonical Huffman with code lengths limited to 12 bits (package-merge), a table-driven
// decoder and a 64-bit bit writer.
#include <algorithm>
#include <cstring>

#include "compression_internal.h"

namespace nk
{
namespace huffman
{
namespace
{
constexpr unsigned kTableBits = kMaxCodeLength;
constexpr uint32_t kTableSize = 1u << kTableBits;

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

std::size_t encodeBody(unsigned char const* data, std::size_t length, uint8_t const lengths[256],
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
    auto put = [&](unsigned char symbol) {
        const uint32_t e = entry[symbol];
        acc = (acc << (e & 0xFF)) | (e >> 8);
        bits += e & 0xFF;
    };
    auto flush = [&] {
        compression::writeBE64(o, acc << (64 - bits));
        o += bits >> 3;
        bits &= 7;
    };
    std::size_t i = 0;
    // Four symbols add at most 48 bits to at most 7 pending ones.
    for (; i + 4 <= length; i += 4) {
        put(data[i]);
        put(data[i + 1]);
        put(data[i + 2]);
        put(data[i + 3]);
        flush();
    }
    for (; i < length; ++i) {
        put(data[i]);
        flush();
    }
    if (bits) ++o;
    return static_cast<std::size_t>(o - out);
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

    uint16_t codes[256];
    canonicalCodes(lengths, codes);
    uint16_t single[kTableSize];  // symbol | length << 8, indexed by the next 12 bits
    for (unsigned s = 0; s < 256; ++s) {
        if (!lengths[s]) continue;
        const unsigned shift = kTableBits - lengths[s];
        const uint16_t e = static_cast<uint16_t>(s | (lengths[s] << 8));
        std::fill(single + (static_cast<uint32_t>(codes[s]) << shift),
                  single + (static_cast<uint32_t>(codes[s] + 1) << shift), e);
    }
    // Short codes are the common ones, so each lookup also takes a second symbol when its
    // code fits in the same 12 bits: first | second << 8 | first length << 16 |
    // bits of both << 20 | symbols taken << 24.
    uint32_t pair[kTableSize];
    for (uint32_t index = 0; index < kTableSize; ++index) {
        const unsigned first = single[index] & 0xFF;
        const unsigned firstLength = single[index] >> 8;
        const uint16_t next = single[(index << firstLength) & (kTableSize - 1)];
        const unsigned nextLength = next >> 8;
        const bool both = firstLength + nextLength <= kTableBits;
        pair[index] = first | (both ? (next & 0xFFu) << 8 : 0) | firstLength << 16 |
                      (both ? firstLength + nextLength : firstLength) << 20 | (both ? 2u : 1u) << 24;
    }

    uint64_t bitPos = 0;
    unsigned char* o = out;
    unsigned char* const end = out + outLength;
    // A window loaded at bitPos holds at least 57 valid bits: four lookups of up to 12.
    // Each lookup stores two bytes and keeps one or both, so 8 bytes of output must remain.
    while (end - o >= 8 && (bitPos >> 3) + 8 <= streamBytes) {
        uint64_t window = compression::readBE64(stream + (bitPos >> 3)) << (bitPos & 7);
        unsigned consumed = 0;
        for (int k = 0; k < 4; ++k) {
            const uint32_t e = pair[window >> (64 - kTableBits)];
            writeLE<uint16_t>(o, static_cast<uint16_t>(e));
            o += e >> 24;
            const unsigned bits = (e >> 20) & 0x0F;
            window <<= bits;
            consumed += bits;
        }
        bitPos += consumed;
    }
    const uint64_t streamBits = static_cast<uint64_t>(streamBytes) * 8;
    while (o < end) {
        // Near the end, one symbol at a time, the window filled from the remaining bytes and
        // then zeros; a symbol that needed those zeros is caught by the length check below.
        if (bitPos >= streamBits) return false;
        const std::size_t byte = static_cast<std::size_t>(bitPos >> 3);
        uint64_t window = 0;
        for (unsigned k = 0; k < 8; ++k)
            window = (window << 8) | (byte + k < streamBytes ? stream[byte + k] : 0);
        window <<= bitPos & 7;
        const uint16_t e = single[window >> (64 - kTableBits)];
        *o++ = static_cast<unsigned char>(e);
        bitPos += e >> 8;
    }
    // The stream must end exactly in the byte of the last code, its padding bits zero.
    if (bitPos > streamBits || (bitPos + 7) / 8 != streamBytes) return false;
    const unsigned usedInLast = static_cast<unsigned>(bitPos & 7);
    if (usedInLast && (stream[streamBytes - 1] & (0xFFu >> usedInLast))) return false;
    return true;
}
}
}

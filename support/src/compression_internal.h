#ifndef NK_COMPRESSION_INTERNAL_H
#define NK_COMPRESSION_INTERNAL_H

// Shared between the two codecs and tCompression: the parts of each codec that the size
// computation and the encoder both run, so a size and its bytes can never disagree.
#include <cstddef>
#include <cstdint>

#include "leBytes.h"

namespace nk
{
namespace compression
{
constexpr std::size_t kHeaderBytes = 4;  // decoded length, u32 little-endian

// Bit streams are most significant bit first; these go through the little-endian helpers
// so that byte order stays in one place.
inline uint64_t byteSwap64(uint64_t v)
{
#if defined(__GNUC__) || defined(__clang__)
    return __builtin_bswap64(v);
#else
    uint64_t r = 0;
    for (int i = 0; i < 8; ++i) r = (r << 8) | ((v >> (8 * i)) & 0xFF);
    return r;
#endif
}
inline uint64_t readBE64(unsigned char const* p) { return byteSwap64(readLE<uint64_t>(p)); }
inline void writeBE64(unsigned char* p, uint64_t v) { writeLE<uint64_t>(p, byteSwap64(v)); }

inline unsigned countTrailingZeros64(uint64_t v)  // v != 0
{
#if defined(__GNUC__) || defined(__clang__)
    return static_cast<unsigned>(__builtin_ctzll(v));
#else
    unsigned n = 0;
    while (!(v & 1)) { v >>= 1; ++n; }
    return n;
#endif
}

// Byte counts in four tables, so that repeated bytes do not stall on one counter; a
// table never overflows, since no input is longer than 2^32 - 1 bytes.
class ByteCounter
{
public:
    // Eight bytes as readLE<uint64_t> gives them.
    void addWord(uint64_t w)
    {
        ++m_counts[0][w & 0xFF];
        ++m_counts[1][(w >> 8) & 0xFF];
        ++m_counts[2][(w >> 16) & 0xFF];
        ++m_counts[3][(w >> 24) & 0xFF];
        ++m_counts[0][(w >> 32) & 0xFF];
        ++m_counts[1][(w >> 40) & 0xFF];
        ++m_counts[2][(w >> 48) & 0xFF];
        ++m_counts[3][w >> 56];
    }
    void addBytes(unsigned char const* p, std::size_t n)
    {
        std::size_t i = 0;
        for (; i + 8 <= n; i += 8) addWord(readLE<uint64_t>(p + i));
        for (; i < n; ++i) ++m_counts[i & 3][p[i]];
    }
    void addRepeat(unsigned char b, std::size_t n) { m_counts[0][b] += static_cast<uint32_t>(n); }
    void total(uint32_t counts[256]) const
    {
        for (unsigned s = 0; s < 256; ++s) counts[s] = m_counts[0][s] + m_counts[1][s] + m_counts[2][s] + m_counts[3][s];
    }

private:
    uint32_t m_counts[4][256] = {};
};

// Byte counts of data, in counts[0..255].
void histogram(unsigned char const* data, std::size_t length, uint32_t counts[256]);
}

namespace packbits
{
constexpr std::size_t kMaxPacket = 128;

// Size of the packet stream (without the length header) that encodeBody writes.
uint64_t encodedBodySize(unsigned char const* data, std::size_t length);
// The same size, and the byte counts of data (as compression::histogram gives them) from
// the same pass over the data.
uint64_t encodedBodySizeAndCounts(unsigned char const* data, std::size_t length, uint32_t counts[256]);
// Room encodeBody may need: every literal packet of 128 bytes costs one control byte.
inline uint64_t worstCaseBodySize(std::size_t length) { return length + (length + kMaxPacket - 1) / kMaxPacket; }
// Writes the packet stream to out (worstCaseBodySize bytes of room); gives the bytes written.
std::size_t encodeBody(unsigned char const* data, std::size_t length, unsigned char* out);
// Decodes exactly outLength bytes from the whole of in; false on any inconsistency.
bool decodeBody(unsigned char const* in, std::size_t inLength, unsigned char* out, std::size_t outLength);
}

namespace huffman
{
constexpr unsigned kMaxCodeLength = 12;
constexpr std::size_t kLengthTableBytes = 128;

// Length-limited code lengths (0 = absent) for the counted symbols.
void buildCodeLengths(uint32_t const counts[256], uint8_t lengths[256]);
// Bits of the code stream for these counts under these lengths.
uint64_t codeStreamBits(uint32_t const counts[256], uint8_t const lengths[256]);
// Size of the whole Huffman form (header included) of data with these counts.
uint64_t encodedSize(uint64_t length, uint32_t const counts[256], uint8_t const lengths[256]);
// Writes the length table and the code stream for data (out has the room encodedSize gives
// minus the header, plus 8 bytes of slack); gives the bytes written.
std::size_t encodeBody(unsigned char const* data, std::size_t length, uint8_t const lengths[256],
                       unsigned char* out);
// Decodes exactly outLength bytes from the table and code stream in; false on any inconsistency.
bool decodeBody(unsigned char const* in, std::size_t inLength, unsigned char* out, std::size_t outLength);
}
}

#endif

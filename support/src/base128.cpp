#include "base128.h"

#include <cstdint>
#include <cstring>

#include "leBytes.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define NK_BASE128_SSE2 1
#endif

namespace
{
// The bit stream is read most significant bit first, so blocks are loaded and stored
// big-endian; this is the one place that needs that order.
inline uint64_t loadBE64(unsigned char const* p)
{
    uint64_t v;
    std::memcpy(&v, p, 8);
    return nk::hostIsLittleEndian() ? __builtin_bswap64(v) : v;
}

inline void storeBE64(unsigned char* p, uint64_t v)
{
    if (nk::hostIsLittleEndian()) v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

// 56 bits (the low bits of v) -> eight bytes 0x80 | group, first group in the top byte.
inline uint64_t spread56(uint64_t v)
{
    v = ((v & 0x00FFFFFFF0000000ULL) << 4) | (v & 0x000000000FFFFFFFULL);
    v = ((v & 0x0FFFC0000FFFC000ULL) << 2) | (v & 0x00003FFF00003FFFULL);
    v = ((v & 0x3F803F803F803F80ULL) << 1) | (v & 0x007F007F007F007FULL);
    return v | 0x8080808080808080ULL;
}

// Eight encoded bytes (first in the top byte) -> their 56 payload bits; top bits ignored.
inline uint64_t gather56(uint64_t v)
{
    v &= 0x7F7F7F7F7F7F7F7FULL;
    v = ((v & 0x7F007F007F007F00ULL) >> 1) | (v & 0x007F007F007F007FULL);
    v = ((v & 0x3FFF00003FFF0000ULL) >> 2) | (v & 0x00003FFF00003FFFULL);
    v = ((v & 0x0FFFFFFF00000000ULL) >> 4) | (v & 0x000000000FFFFFFFULL);
    return v;
}

inline uint64_t encodedSize64(uint64_t n) { return (8 * n + 6) / 7; }

#if NK_BASE128_SSE2
// Two blocks per step in 16-bit lanes, one lane per output byte (SSE2 is part of every x86-64,
// so this needs no run-time check; other targets use the 64-bit steps above). An unsigned
// high multiply by 2^(16-k) is a right shift by k, and it may differ from lane to lane.

// 14 input bytes (16 readable) -> 16 encoded bytes. Lane j holds input byte j-1 above
// byte j; group j is that pair shifted right by j+1, low 7 bits.
inline void encodeTwoBlocks(unsigned char* out, unsigned char const* src)
{
    const __m128i shifts = _mm_setr_epi16(1 << 15, 1 << 14, 1 << 13, 1 << 12, 1 << 11, 1 << 10, 1 << 9, 1 << 8);
    const __m128i low7 = _mm_set1_epi16(0x7F);
    const __m128i z = _mm_loadu_si128(reinterpret_cast<__m128i const*>(src));
    const __m128i first = _mm_unpacklo_epi8(z, _mm_slli_si128(z, 1));
    const __m128i second = _mm_unpacklo_epi8(_mm_srli_si128(z, 7), _mm_srli_si128(z, 6));
    const __m128i g1 = _mm_and_si128(_mm_mulhi_epu16(first, shifts), low7);
    const __m128i g2 = _mm_and_si128(_mm_mulhi_epu16(second, shifts), low7);
    const __m128i encoded = _mm_or_si128(_mm_packus_epi16(g1, g2), _mm_set1_epi8(static_cast<char>(0x80)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), encoded);
}

// 16 encoded bytes -> 14 output bytes, and one byte of junk after them (15 written). With
// group j in the high byte of lane j, output byte i is group i shifted left by i+1 (low 8
// bits) joined with group i+1 shifted right by 6-i; lane 7 gives nothing.
inline void decodeTwoBlocks(unsigned char* out, unsigned char const* src)
{
    const __m128i own = _mm_setr_epi16(1 << 9, 1 << 10, 1 << 11, 1 << 12, 1 << 13, 1 << 14, 1 << 15, 0);
    const __m128i next = _mm_setr_epi16(1 << 2, 1 << 3, 1 << 4, 1 << 5, 1 << 6, 1 << 7, 1 << 8, 0);
    const __m128i low8 = _mm_set1_epi16(0xFF);
    const __m128i zero = _mm_setzero_si128();
    const __m128i groups = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<__m128i const*>(src)), _mm_set1_epi8(0x7F));
    const __m128i h1 = _mm_unpacklo_epi8(zero, groups);
    const __m128i h2 = _mm_unpackhi_epi8(zero, groups);
    const __m128i o1 = _mm_or_si128(_mm_and_si128(_mm_mulhi_epu16(h1, own), low8),
                                    _mm_mulhi_epu16(_mm_srli_si128(h1, 2), next));
    const __m128i o2 = _mm_or_si128(_mm_and_si128(_mm_mulhi_epu16(h2, own), low8),
                                    _mm_mulhi_epu16(_mm_srli_si128(h2, 2), next));
    const __m128i packed = _mm_packus_epi16(o1, o2);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), packed);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 7), _mm_srli_si128(packed, 8));
}
#endif
}

namespace base128
{
unsigned int encodedSize(unsigned int length)
{
    uint64_t n = encodedSize64(length);
    // Inputs beyond about 3.7 GB would not fit the result; encode() refuses them too.
    return n > 0xFFFFFFFFULL ? 0 : static_cast<unsigned int>(n);
}

unsigned int decodedSize(unsigned int length)
{
    return static_cast<unsigned int>(7ULL * length / 8);
}

unsigned int encode(unsigned char* dst, unsigned char const* src, unsigned int length)
{
    if (length == 0 || !dst || !src || encodedSize64(length) > 0xFFFFFFFFULL) return 0;
    unsigned char* out = dst;
    unsigned int left = length;
#if NK_BASE128_SSE2
    for (; left >= 16; left -= 14, src += 14, out += 16) encodeTwoBlocks(out, src);
#endif
    // Eight-byte loads while at least eight bytes remain; the eighth is the next block's.
    while (left >= 8) {
        storeBE64(out, spread56(loadBE64(src) >> 8));
        src += 7;
        left -= 7;
        out += 8;
    }
    // The last 1 to 7 bytes, byte by byte: a call to memcpy for so few costs more.
    unsigned char block[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (unsigned int i = 0; i < left; ++i) block[i] = src[i];
    unsigned char encoded[8];
    storeBE64(encoded, spread56(loadBE64(block) >> 8));
    unsigned int tail = static_cast<unsigned int>(encodedSize64(left));
    for (unsigned int i = 0; i < tail; ++i) out[i] = encoded[i];
    return static_cast<unsigned int>(out - dst) + tail;
}

namespace
{
// Decodes as decode does; with Check, also ANDs every input byte into the top bit of a
// running value, so whether all of them were encoded bytes costs no pass of its own.
template <bool Check>
unsigned int decodeImpl(unsigned char* dst, unsigned char const* src, unsigned int length, bool& allEncoded)
{
    allEncoded = true;
    if (length == 0 || !dst || !src) return 0;
    unsigned char* out = dst;
    unsigned int left = length;
    uint64_t seen = ~uint64_t(0);
    // Stores past a step's output while another full block follows to overwrite the extra byte.
#if NK_BASE128_SSE2
    __m128i seenVector = _mm_set1_epi8(static_cast<char>(0xFF));
    for (; left >= 24; left -= 16, src += 16, out += 14) {
        if (Check) seenVector = _mm_and_si128(seenVector, _mm_loadu_si128(reinterpret_cast<__m128i const*>(src)));
        decodeTwoBlocks(out, src);
    }
    if (Check && _mm_movemask_epi8(seenVector) != 0xFFFF) seen = 0;
#endif
    while (left >= 16) {
        const uint64_t block = loadBE64(src);
        if (Check) seen &= block;
        storeBE64(out, gather56(block) << 8);
        src += 8;
        left -= 8;
        out += 7;
    }
    if (left >= 8) {
        // The last whole block: its eighth output byte would lie past the end.
        const uint64_t block = loadBE64(src);
        if (Check) seen &= block;
        unsigned char decoded[8];
        storeBE64(decoded, gather56(block) << 8);
        std::memcpy(out, decoded, 7);
        src += 8;
        left -= 8;
        out += 7;
    }
    if (left > 0) {
        // 1 to 7 bytes, byte by byte: a call to memcpy for so few costs more.
        unsigned char block[8] = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
        for (unsigned int i = 0; i < left; ++i) block[i] = src[i];
        const uint64_t v = loadBE64(block);
        if (Check) seen &= v;
        unsigned char decoded[8];
        storeBE64(decoded, gather56(v) << 8);
        const unsigned int produced = left * 7 / 8;
        for (unsigned int i = 0; i < produced; ++i) out[i] = decoded[i];
        out += produced;
    }
    if (Check) allEncoded = (seen & 0x8080808080808080ULL) == 0x8080808080808080ULL;
    return static_cast<unsigned int>(out - dst);
}
}

unsigned int decode(unsigned char* dst, unsigned char const* src, unsigned int length)
{
    bool unused;
    return decodeImpl<false>(dst, src, length, unused);
}

bool decodeChecked(unsigned char* dst, unsigned char const* src, unsigned int length)
{
    bool allEncoded;
    decodeImpl<true>(dst, src, length, allEncoded);
    return allEncoded;
}
}

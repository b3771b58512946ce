#include "crc8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define NK_CRC8_CLMUL 1
#include <immintrin.h>
#endif

namespace
{
// The generator x^8 + x^2 + x + 1 with its top bit.
constexpr unsigned kGenerator = 0x107;

// table[k][x]: the CRC of byte x followed by k zero bytes. Sixteen bytes then cost sixteen
// independent lookups instead of a chain of sixteen dependent ones.
struct Crc8Tables
{
    uint8_t t[16][256];
};

constexpr Crc8Tables makeTables()
{
    Crc8Tables tables{};
    for (unsigned x = 0; x < 256; ++x) {
        unsigned crc = x;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80) ? ((crc << 1) ^ 0x07) : (crc << 1);
        tables.t[0][x] = static_cast<uint8_t>(crc);
    }
    for (int k = 1; k < 16; ++k)
        for (unsigned x = 0; x < 256; ++x) tables.t[k][x] = tables.t[0][tables.t[k - 1][x]];
    return tables;
}

constexpr Crc8Tables kTables = makeTables();

uint8_t crcTables(uint8_t c, unsigned char const* buffer, std::size_t length)
{
    auto const& t = kTables.t;
    while (length >= 16) {
        c = static_cast<uint8_t>(t[15][buffer[0] ^ c] ^ t[14][buffer[1]] ^ t[13][buffer[2]] ^ t[12][buffer[3]] ^
                                 t[11][buffer[4]] ^ t[10][buffer[5]] ^ t[9][buffer[6]] ^ t[8][buffer[7]] ^
                                 t[7][buffer[8]] ^ t[6][buffer[9]] ^ t[5][buffer[10]] ^ t[4][buffer[11]] ^
                                 t[3][buffer[12]] ^ t[2][buffer[13]] ^ t[1][buffer[14]] ^ t[0][buffer[15]]);
        buffer += 16;
        length -= 16;
    }
    // The rest in steps of eight and four with the same tables: a small frame's body ends
    // in a few independent lookups rather than a chain of up to fifteen.
    if (length >= 8) {
        c = static_cast<uint8_t>(t[7][buffer[0] ^ c] ^ t[6][buffer[1]] ^ t[5][buffer[2]] ^ t[4][buffer[3]] ^
                                 t[3][buffer[4]] ^ t[2][buffer[5]] ^ t[1][buffer[6]] ^ t[0][buffer[7]]);
        buffer += 8;
        length -= 8;
    }
    if (length >= 4) {
        c = static_cast<uint8_t>(t[3][buffer[0] ^ c] ^ t[2][buffer[1]] ^ t[1][buffer[2]] ^ t[0][buffer[3]]);
        buffer += 4;
        length -= 4;
    }
    while (length--) c = t[0][*buffer++ ^ c];
    return c;
}

#ifdef NK_CRC8_CLMUL
// x^n mod the generator.
constexpr uint64_t xPowMod(unsigned n)
{
    unsigned r = 1;
    for (unsigned i = 0; i < n; ++i) {
        r <<= 1;
        if (r & 0x100) r ^= kGenerator;
    }
    return r;
}

// Carry-less folding. The data, read most significant bit first, is a polynomial; a
// 128-bit block A (high half H, low half L) that is followed by n more bits is worth
// A * x^n = H * x^(n+64) + L * x^n, and with both powers reduced modulo the generator to
// 8-bit constants the two 64 x 8-bit products fit 71 bits: a block stays a block. The
// running 128-bit value is thus always congruent to the data folded so far, and the CRC of
// its 16 bytes, continued over the tail, is the CRC of the whole.
__attribute__((target("pclmul,ssse3"))) inline __m128i fold(__m128i a, __m128i k)
{
    return _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x11), _mm_clmulepi64_si128(a, k, 0x00));
}

// Block bytes in reverse so that the first byte is the most significant.
__attribute__((target("pclmul,ssse3"))) inline __m128i loadReversed(unsigned char const* q, __m128i reverse)
{
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<__m128i const*>(q)), reverse);
}

__attribute__((target("pclmul,ssse3"))) uint8_t crcClmul(uint8_t c, unsigned char const* p, std::size_t length)
{
    const __m128i reverse = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m128i by512 = _mm_set_epi64x(static_cast<long long>(xPowMod(512 + 64)), static_cast<long long>(xPowMod(512)));
    const __m128i by128 = _mm_set_epi64x(static_cast<long long>(xPowMod(128 + 64)), static_cast<long long>(xPowMod(128)));

    // Four independent lanes over 64-byte strides; the CRC so far goes into the first byte.
    __m128i x0 = _mm_xor_si128(loadReversed(p, reverse), _mm_slli_si128(_mm_cvtsi32_si128(c), 15));
    __m128i x1 = loadReversed(p + 16, reverse);
    __m128i x2 = loadReversed(p + 32, reverse);
    __m128i x3 = loadReversed(p + 48, reverse);
    p += 64;
    length -= 64;
    while (length >= 64) {
        x0 = _mm_xor_si128(fold(x0, by512), loadReversed(p, reverse));
        x1 = _mm_xor_si128(fold(x1, by512), loadReversed(p + 16, reverse));
        x2 = _mm_xor_si128(fold(x2, by512), loadReversed(p + 32, reverse));
        x3 = _mm_xor_si128(fold(x3, by512), loadReversed(p + 48, reverse));
        p += 64;
        length -= 64;
    }
    __m128i x = _mm_xor_si128(fold(x0, by128), x1);
    x = _mm_xor_si128(fold(x, by128), x2);
    x = _mm_xor_si128(fold(x, by128), x3);
    while (length >= 16) {
        x = _mm_xor_si128(fold(x, by128), loadReversed(p, reverse));
        p += 16;
        length -= 16;
    }
    unsigned char folded[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(folded), _mm_shuffle_epi8(x, reverse));
    return crcTables(crcTables(0, folded, 16), p, length);
}

#define NK_CRC8_WIDE_TARGET __attribute__((target("avx512f,avx512bw,vpclmulqdq,pclmul,ssse3")))

NK_CRC8_WIDE_TARGET inline __m512i loadReversedWide(unsigned char const* q, __m512i reverse)
{
    return _mm512_shuffle_epi8(_mm512_loadu_si512(reinterpret_cast<void const*>(q)), reverse);
}

NK_CRC8_WIDE_TARGET inline __m512i foldWide(__m512i a, __m512i k)
{
    return _mm512_xor_si512(_mm512_clmulepi64_epi128(a, k, 0x11), _mm512_clmulepi64_epi128(a, k, 0x00));
}

// The same folding four 128-bit blocks to an instruction (AVX-512 VPCLMULQDQ): sixteen
// independent blocks over 256-byte strides, then folded into one block as above.
NK_CRC8_WIDE_TARGET uint8_t crcClmulWide(uint8_t c, unsigned char const* p, std::size_t length)
{
    // Per 128-bit lane: the byte reversal, and the two constants (high half first).
    const long long reverseLow = 0x08090A0B0C0D0E0FLL, reverseHigh = 0x0001020304050607LL;
    const __m512i reverse = _mm512_set_epi64(reverseHigh, reverseLow, reverseHigh, reverseLow, reverseHigh,
                                             reverseLow, reverseHigh, reverseLow);
    const long long kHigh = static_cast<long long>(xPowMod(2048 + 64)), kLow = static_cast<long long>(xPowMod(2048));
    const __m512i by2048 = _mm512_set_epi64(kHigh, kLow, kHigh, kLow, kHigh, kLow, kHigh, kLow);
    __m512i x0 = _mm512_xor_si512(loadReversedWide(p, reverse),
                                  _mm512_zextsi128_si512(_mm_slli_si128(_mm_cvtsi32_si128(c), 15)));
    __m512i x1 = loadReversedWide(p + 64, reverse);
    __m512i x2 = loadReversedWide(p + 128, reverse);
    __m512i x3 = loadReversedWide(p + 192, reverse);
    p += 256;
    length -= 256;
    while (length >= 256) {
        x0 = _mm512_xor_si512(foldWide(x0, by2048), loadReversedWide(p, reverse));
        x1 = _mm512_xor_si512(foldWide(x1, by2048), loadReversedWide(p + 64, reverse));
        x2 = _mm512_xor_si512(foldWide(x2, by2048), loadReversedWide(p + 128, reverse));
        x3 = _mm512_xor_si512(foldWide(x3, by2048), loadReversedWide(p + 192, reverse));
        p += 256;
        length -= 256;
    }
    // The sixteen blocks in data order, folded into the first one after another.
    const __m128i by128 = _mm_set_epi64x(static_cast<long long>(xPowMod(128 + 64)), static_cast<long long>(xPowMod(128)));
    alignas(64) __m128i blocks[16];
    _mm512_store_si512(reinterpret_cast<void*>(blocks), x0);
    _mm512_store_si512(reinterpret_cast<void*>(blocks + 4), x1);
    _mm512_store_si512(reinterpret_cast<void*>(blocks + 8), x2);
    _mm512_store_si512(reinterpret_cast<void*>(blocks + 12), x3);
    __m128i x = blocks[0];
    for (int k = 1; k < 16; ++k) x = _mm_xor_si128(fold(x, by128), blocks[k]);
    const __m128i reverse128 = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    while (length >= 16) {
        x = _mm_xor_si128(fold(x, by128), loadReversed(p, reverse128));
        p += 16;
        length -= 16;
    }
    unsigned char folded[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(folded), _mm_shuffle_epi8(x, reverse128));
    return crcTables(crcTables(0, folded, 16), p, length);
}

bool wideClmulAvailable()
{
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f") &&
               __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
    }();
    return available;
}
// Below this the four 128-bit lanes of the narrow folding are as fast.
const std::size_t kWideClmulFrom = 2048;

bool clmulAvailable()
{
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
    }();
    return available;
}

// Below this the tables are as fast and need no set-up.
const std::size_t kClmulFrom = 256;
#endif
}

unsigned char crc_crc8update(unsigned char crc, unsigned char const* buffer, unsigned int length)
{
    if (!buffer) return crc;
#ifdef NK_CRC8_CLMUL
    if (length >= kWideClmulFrom && wideClmulAvailable()) return crcClmulWide(crc, buffer, length);
    if (length >= kClmulFrom && clmulAvailable()) return crcClmul(crc, buffer, length);
#endif
    return crcTables(crc, buffer, length);
}

unsigned char crc_crc8init(unsigned char const* buffer, unsigned int length)
{
    return crc_crc8update(0, buffer, length);
}

#include "base128.h"

#include <cstdint>
#include <cstring>

#include "leBytes.h"

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
    // Eight-byte loads while at least eight bytes remain; the eighth is the next block's.
    while (left >= 8) {
        storeBE64(out, spread56(loadBE64(src) >> 8));
        src += 7;
        left -= 7;
        out += 8;
    }
    unsigned char block[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(block, src, left);
    unsigned char encoded[8];
    storeBE64(encoded, spread56(loadBE64(block) >> 8));
    unsigned int tail = static_cast<unsigned int>(encodedSize64(left));
    std::memcpy(out, encoded, tail);
    return static_cast<unsigned int>(out - dst) + tail;
}

unsigned int decode(unsigned char* dst, unsigned char const* src, unsigned int length)
{
    if (length == 0 || !dst || !src) return 0;
    unsigned char* out = dst;
    unsigned int left = length;
    // Eight-byte stores while another full block follows to overwrite the extra byte.
    while (left >= 16) {
        storeBE64(out, gather56(loadBE64(src)) << 8);
        src += 8;
        left -= 8;
        out += 7;
    }
    while (left > 0) {
        unsigned int take = left < 8 ? left : 8;
        unsigned char block[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        std::memcpy(block, src, take);
        unsigned char decoded[8];
        storeBE64(decoded, gather56(loadBE64(block)) << 8);
        unsigned int produced = take * 7 / 8;
        std::memcpy(out, decoded, produced);
        src += take;
        left -= take;
        out += produced;
    }
    return static_cast<unsigned int>(out - dst);
}
}

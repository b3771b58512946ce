#ifndef NK_LEBYTES_H
#define NK_LEBYTES_H

// The one place that knows byte order: little-endian loads and stores through memcpy.
#include <cstdint>
#include <cstring>

namespace nk
{
inline bool hostIsLittleEndian()
{
    const uint16_t one = 1;
    unsigned char b;
    std::memcpy(&b, &one, 1);
    return b == 1;
}

template <typename T>
inline T readLE(unsigned char const* p)
{
    T v = 0;
    if (hostIsLittleEndian()) {
        std::memcpy(&v, p, sizeof(T));
    } else {
        for (unsigned i = 0; i < sizeof(T); ++i) v |= static_cast<T>(static_cast<T>(p[i]) << (8 * i));
    }
    return v;
}

template <typename T>
inline void writeLE(unsigned char* p, T v)
{
    if (hostIsLittleEndian()) {
        std::memcpy(p, &v, sizeof(T));
    } else {
        for (unsigned i = 0; i < sizeof(T); ++i) p[i] = static_cast<unsigned char>(static_cast<uint64_t>(v) >> (8 * i));
    }
}
}

#endif

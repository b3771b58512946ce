#ifndef NK_TEST_HELPERS_H
#define NK_TEST_HELPERS_H

// Small conversions shared by the unit tests.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nk_message.h"
#include "tBlob.h"

using Bytes = std::vector<unsigned char>;

inline Bytes bytes(tBlob const& b) { return {b.getBuffer(), b.getBuffer() + b.size()}; }

inline tBlob blobOf(Bytes const& v) { return tBlob(v.data(), static_cast<unsigned int>(v.size())); }

inline tBlob blobOf(std::string const& s)
{
    return tBlob(reinterpret_cast<unsigned char const*>(s.data()), static_cast<unsigned int>(s.size()));
}

// "0C 00 1A" -> {0x0C, 0x00, 0x1A}
inline Bytes hex(char const* text)
{
    Bytes out;
    std::istringstream in(text);
    unsigned int byte = 0;
    while (in >> std::hex >> byte) out.push_back(static_cast<unsigned char>(byte));
    return out;
}

// The message as it goes on the wire: header and body.
inline Bytes wire(nk_message& msg)
{
    nk_serializer ser;
    EXPECT_TRUE(msg.serializeMsg(&ser));
    return bytes(ser);
}

inline tBlob randomBlob(unsigned int n, unsigned int seed)
{
    std::mt19937 rng(seed);
    tBlob b;
    unsigned char* p = b.resize(n);
    for (unsigned int i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(rng());
    return b;
}

#endif

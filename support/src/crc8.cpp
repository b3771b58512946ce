#include "crc8.h"

#include <cstdint>
#include <cstring>

namespace
{
// table[k][x]: the CRC of byte x followed by k zero bytes. Eight bytes then cost eight
// independent lookups instead of a chain of eight dependent ones.
struct Crc8Tables
{
    uint8_t t[8][256];
};

constexpr Crc8Tables makeTables()
{
    Crc8Tables tables{};
    for (unsigned x = 0; x < 256; ++x) {
        unsigned crc = x;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80) ? ((crc << 1) ^ 0x07) : (crc << 1);
        tables.t[0][x] = static_cast<uint8_t>(crc);
    }
    for (int k = 1; k < 8; ++k)
        for (unsigned x = 0; x < 256; ++x) tables.t[k][x] = tables.t[0][tables.t[k - 1][x]];
    return tables;
}

constexpr Crc8Tables kTables = makeTables();
}

unsigned char crc_crc8update(unsigned char crc, unsigned char const* buffer, unsigned int length)
{
    if (!buffer) return crc;
    uint8_t c = crc;
    auto const& t = kTables.t;
    while (length >= 8) {
        c = static_cast<uint8_t>(t[7][buffer[0] ^ c] ^ t[6][buffer[1]] ^ t[5][buffer[2]] ^ t[4][buffer[3]] ^
                                 t[3][buffer[4]] ^ t[2][buffer[5]] ^ t[1][buffer[6]] ^ t[0][buffer[7]]);
        buffer += 8;
        length -= 8;
    }
    while (length--) c = t[0][*buffer++ ^ c];
    return c;
}

unsigned char crc_crc8init(unsigned char const* buffer, unsigned int length)
{
    return crc_crc8update(0, buffer, length);
}

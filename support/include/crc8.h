#ifndef NK_CRC8_H
#define NK_CRC8_H

#include "nkSupportExport.h"

// CRC-8 with polynomial 0x07, initial value 0, no reflection, no final XOR
// (CRC-8/SMBUS; check value 0xF4). The CRC over data followed by its CRC byte is 0.
NKS_API unsigned char crc_crc8init(unsigned char const* buffer, unsigned int length);
// Continues a CRC over more data.
NKS_API unsigned char crc_crc8update(unsigned char crc, unsigned char const* buffer, unsigned int length);

#endif

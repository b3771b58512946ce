#ifndef NK_BASE128_H
#define NK_BASE128_H

#include "nkSupportExport.h"

// The input read as one bit stream (most significant bit first) cut into 7-bit groups,
// each written as 0x80 | group; the last group is padded with zero bits. Every encoded
// byte is at least 0x80, so 0x01 and 0x02 never occur in encoded data.
namespace base128
{
NKS_API unsigned int encodedSize(unsigned int length);  // (8n + 6) / 7
NKS_API unsigned int decodedSize(unsigned int length);  // 7m / 8
// Writes encodedSize(length) bytes to dst; gives that count.
NKS_API unsigned int encode(unsigned char* dst, unsigned char const* src, unsigned int length);
// Writes decodedSize(length) bytes to dst; gives that count. The top bit of every input
// byte is ignored.
NKS_API unsigned int decode(unsigned char* dst, unsigned char const* src, unsigned int length);
// As decode, and true only if every input byte has its top bit set, as every byte that
// encode writes has: a reader that takes a range for one encoded body learns in the same
// pass that no other byte (such as a frame's start or end byte) lies inside it.
NKS_API bool decodeChecked(unsigned char* dst, unsigned char const* src, unsigned int length);
}

#endif

#ifndef NK_TCOMPRESSION_H
#define NK_TCOMPRESSION_H

#include "tBlob.h"

// Two compressed forms, each starting with the decoded length as u32 little-endian:
// PackBits RLE and canonical Huffman (see docs/wire-format.md). Decoders give an empty
// result on any inconsistency.
class NKS_API tCompression
{
public:
    static tBlob encodeRLE(tBlob const& in);
    static tBlob decodeRLE(tBlob const& in);
    static tBlob encodeHuffman(tBlob const& in);
    static tBlob decodeHuffman(tBlob const& in);

    // The same with an explicit result, written into out's own storage (a caller that
    // reuses out allocates nothing once it is large enough): true and the form or the
    // content in out, or false and out empty.
    static bool encodeRLE(tBlob const& in, tBlob& out);
    static bool encodeHuffman(tBlob const& in, tBlob& out);
    static bool decodeRLE(tBlob const& in, tBlob& out);
    static bool decodeHuffman(tBlob const& in, tBlob& out);

    // The exact sizes encodeRLE and encodeHuffman would give, from one pass over the data.
    static void encodedSizes(unsigned char const* data, unsigned int length,
                             unsigned int& rleSize, unsigned int& huffmanSize);
    // The exact size encodeRLE would give, without the byte counts the Huffman size needs.
    static unsigned int encodedSizeRLE(unsigned char const* data, unsigned int length);
    // No Huffman form of length bytes is shorter than this: its header and code-length table,
    // and at least one bit per byte.
    static unsigned int minHuffmanSize(unsigned int length);
};

#endif

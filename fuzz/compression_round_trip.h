#ifndef NK_FUZZ_COMPRESSION_ROUND_TRIP_H
#define NK_FUZZ_COMPRESSION_ROUND_TRIP_H

// Shared by the two decompression targets: any input is decoded without a crash; whatever
// decodes must encode to exactly the size encodedSizes announces and decode back unchanged.
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "tCompression.h"

enum class CompressedForm { rle, huffman };

inline int decodeAndRoundTrip(uint8_t const* data, size_t size, CompressedForm form)
{
    if (size > std::numeric_limits<unsigned int>::max()) return 0;
    const tBlob in(data, static_cast<unsigned int>(size));
    const bool rle = form == CompressedForm::rle;
    tBlob decoded;
    if (!(rle ? tCompression::decodeRLE(in, decoded) : tCompression::decodeHuffman(in, decoded))) {
        if (decoded.size() != 0) std::abort();  // a refusal leaves nothing behind
        return 0;
    }
    const tBlob encoded = rle ? tCompression::encodeRLE(decoded) : tCompression::encodeHuffman(decoded);
    unsigned int rleSize = 0, huffmanSize = 0;
    tCompression::encodedSizes(decoded.getBuffer(), decoded.size(), rleSize, huffmanSize);
    if (encoded.size() != (rle ? rleSize : huffmanSize)) std::abort();
    tBlob again;
    if (!(rle ? tCompression::decodeRLE(encoded, again) : tCompression::decodeHuffman(encoded, again))) std::abort();
    if (again != decoded) std::abort();
    return 0;
}

#endif

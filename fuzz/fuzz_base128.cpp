// base128 decoding takes any bytes; encoding what came out and decoding again must give
// the same bytes back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base128.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1u << 20) return 0;
    const unsigned length = static_cast<unsigned>(size);
    std::vector<unsigned char> decoded(base128::decodedSize(length));
    if (base128::decode(decoded.data(), data, length) != decoded.size()) std::abort();

    const unsigned decodedLength = static_cast<unsigned>(decoded.size());
    std::vector<unsigned char> encoded(base128::encodedSize(decodedLength));
    if (base128::encode(encoded.data(), decoded.data(), decodedLength) != encoded.size()) std::abort();
    for (unsigned char b : encoded)
        if (b < 0x80) std::abort();

    std::vector<unsigned char> again(base128::decodedSize(static_cast<unsigned>(encoded.size())));
    base128::decode(again.data(), encoded.data(), static_cast<unsigned>(encoded.size()));
    if (again != decoded) std::abort();
    return 0;
}

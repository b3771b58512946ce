// Huffman decoder: refuses or decodes any input; what decodes survives a round trip.
#include "compression_round_trip.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return decodeAndRoundTrip(data, size, CompressedForm::huffman);
}

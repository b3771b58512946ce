// Arbitrary bytes as a stream of frames: every frame found must be written back to the
// same bytes and read back to the same part; the loop must end.
#include <cstdint>
#include <cstdlib>

#include "nk_telegram.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tBlob stream(data, static_cast<unsigned int>(size));
    nk_telegramPart part;
    unsigned int before = stream.size();
    while (part.streamContainsTelegram(&stream)) {
        // Each valid frame consumes bytes, so the loop is bounded by the input.
        if (stream.size() >= before) std::abort();
        before = stream.size();
        tBlob frame;
        if (!part.serialize(&frame)) std::abort();
        nk_telegramPart again;
        if (!again.streamContainsTelegram(&frame) || frame.size() != 0) std::abort();
        if (again.sourceAddress() != part.sourceAddress() || again.destinationAddress() != part.destinationAddress() ||
            again.telegramId() != part.telegramId() || again.partId() != part.partId() ||
            again.timestamp() != part.timestamp() || again.type() != part.type() ||
            again.compression() != part.compression() || again.partInfoValue() != part.partInfoValue() ||
            *again.payload() != *part.payload())
            std::abort();
        // Decoding a payload that claims to be compressed must be safe too.
        part.isSinglePartTelegram();
    }
    return 0;
}

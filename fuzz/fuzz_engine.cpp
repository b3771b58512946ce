// Arbitrary bytes arriving at an engine that has one request waiting (id 1): pushed in
// pieces, polled after each, answered when the content asks for it.
#include <cstdint>

#include "nk_protocol.h"

namespace
{
unsigned int discard(nk_server*, void*, unsigned char*, unsigned int length, int*) { return length; }

void answerSome(unsigned int, tBlob* content, void*)
{
    // Content whose first byte is odd gets an answer; the rest none.
    if (content->size() == 0 || (content->getBuffer()[0] & 1) == 0) content->clear();
}

void onResponse(unsigned int, tBlob* content, void*, bool, void*)
{
    if (content && content->size() != 0) (void)content->getBuffer()[content->size() - 1];
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nk_protocol engine(2, answerSome, nullptr, 10, nullptr, nullptr, nullptr);
    nk_protocol::u32TlgNumber = 0;
    unsigned char request[4] = {1, 2, 3, 4};
    tBlob content(request, 4);
    engine.enqueue_TS(&content, 1, onResponse, 0, nullptr);
    engine.poll(nullptr, nullptr, discard, nullptr);

    // The first byte picks the piece size, so frames also arrive cut at odd places.
    const size_t piece = size ? 1 + data[0] % 64 * 16 : 1;
    for (size_t at = 0; at < size; at += piece) {
        size_t n = size - at < piece ? size - at : piece;
        engine.pushData(const_cast<unsigned char*>(data + at), static_cast<unsigned int>(n));
        engine.poll(nullptr, nullptr, discard, nullptr);
    }
    engine.poll(nullptr, nullptr, discard, nullptr);
    return 0;
}

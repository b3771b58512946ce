// Any text into tJson::parse; an object that it accepts goes into serializeFromJson of every
// message type, each built by the factory from a bare header. A message that takes the
// object must then give its JSON text and its bytes without fault.
#include <cstdint>
#include <cstdio>
#include <memory>

#include "nkProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool quiet = [] {
        // The factory prints a line for unhandled types; keep the fuzzer's output readable.
        return std::freopen("/dev/null", "w", stdout) != nullptr;
    }();
    (void)quiet;
    if (size > 1u << 20) return 0;

    tJson json;
    if (!json.parse(tString(reinterpret_cast<char const*>(data), static_cast<unsigned>(size)))) return 0;

    // The layout revision decides which fields the bytes carry; the length picks one, so
    // every revision is reached without a byte of the text being spent on it.
    const unsigned char version = static_cast<unsigned char>(size % 4);
    for (unsigned char type = nk_message::STATE_REQ; type <= nk_message::GENERIC_RSP; ++type) {
        const unsigned char header[4] = {type, 0, version, 0};
        tBlob bytes(header, sizeof(header));
        std::unique_ptr<nk_message> msg(nk_message::getMessage(&bytes));
        if (!msg || !msg->serializeFromJson(&json)) continue;
        msg->getJson();
        nk_serializer out;
        msg->serializeMsg(&out);
    }
    return 0;
}

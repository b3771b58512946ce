// Any bytes into the message factory: every type, any body. A message that comes back is
// written again, parsed again and written a third time; the two writes must be identical,
// and its JSON form must read back into a message of the same type.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "nkProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool quiet = [] {
        // The factory prints a line for unhandled types; keep the fuzzer's output readable.
        return std::freopen("/dev/null", "w", stdout) != nullptr;
    }();
    (void)quiet;

    tBlob in(data, static_cast<unsigned int>(size));
    std::unique_ptr<nk_message> msg(nk_message::getMessage(&in));
    if (!msg) return 0;

    nk_serializer first;
    if (!msg->serializeMsg(&first)) return 0;
    std::unique_ptr<nk_message> again(nk_message::getMessage(&first));
    if (!again) std::abort();
    nk_serializer second;
    if (!again->serializeMsg(&second) || !(first == second)) std::abort();

    tJson json;
    if (msg->serializeToJson(&json)) {
        tJson reread;
        if (!reread.parse(json.getJson(false))) std::abort();
        again->serializeFromJson(&reread);
    }
    return 0;
}

// tJson::parse takes any text; whatever it accepts must print to a text that parses to
// the very same text again.
#include <cstdint>
#include <cstdlib>

#include "tJson.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1u << 20) return 0;
    tJson json;
    if (!json.parse(tString(reinterpret_cast<char const*>(data), static_cast<unsigned>(size)))) {
        if (!json.isEmpty()) std::abort();
        return 0;
    }
    const tString text = json.getJson(false);
    tJson again;
    if (!again.parse(text)) std::abort();
    if (again.getJson(false) != text) std::abort();
    json.getJson(true);
    return 0;
}

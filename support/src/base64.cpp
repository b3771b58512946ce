#include "base64.h"

#include <climits>

#include "libcrypto.h"

namespace
{
int valueOf(unsigned char c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Canonical padded base64 only: EVP_DecodeBlock itself skips blanks and keeps the
// padding bytes in its count, and one byte string must have one text.
bool isCanonical(unsigned char const* t, std::size_t n, unsigned& padding)
{
    if (n % 4 != 0) return false;
    padding = 0;
    if (n >= 1 && t[n - 1] == '=') ++padding;
    if (n >= 2 && t[n - 2] == '=') ++padding;
    for (std::size_t i = 0; i < n - padding; ++i)
        if (valueOf(t[i]) < 0) return false;
    // The bits that padding leaves unused must be zero.
    if (padding == 2 && (valueOf(t[n - 3]) & 0x0F) != 0) return false;
    if (padding == 1 && (valueOf(t[n - 2]) & 0x03) != 0) return false;
    return true;
}
}

namespace base64
{
tString encode(unsigned char const* data, unsigned int length)
{
    if (!data || length == 0) return tString();
    nk::LibCrypto const* crypto = nk::libCrypto();
    if (!crypto) return tString();
    std::size_t textLength = 4 * ((static_cast<std::size_t>(length) + 2) / 3);
    if (length > static_cast<unsigned int>(INT_MAX) || textLength > static_cast<std::size_t>(INT_MAX) ||
        textLength > 0xFFFFFFFEu)
        return tString();
    tString text;
    // setLength keeps room for the terminating NUL that EVP_EncodeBlock writes.
    char* out = text.setLength(static_cast<unsigned int>(textLength));
    int written = crypto->encodeBlock(reinterpret_cast<unsigned char*>(out), data, static_cast<int>(length));
    if (written < 0 || static_cast<std::size_t>(written) != textLength) return tString();
    return text;
}

bool decode(tString const& text, tBlob& out)
{
    out.clear();
    auto const* t = reinterpret_cast<unsigned char const*>(text.data());
    std::size_t n = text.length();
    if (n == 0) return true;
    unsigned padding = 0;
    if (n > static_cast<std::size_t>(INT_MAX) || !isCanonical(t, n, padding)) return false;
    nk::LibCrypto const* crypto = nk::libCrypto();
    if (!crypto) return false;
    unsigned char* dst = out.resize(static_cast<unsigned int>(n / 4 * 3));
    int decoded = crypto->decodeBlock(dst, t, static_cast<int>(n));
    if (decoded < 0 || static_cast<std::size_t>(decoded) != n / 4 * 3) {
        out.clear();
        return false;
    }
    out.resize(static_cast<unsigned int>(n / 4 * 3 - padding));
    return true;
}
}

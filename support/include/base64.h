#ifndef NK_BASE64_H
#define NK_BASE64_H

#include "tBlob.h"
#include "tString.h"

// Standard base64 with padding (RFC 4648).
namespace base64
{
NKS_API tString encode(unsigned char const* data, unsigned int length);
// False (out empty) for text that is not canonical padded base64.
NKS_API bool decode(tString const& text, tBlob& out);
}

#endif

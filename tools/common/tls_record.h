#ifndef NK_TOOLS_TLS_RECORD_H
#define NK_TOOLS_TLS_RECORD_H

#include <cstddef>

// True when bytes look like the start of a TLS record (a handshake or an alert): what a TLS peer
// sends first, and never the start of the protocol's frames (those begin with 0x01 or 0x02).
// Plain links use it to name a peer that speaks TLS, without needing OpenSSL.
inline bool looksLikeTls(unsigned char const* data, std::size_t length)
{
    // Record type alert (0x15) or handshake (0x16), then the major version 3 of every TLS.
    return length >= 3 && (data[0] == 0x15 || data[0] == 0x16) && data[1] == 0x03 && data[2] <= 0x04;
}

#endif

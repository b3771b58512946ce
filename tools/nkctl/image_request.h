#ifndef NK_TOOLS_IMAGE_REQUEST_H
#define NK_TOOLS_IMAGE_REQUEST_H

#include <cstdint>
#include <string>

#include "nkProtocol.h"

// The IMAGE request (version 3) that stores one file, built straight from the file: its
// bytes are read once, into their place in the request, and hashed as they arrive. Building
// it with nk_messageImage would hold the content three times (read, copied into the message,
// copied again into its bytes) before the engine takes it. The bytes are those of
// nk_messageImage::serializeMsg for the same file.
struct ImageRequest
{
    tBlob bytes;          // header and body, ready for the engine
    tString checksum;     // SHA-1 text of the content
    std::uint64_t contentBytes = 0;
};

// path "-" reads standard input. Throws ToolError (input) when the file cannot be read, and
// (local limit) when it is larger than maxContentBytes, before reading a regular file.
ImageRequest imageRequestFromFile(std::string const& path, unsigned long long id, std::string const& name,
                                  std::string const& mime, std::uint64_t maxContentBytes);

#endif

#ifndef NK_TOOLS_ENDPOINT_H
#define NK_TOOLS_ENDPOINT_H

#include <string>

struct Endpoint
{
    std::string host;
    unsigned short port = 0;
    std::string text() const;
};

// Parses HOST:PORT, [IPv6]:PORT or PORT alone (then host is defaultHost). Throws ToolError
// naming the text when the port is missing, not a number or out of range.
Endpoint parseEndpoint(std::string const& text, std::string const& defaultHost);

// Parses an unsigned decimal number that must lie within [min, max]; throws ToolError
// "<what> out of range" or "<what> is not a number".
unsigned long long parseUnsigned(std::string const& text, char const* what,
                                 unsigned long long min, unsigned long long max);

#endif

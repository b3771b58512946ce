#include "endpoint.h"

#include <cerrno>
#include <cstdlib>

#include "tool_error.h"

std::string Endpoint::text() const
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

unsigned long long parseUnsigned(std::string const& text, char const* what,
                                 unsigned long long min, unsigned long long max)
{
    const std::string range = " (" + std::to_string(min) + " to " + std::to_string(max) + ")";
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        if (!text.empty() && text[0] == '-' && text.size() > 1 &&
            text.find_first_not_of("0123456789", 1) == std::string::npos)
            throw ToolError(std::string(what) + " out of range: " + text + range, EXIT_USAGE);
        throw ToolError(std::string(what) + " is not a number: '" + text + "'", EXIT_USAGE);
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (errno == ERANGE || value < min || value > max)
        throw ToolError(std::string(what) + " out of range: " + text + range, EXIT_USAGE);
    return value;
}

Endpoint parseEndpoint(std::string const& text, std::string const& defaultHost)
{
    Endpoint ep;
    std::string port;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':')
            throw ToolError("malformed address '" + text + "', expected [HOST]:PORT", EXIT_USAGE);
        ep.host = text.substr(1, close - 1);
        port = text.substr(close + 2);
    } else {
        const std::size_t colon = text.rfind(':');
        if (colon == std::string::npos) {
            ep.host = defaultHost;
            port = text;
        } else {
            ep.host = text.substr(0, colon);
            port = text.substr(colon + 1);
        }
    }
    if (ep.host.empty()) ep.host = defaultHost;
    ep.port = static_cast<unsigned short>(parseUnsigned(port, ("port of '" + text + "'").c_str(), 0, 65535));
    return ep;
}

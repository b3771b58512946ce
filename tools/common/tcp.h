#ifndef NK_TOOLS_TCP_H
#define NK_TOOLS_TCP_H

#include <chrono>
#include <functional>
#include <memory>

#include <asio.hpp>

#include "endpoint.h"
#include "link.h"

// A plain TCP link. A peer whose first bytes are a TLS record (a TLS client on a plain port, or
// a TLS server's alert to a plain client) is refused at once with a reason that says so, instead
// of waiting for frames that never come.
class TcpLink : public StreamLink<asio::ip::tcp::socket>
{
public:
    using StreamLink::StreamLink;

protected:
    std::string screenFirstBytes(unsigned char const* data, std::size_t length) override;
};

// The connected socket, within timeout, running io until done. Throws ToolError naming the
// address and the cause (connection refused, host not found, time-out).
asio::ip::tcp::socket connectSocket(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout);

// A plain link to ep (see connectSocket).
std::shared_ptr<Link> connectTcp(asio::io_context& io, Endpoint const& ep,
                                 std::chrono::milliseconds timeout);

#endif

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

// Resolves and connects to ep within timeout without blocking the thread: done runs on io's
// thread once, with the connected socket and an empty error, or with a closed socket and the
// error naming the address and the cause (connection refused, host not found, time-out).
using SocketHandler = std::function<void(asio::ip::tcp::socket socket, std::string const& error)>;
void connectSocketAsync(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout, SocketHandler done);

// The same for a program with nothing else to do meanwhile (the name is resolved on this
// thread, without the resolver's own): runs io until done. Throws ToolError (connect) with the
// error.
asio::ip::tcp::socket connectSocket(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout);

// Runs io until done is set (or io runs out of work), then the handlers already due, so that
// nothing refers to the caller's frame afterwards.
void runUntil(asio::io_context& io, bool const& done);

// A plain link to ep (see connectSocket).
std::shared_ptr<Link> connectTcp(asio::io_context& io, Endpoint const& ep,
                                 std::chrono::milliseconds timeout);

#endif

#ifndef NK_TOOLS_TCP_H
#define NK_TOOLS_TCP_H

#include <chrono>
#include <functional>
#include <memory>

#include <asio.hpp>

#include "endpoint.h"
#include "link.h"

using TcpLink = StreamLink<asio::ip::tcp::socket>;

// Connects to ep within timeout, running io until done. Throws ToolError naming the address
// and the cause (connection refused, host not found, time-out).
std::shared_ptr<Link> connectTcp(asio::io_context& io, Endpoint const& ep,
                                 std::chrono::milliseconds timeout);

// Accepts connections on one address and hands each as a link to the handler.
class TcpListener
{
public:
    using AcceptHandler = std::function<void(std::shared_ptr<Link>)>;

    // Binds and listens at once; throws ToolError ("cannot listen on ...: Address already
    // in use") when that fails.
    TcpListener(asio::io_context& io, Endpoint const& ep, AcceptHandler onAccept);
    Endpoint localEndpoint() const;
    void close();

private:
    void acceptNext();

    asio::ip::tcp::acceptor m_acceptor;
    AcceptHandler m_onAccept;
    Endpoint m_requested;
};

#endif

#ifndef NK_TOOLS_TCP_H
#define NK_TOOLS_TCP_H

#include <chrono>
#include <functional>
#include <memory>

#include <asio.hpp>
#include <asio/ssl/context.hpp>

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

// Accepts connections on one address and hands each as a link to the handler.
class TcpListener
{
public:
    using AcceptHandler = std::function<void(std::shared_ptr<Link>)>;
    using RefusedHandler = std::function<void(std::string const& line)>;

    // Binds and listens at once; throws ToolError ("cannot listen on ...: Address already
    // in use") when that fails. With a TLS context every connection must complete a TLS
    // handshake first; onRefused hears of those that do not.
    TcpListener(asio::io_context& io, Endpoint const& ep, AcceptHandler onAccept,
                std::shared_ptr<asio::ssl::context> tls = nullptr, RefusedHandler onRefused = nullptr);
    Endpoint localEndpoint() const;
    void close();

private:
    void acceptNext();

    asio::ip::tcp::acceptor m_acceptor;
    AcceptHandler m_onAccept;
    std::shared_ptr<asio::ssl::context> m_tls;
    RefusedHandler m_onRefused;
    Endpoint m_requested;
};

#endif

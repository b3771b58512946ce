#ifndef NK_TOOLS_TCP_LISTENER_H
#define NK_TOOLS_TCP_LISTENER_H

#include <functional>
#include <memory>
#include <string>

#include <asio.hpp>
#include <asio/ssl/context.hpp>

#include "endpoint.h"
#include "link.h"

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

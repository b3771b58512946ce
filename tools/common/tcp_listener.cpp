#include "tcp_listener.h"

#include "tcp.h"
#include "tls.h"
#include "tool_error.h"

TcpListener::TcpListener(asio::io_context& io, Endpoint const& ep, AcceptHandler onAccept,
                         std::shared_ptr<asio::ssl::context> tls, RefusedHandler onRefused)
    : m_acceptor(io),
      m_onAccept(std::move(onAccept)),
      m_tls(std::move(tls)),
      m_onRefused(std::move(onRefused)),
      m_requested(ep)
{
    std::error_code ec;
    asio::ip::address address = asio::ip::make_address(ep.host, ec);
    if (ec) {
        asio::ip::tcp::resolver resolver(io);
        auto found = resolver.resolve(ep.host, std::to_string(ep.port), ec);
        if (ec || found.empty()) throw ToolError("cannot listen on " + ep.text() + ": unknown host", EXIT_CONNECT);
        address = found.begin()->endpoint().address();
    }
    const asio::ip::tcp::endpoint local(address, ep.port);
    m_acceptor.open(local.protocol(), ec);
    if (!ec) m_acceptor.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
    if (!ec) m_acceptor.bind(local, ec);
    if (!ec) m_acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (!ec) {
        acceptNext();
        return;
    }
    throw ToolError("cannot listen on " + ep.text() + ": " + ec.message(), EXIT_CONNECT);
}

Endpoint TcpListener::localEndpoint() const
{
    std::error_code ec;
    auto local = m_acceptor.local_endpoint(ec);
    Endpoint ep = m_requested;
    if (!ec) {
        ep.host = local.address().to_string();
        ep.port = local.port();
    }
    return ep;
}

void TcpListener::close()
{
    std::error_code ignored;
    m_acceptor.close(ignored);
}

void TcpListener::acceptNext()
{
    m_acceptor.async_accept([this](std::error_code ec, asio::ip::tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !m_acceptor.is_open()) return;
        if (!ec) {
            std::error_code remoteError;
            auto remote = socket.remote_endpoint(remoteError);
            std::string name = remoteError ? std::string("peer")
                                           : remote.address().to_string() + ":" + std::to_string(remote.port());
            socket.set_option(asio::ip::tcp::no_delay(true), remoteError);
            if (m_tls)
                acceptTls(std::move(socket), name, m_tls, m_onAccept, m_onRefused);
            else
                m_onAccept(std::make_shared<TcpLink>(std::move(socket), name));
        }
        // A failed accept (for example too many open files) does not stop the listener.
        acceptNext();
    });
}

#include "tcp.h"

#include "tls.h"
#include "tool_error.h"

namespace
{
std::string describe(std::error_code ec)
{
    if (ec == asio::error::connection_refused) return "connection refused";
    if (ec == asio::error::timed_out || ec == asio::error::operation_aborted) return "time-out";
    return ec.message();
}
}

std::string TcpLink::screenFirstBytes(unsigned char const* data, std::size_t length)
{
    if (!looksLikeTls(data, length)) return std::string();
    return "the peer speaks TLS, this side plain TCP";
}

asio::ip::tcp::socket connectSocket(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout)
{
    asio::ip::tcp::resolver resolver(io);
    std::error_code ec;
    auto addresses = resolver.resolve(ep.host, std::to_string(ep.port), ec);
    if (ec) throw ToolError("cannot resolve " + ep.text() + ": " + ec.message(), EXIT_CONNECT);

    asio::ip::tcp::socket socket(io);
    asio::steady_timer timer(io, timeout);
    bool done = false;
    bool timedOut = false;
    std::error_code result;
    asio::async_connect(socket, addresses, [&](std::error_code e, asio::ip::tcp::endpoint const&) {
        done = true;
        result = e;
        timer.cancel();
    });
    timer.async_wait([&](std::error_code e) {
        if (e || done) return;
        timedOut = true;
        std::error_code ignored;
        socket.close(ignored);
    });
    io.restart();
    while (!done && io.run_one() > 0) {
    }
    // Let the cancelled timer's handler run so nothing refers to this frame afterwards.
    while (io.poll_one() > 0) {
    }
    if (timedOut) throw ToolError("time-out connecting to " + ep.text(), EXIT_CONNECT);
    if (result) throw ToolError(describe(result) + " by " + ep.text(), EXIT_CONNECT);
    socket.set_option(asio::ip::tcp::no_delay(true), ec);
    return socket;
}

std::shared_ptr<Link> connectTcp(asio::io_context& io, Endpoint const& ep,
                                 std::chrono::milliseconds timeout)
{
    return std::make_shared<TcpLink>(connectSocket(io, ep, timeout), ep.text());
}

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

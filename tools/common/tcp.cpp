#include "tcp.h"

#include "tls_record.h"
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

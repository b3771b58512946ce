#include "tcp.h"

#include <vector>

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

namespace
{
using Endpoints = std::vector<asio::ip::tcp::endpoint>;

// One attempt to connect: whichever of the connection, a failure or the time-out comes first
// ends it; the handlers that come later find it finished.
struct SocketAttempt : std::enable_shared_from_this<SocketAttempt>
{
    SocketAttempt(asio::io_context& io, Endpoint const& ep, SocketHandler done)
        : resolver(io), socket(io), timer(io), ep(ep), done(std::move(done))
    {
    }

    // Resolves ep first unless the addresses are given.
    void start(std::chrono::milliseconds timeout, Endpoints const* addresses)
    {
        auto self = shared_from_this();
        timer.expires_after(timeout);
        timer.async_wait([self](std::error_code ec) {
            if (!ec) self->finish("time-out connecting to " + self->ep.text());
        });
        if (addresses) {
            connect(*addresses);
            return;
        }
        // A numeric address needs no resolver (whose lookups run on a thread of their own).
        std::error_code numeric;
        const asio::ip::address address = asio::ip::make_address(ep.host, numeric);
        if (!numeric) {
            connect({asio::ip::tcp::endpoint(address, ep.port)});
            return;
        }
        resolver.async_resolve(ep.host, std::to_string(ep.port),
                               [self](std::error_code ec, asio::ip::tcp::resolver::results_type found) {
                                   if (self->finished) return;
                                   if (ec) {
                                       self->finish(unresolved(self->ep, ec));
                                       return;
                                   }
                                   self->connect({found.begin(), found.end()});
                               });
    }

    static std::string unresolved(Endpoint const& ep, std::error_code ec)
    {
        return "cannot resolve " + ep.text() + ": " + ec.message();
    }

    void connect(Endpoints const& addresses)
    {
        auto self = shared_from_this();
        asio::async_connect(socket, addresses, [self](std::error_code ec, asio::ip::tcp::endpoint const&) {
            if (self->finished) return;
            if (ec) {
                self->finish(describe(ec) + " by " + self->ep.text());
                return;
            }
            std::error_code ignored;
            self->socket.set_option(asio::ip::tcp::no_delay(true), ignored);
            self->finish(std::string());
        });
    }

    void finish(std::string const& error)
    {
        if (finished) return;
        finished = true;
        timer.cancel();
        resolver.cancel();
        std::error_code ignored;
        if (!error.empty()) socket.close(ignored);
        SocketHandler handler = std::move(done);
        handler(std::move(socket), error);
    }

    asio::ip::tcp::resolver resolver;
    asio::ip::tcp::socket socket;
    asio::steady_timer timer;
    Endpoint ep;
    SocketHandler done;
    bool finished = false;
};
}

void connectSocketAsync(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout, SocketHandler done)
{
    std::make_shared<SocketAttempt>(io, ep, std::move(done))->start(timeout, nullptr);
}

void runUntil(asio::io_context& io, bool const& done)
{
    io.restart();
    while (!done && io.run_one() > 0) {
    }
    while (io.poll_one() > 0) {
    }
}

asio::ip::tcp::socket connectSocket(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout)
{
    // Resolved here, on this thread: a program that waits anyway needs no resolver thread.
    asio::ip::tcp::resolver resolver(io);
    std::error_code ec;
    const auto found = resolver.resolve(ep.host, std::to_string(ep.port), ec);
    if (ec) throw ToolError(SocketAttempt::unresolved(ep, ec), EXIT_CONNECT);
    const Endpoints addresses(found.begin(), found.end());
    asio::ip::tcp::socket connected(io);
    std::string error;
    bool done = false;
    auto attempt = std::make_shared<SocketAttempt>(io, ep, [&](asio::ip::tcp::socket socket, std::string const& why) {
        connected = std::move(socket);
        error = why;
        done = true;
    });
    attempt->start(timeout, &addresses);
    attempt.reset();
    runUntil(io, done);
    if (!done) throw ToolError("connecting to " + ep.text() + " did not complete", EXIT_CONNECT);
    if (!error.empty()) throw ToolError(error, EXIT_CONNECT);
    return connected;
}

std::shared_ptr<Link> connectTcp(asio::io_context& io, Endpoint const& ep,
                                 std::chrono::milliseconds timeout)
{
    return std::make_shared<TcpLink>(connectSocket(io, ep, timeout), ep.text());
}

// The station's dial-out links in one process, on loopback: a real device server answers, a bare
// socket that drops the station mid-request, and a port where nobody listens until later.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "device_server.h"
#include "dial_out.h"
#include "nk_messageState.h"
#include "station.h"
#include "tool_error.h"
#include "scratch_files.h"

namespace
{
// Runs io until done() or the time limit; the limit only keeps a broken build from hanging.
template <typename Done>
bool runUntil(asio::io_context& io, Done done, std::chrono::seconds limit = std::chrono::seconds(30))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end) io.run_for(std::chrono::milliseconds(20));
    return done();
}

// What a dial-out reports through its handlers, in order.
struct Events
{
    void watch(DialOut& dialOut)
    {
        dialOut.onUp([this](unsigned int address) { up.push_back(address); });
        dialOut.onDown([this](unsigned int, std::string const& reason, bool wasRefused) {
            down.push_back(reason);
            refused.push_back(wasRefused);
        });
    }
    std::vector<unsigned int> up;
    std::vector<std::string> down;
    std::vector<bool> refused;
};

DialOut::Options quick()
{
    DialOut::Options options;
    options.backoffMin = std::chrono::milliseconds(50);
    options.backoffMax = std::chrono::milliseconds(200);
    return options;
}
}

TEST(StationDialOut, WorksWithARealDeviceAndTellsWhyItCannot)
{
    asio::io_context io;
    const std::string dir = freshDirectory("dial-out-test");
    DeviceStore store(dir);
    Device device(store, 7, 1);
    device.load();
    DeviceServer::Options serverOptions;
    serverOptions.onStopped = [] {};
    DeviceServer server(io, device, serverOptions);
    const Endpoint at = server.listen(Endpoint{"127.0.0.1", 0});

    Events events;
    DialOut dialOut(io, quick());
    events.watch(dialOut);

    // Asked before the connection is made: refused later, not at once, and with the reason.
    nk_messageStateReq state(nk_message::VERSION_2);
    std::string early;
    bool earlyDone = false;
    dialOut.add(7, at);
    dialOut.request(7, state, 5, [&](tBlob* content, std::string const& error) {
        EXPECT_EQ(content, nullptr);
        early = error;
        earlyDone = true;
    });
    EXPECT_FALSE(earlyDone);
    ASSERT_TRUE(runUntil(io, [&] { return earlyDone && dialOut.connected(7); }));
    EXPECT_EQ(early.rfind("not connected", 0), 0u) << early;
    EXPECT_EQ(events.up, std::vector<unsigned int>{7});

    // Connected: answered by the device.
    unsigned int serial = 0;
    std::string error = "none yet";
    dialOut.request(7, state, 5, [&](tBlob* content, std::string const& why) {
        error = why;
        std::string decodeError;
        auto answer = content ? decodeMessage(content, decodeError) : nullptr;
        if (answer && answer->type() == nk_message::STATE_RSP) serial = static_cast<nk_messageStateRsp&>(*answer).serial();
    });
    ASSERT_TRUE(runUntil(io, [&] { return error != "none yet"; }));
    EXPECT_EQ(error, "");
    EXPECT_EQ(serial, 1u);
    EXPECT_EQ(dialOut.connectedPanels(), 1u);

    // A panel at a port where nobody listens: down, not refused, and tried again.
    dialOut.add(8, Endpoint{"127.0.0.1", 1});
    ASSERT_TRUE(runUntil(io, [&] { return !events.down.empty(); }));
    EXPECT_EQ(events.down[0], "connection refused by 127.0.0.1:1");
    EXPECT_FALSE(events.refused[0]);
    EXPECT_EQ(dialOut.panels(), 2u);
    dialOut.remove(8);
    EXPECT_EQ(dialOut.panels(), 1u);

    // A parse error in a panel list names the text.
    EXPECT_THROW(parseDialTarget("127.0.0.1:5000"), ToolError);
    EXPECT_THROW(parseDialTarget("4294967294@127.0.0.1:5000"), ToolError);
    EXPECT_THROW(parseDialTarget("1@127.0.0.1:0"), ToolError);
    const Endpoint ipv6{"::1", 5000};
    EXPECT_EQ(parseDialTarget("9@[::1]:5000").ep.text(), ipv6.text());
    EXPECT_EQ(parseDialTarget("9@[::1]:5000").address, 9u);
    server.stop();
    runUntil(io, [] { return false; }, std::chrono::seconds(1));
}

TEST(StationDialOut, ARequestUnderWayFailsAtOnceWhenThePanelDropsTheConnection)
{
    asio::io_context io;
    // A "panel" that takes the request's bytes and closes: the station must not wait out the
    // request's time-out of a minute to hear of it.
    asio::ip::tcp::acceptor acceptor(io, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    const unsigned short port = acceptor.local_endpoint().port();
    asio::ip::tcp::socket peer(io);
    std::vector<unsigned char> received(64);
    acceptor.async_accept(peer, [&](std::error_code ec) {
        ASSERT_FALSE(ec);
        peer.async_read_some(asio::buffer(received), [&](std::error_code, std::size_t) { peer.close(); });
    });

    Events events;
    DialOut dialOut(io, quick());
    events.watch(dialOut);
    dialOut.add(3, Endpoint{"127.0.0.1", port});
    ASSERT_TRUE(runUntil(io, [&] { return dialOut.connected(3); }));

    nk_messageStateReq state(nk_message::VERSION_2);
    std::string error;
    bool done = false;
    dialOut.request(3, state, 60, [&](tBlob* content, std::string const& why) {
        EXPECT_EQ(content, nullptr);
        error = why;
        done = true;
        // The panel is down before its requests fail, so whoever asked can see why.
        EXPECT_EQ(events.down.size(), 1u);
    });
    // Well before the minute: a request that waited for its time-out would say "no answer".
    ASSERT_TRUE(runUntil(io, [&] { return done; }, std::chrono::seconds(50)));
    EXPECT_EQ(error, "connection to 127.0.0.1:" + std::to_string(port) + " lost: closed by peer");
    EXPECT_FALSE(events.refused.at(0));

    // Nobody listens any more: the next attempts fail with the new reason, told once.
    acceptor.close();
    ASSERT_TRUE(runUntil(io, [&] { return events.down.size() >= 2; }));
    EXPECT_EQ(events.down[1], "connection refused by 127.0.0.1:" + std::to_string(port));
    runUntil(io, [] { return false; }, std::chrono::seconds(1));
    EXPECT_EQ(events.down.size(), 2u);

    // Listening again on the same port: dialled again.
    asio::ip::tcp::acceptor again(io);
    again.open(asio::ip::tcp::v4());
    again.set_option(asio::ip::tcp::acceptor::reuse_address(true));
    again.bind(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    again.listen();
    asio::ip::tcp::socket back(io);
    again.async_accept(back, [](std::error_code) {});
    ASSERT_TRUE(runUntil(io, [&] { return events.up.size() == 2; }));
    EXPECT_TRUE(dialOut.connected(3));
}

// Request/answer latency between a station engine and the reference device over loopback
// TCP, beside a trivial TCP request/answer of the same size on the same kind of link: the
// time an answer waits for anything but the link itself (a poll tick, disk writes).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <asio.hpp>

#include "device_server.h"
#include "engine_binding.h"
#include "tcp.h"

namespace
{
// A device serving on 127.0.0.1 in its own thread, on a fresh data directory.
struct DeviceThread
{
    std::string dir;
    std::unique_ptr<DeviceStore> store;
    std::unique_ptr<Device> device;
    asio::io_context io;
    std::unique_ptr<DeviceServer> server;
    Endpoint bound;
    std::thread thread;

    DeviceThread()
    {
        char pattern[] = "/tmp/nk-bench-device-XXXXXX";
        dir = ::mkdtemp(pattern);
        store.reset(new DeviceStore(dir));
        device.reset(new Device(*store, 1, 1));
        server.reset(new DeviceServer(io, *device, DeviceServer::Options()));
        bound = server->listen(Endpoint{"127.0.0.1", 0});
        thread = std::thread([this] { io.run(); });
    }
    ~DeviceThread()
    {
        asio::post(io, [this] { server->stop(); });
        thread.join();
        server.reset();
        device.reset();
        store.reset();
        std::system(("rm -rf " + dir).c_str());
    }
};

struct Answers
{
    unsigned int pending = 0;
};

void onAnswer(unsigned int, tBlob*, void*, bool timedOut, void* user)
{
    if (!timedOut) --static_cast<Answers*>(user)->pending;
}

// n STATE requests sent at once on one connection; the iteration ends when all are answered.
void stateRequests(benchmark::State& state, unsigned int n)
{
    DeviceThread device;
    asio::io_context io;
    auto link = connectTcp(io, device.bound, std::chrono::seconds(5));
    io.restart();
    nk_protocol engine(100, nullptr, nullptr, 30, nullptr, nullptr, nullptr);
    EngineBinding binding(link, engine);
    binding.start([](std::string const&) {});
    nk_messageStateReq request(nk_message::VERSION_2);
    nk_serializer bytes;
    request.serializeMsg(&bytes);
    Answers answers;
    for (auto _ : state) {
        answers.pending = n;
        for (unsigned int i = 0; i < n; ++i) {
            tBlob content(bytes);
            engine.enqueue_TS(&content, 1, &onAnswer, 30, &answers);
        }
        binding.poll();
        while (answers.pending > 0 && link->isOpen()) io.run_one();
    }
    if (!link->isOpen()) state.SkipWithError("the device closed the link");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
}

void BM_StateRequestAnswer(benchmark::State& state)
{
    stateRequests(state, 1);
}

void BM_Pipelined200StateRequests(benchmark::State& state)
{
    stateRequests(state, 200);
}

// The same round trip without the protocol: 40 bytes out, 40 bytes echoed back.
void BM_TrivialTcpRequestAnswer(benchmark::State& state)
{
    asio::io_context serverIo;
    asio::ip::tcp::acceptor acceptor(serverIo, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    std::thread server([&] {
        asio::ip::tcp::socket peer(serverIo);
        acceptor.accept(peer);
        peer.set_option(asio::ip::tcp::no_delay(true));
        unsigned char buffer[64];
        std::error_code ec;
        for (;;) {
            const std::size_t n = asio::read(peer, asio::buffer(buffer, 40), ec);
            if (ec || n != 40) return;
            asio::write(peer, asio::buffer(buffer, 40), ec);
            if (ec) return;
        }
    });
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect(acceptor.local_endpoint());
    socket.set_option(asio::ip::tcp::no_delay(true));
    unsigned char buffer[40] = {1};
    for (auto _ : state) {
        asio::write(socket, asio::buffer(buffer));
        asio::read(socket, asio::buffer(buffer));
    }
    socket.close();
    server.join();
}
}

BENCHMARK(BM_TrivialTcpRequestAnswer)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StateRequestAnswer)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Pipelined200StateRequests)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

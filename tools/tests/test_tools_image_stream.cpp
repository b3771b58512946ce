// An image stored while its parts arrive: a device served over loopback TCP, fed frames built
// part by part with the library, in order and out of it, whole and broken. What it keeps,
// records and answers must be what the engine's joined request would have given.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <poll.h>
#include <string>
#include <thread>
#include <vector>

#include "device.h"
#include "device_server.h"
#include "endpoint.h"
#include "station.h"
#include "tcp.h"
#include "scratch_files.h"

namespace
{
const unsigned int kDevice = 1;
const unsigned int kStation = 100;
const std::chrono::seconds kPatience(20);  // a bound for a failing test, not a measurement

tBlob imageRequest(unsigned long long id, char const* mime, tBlob content,
                   nk_message::teVersion version = nk_message::VERSION_3)
{
    nk_messageImage message(version);
    message.add(id, "name.png", mime, &content);
    nk_serializer bytes;
    message.serializeMsg(&bytes);
    return tBlob(bytes);
}

// The frame of part number `part` of content cut into parts of partBytes; the part holding
// the end of the content is marked last.
tBlob frame(tBlob const& content, unsigned int telegramId, unsigned int partBytes, unsigned int part,
            nk_basicTelegram::teCompression compression = nk_basicTelegram::COMPRESSION_NONE)
{
    const unsigned int count = (content.size() + partBytes - 1) / partBytes;
    const unsigned int from = (part - 1) * partBytes;
    tBlob payload(content.getBuffer() + from, std::min(partBytes, content.size() - from));
    nk_telegramPart p(telegramId, kStation, kDevice, part, 0, part == count, &payload,
                      nk_basicTelegram::TYPE_REQUEST_FORCE_RESPONSE, compression);
    tBlob bytes;
    p.serialize(&bytes);
    return bytes;
}

tBlob frames(tBlob const& content, unsigned int telegramId, unsigned int partBytes, std::vector<unsigned int> order = {})
{
    if (order.empty())
        for (unsigned int part = 1; (part - 1) * partBytes < content.size(); ++part) order.push_back(part);
    tBlob bytes;
    for (unsigned int part : order) bytes.append(frame(content, telegramId, partBytes, part));
    return bytes;
}

bool anyTemporary(std::string const& directory)
{
    for (std::string const& name : filesIn(directory))
        if (name.find('~') != std::string::npos) return true;
    return false;
}

// Waits until done() holds; false when it never did.
template <typename Condition>
bool eventually(Condition done)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string fileText(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string text(tBlob const& bytes)
{
    return std::string(reinterpret_cast<char const*>(bytes.getBuffer()), bytes.size());
}

// nkdevice's server on its own thread, listening on loopback.
class RunningDevice
{
public:
    explicit RunningDevice(std::string const& dir) : m_store(dir), m_device(m_store, kDevice, 1), m_server(m_io, m_device, {})
    {
        m_device.load();
        m_endpoint = m_server.listen(parseEndpoint("127.0.0.1:0", "127.0.0.1"));
        m_thread = std::thread([this] { m_io.run(); });
    }
    ~RunningDevice()
    {
        asio::post(m_io, [this] { m_server.stop(); });
        m_thread.join();
    }
    Endpoint const& endpoint() const { return m_endpoint; }
    std::string images() const { return m_store.imagesDirectory(); }

    // Runs f on the device's thread, where its state lives.
    template <typename F>
    auto onDevice(F f) -> decltype(f())
    {
        std::packaged_task<decltype(f())()> task(f);
        auto result = task.get_future();
        asio::post(m_io, [&task] { task(); });
        return result.get();
    }
    std::vector<std::string> events()
    {
        return onDevice([this] {
            std::vector<std::string> texts;
            for (unsigned int i = 0; nk_messageEvent* e = m_device.events().getEvent(i); ++i)
                texts.push_back(e->eventMessage().str());
            return texts;
        });
    }

private:
    DeviceStore m_store;
    Device m_device;
    asio::io_context m_io;
    DeviceServer m_server;
    Endpoint m_endpoint;
    std::thread m_thread;
};

// A station that writes frames as given and reads whole telegrams of one part.
class RawStation
{
public:
    explicit RawStation(Endpoint const& ep) : m_socket(m_io)
    {
        m_socket.connect(asio::ip::tcp::endpoint(asio::ip::make_address(ep.host), ep.port));
    }
    void send(tBlob const& bytes) { asio::write(m_socket, asio::buffer(bytes.getBuffer(), bytes.size())); }
    void close() { m_socket.close(); }

    // The next telegram the device sends: its id and content; false after kPatience.
    bool receive(unsigned int& telegramId, tBlob& content)
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        for (;;) {
            nk_telegramPart part;
            while (m_stream.getIndexOf(0x02) != 0xFFFFFFFFu) {
                if (!part.streamContainsTelegram(&m_stream)) continue;
                tBlob* whole = part.isSinglePartTelegram();
                if (!whole) return false;  // the answers here are all of one part
                telegramId = part.telegramId();
                content = *whole;
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd readable{m_socket.native_handle(), POLLIN, 0};
            if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) return false;
            unsigned char buffer[65536];
            std::error_code ec;
            const std::size_t n = m_socket.read_some(asio::buffer(buffer), ec);
            if (ec) return false;
            m_stream.append(buffer, static_cast<unsigned int>(n));
        }
    }
    // The device's answer to telegramId, a state response; the answers to other ids that come
    // first are collected in others.
    std::unique_ptr<nk_messageStateRsp> stateAnswer(unsigned int telegramId, std::vector<unsigned int>* others = nullptr)
    {
        unsigned int id = 0;
        tBlob content;
        while (receive(id, content)) {
            if (id != telegramId) {
                if (others) others->push_back(id);
                continue;
            }
            std::string error;
            std::unique_ptr<nk_message> message = decodeMessage(&content, error);
            if (!message || message->type() != nk_message::STATE_RSP) return nullptr;
            return std::unique_ptr<nk_messageStateRsp>(static_cast<nk_messageStateRsp*>(message.release()));
        }
        return nullptr;
    }
    // Asks for the state: everything sent before it has been taken when the answer comes.
    std::unique_ptr<nk_messageStateRsp> state(unsigned int telegramId, std::vector<unsigned int>* others = nullptr)
    {
        nk_messageStateReq request(nk_message::VERSION_2);
        nk_serializer bytes;
        request.serializeMsg(&bytes);
        send(frames(tBlob(bytes), telegramId, 1u << 20));
        return stateAnswer(telegramId, others);
    }

private:
    asio::io_context m_io;
    asio::ip::tcp::socket m_socket;
    tBlob m_stream;
};
}

TEST(ToolsImageStream, StoresWhatArrivesInAnyOrderAndAnswersItsRequest)
{
    const std::string dir = freshDirectory("image-stream");
    RunningDevice device(dir);
    RawStation station(device.endpoint());

    // In order, 64 KiB parts: written while it arrives, so the temporary file is there before
    // the last part is.
    const tBlob first = patterned(600000, 1);
    const tBlob request = imageRequest(11, "image/png", first);
    const unsigned int parts = (request.size() + 65535) / 65536;
    for (unsigned int part = 1; part < parts; ++part) station.send(frame(request, 501, 65536, part));
    EXPECT_TRUE(eventually([&] { return anyTemporary(device.images()); })) << "nothing was written before the last part";
    station.send(frame(request, 501, 65536, parts));
    auto answer = station.stateAnswer(501);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->imageUidPresent(11));
    EXPECT_EQ(fileText(device.images() + "/image_id11.png"), text(first));

    // Parts ahead of their turn, and one twice: the same file. A version 2 request ends with
    // its content.
    const tBlob second = patterned(300000, 2);
    station.send(frames(imageRequest(12, "application/pdf", second, nk_message::VERSION_2), 502, 50000,
                        {1, 3, 2, 2, 5, 4, 6, 7}));
    answer = station.stateAnswer(502);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->imageUidPresent(12));
    EXPECT_EQ(fileText(device.images() + "/image_id12.pdf"), text(second));

    // Begun while another telegram of many parts is open: the engine takes the image, with the
    // same result, and the other telegram is answered too.
    nk_messageStateReq stateRequest(nk_message::VERSION_2);
    nk_serializer stateBytes;
    stateRequest.serializeMsg(&stateBytes);
    const tBlob third = patterned(200000, 3);
    const tBlob thirdRequest = imageRequest(13, "image/png", third);
    const unsigned int half = (stateBytes.size() + 1) / 2;
    station.send(frame(tBlob(stateBytes), 503, half, 1));
    station.send(frame(thirdRequest, 504, 65536, 1));
    station.send(frame(tBlob(stateBytes), 503, half, 2));
    station.send(frame(thirdRequest, 504, 65536, 2));
    station.send(frame(thirdRequest, 504, 65536, 3));
    station.send(frame(thirdRequest, 504, 65536, 4));
    std::vector<unsigned int> before;
    answer = station.stateAnswer(504, &before);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->imageUidPresent(13));
    EXPECT_EQ(before, std::vector<unsigned int>{503});
    EXPECT_EQ(fileText(device.images() + "/image_id13.png"), text(third));

    const std::vector<std::string> events = device.events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].rfind("IMAGE (version 3) from 100 at 127.0.0.1:", 0), 0u) << events[0];
    EXPECT_EQ(events[1].rfind("IMAGE (version 2) from 100 at 127.0.0.1:", 0), 0u) << events[1];
    EXPECT_FALSE(anyTemporary(device.images()));
    std::system(("rm -rf " + dir).c_str());
}

TEST(ToolsImageStream, RefusedOrBrokenImagesLeaveNothingBehind)
{
    const std::string dir = freshDirectory("image-stream");
    {
        // A temporary file left by a device that ended mid-transfer goes when the next starts.
        DeviceStore store(dir);
        std::ofstream(store.imagesDirectory() + "/image_id9.png~3") << "half";
    }
    RunningDevice device(dir);
    EXPECT_TRUE(filesIn(device.images()).empty());
    RawStation station(device.endpoint());
    const tBlob content = patterned(400000, 4);

    // Content that does not match its checksum: answered, not stored.
    tBlob corrupt = imageRequest(21, "image/png", content);
    corrupt.getBuffer()[corrupt.size() - 2] ^= 0x40;
    station.send(frames(corrupt, 601, 65536));
    auto answer = station.stateAnswer(601);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->imageUidPresent(21));

    // A body cut short of its content: refused, not answered.
    tBlob cut = imageRequest(22, "image/png", content);
    cut.resize(cut.size() - 1000);
    station.send(frames(cut, 602, 65536));
    std::vector<unsigned int> others;
    ASSERT_TRUE(station.state(603, &others));
    EXPECT_TRUE(others.empty());

    // Parts that do not number 1 to n when the last comes: dropped without an answer.
    const tBlob gapped = imageRequest(23, "image/png", content);
    station.send(frames(gapped, 604, 65536, {1, 2, 3, 4, 5, 7}));
    ASSERT_TRUE(station.state(605, &others));
    EXPECT_TRUE(others.empty());

    // A type the device does not store: refused when whole, answered.
    station.send(frames(imageRequest(24, "image/gif", content), 606, 65536));
    answer = station.stateAnswer(606);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->imageUidPresent(24));

    // A frame damaged on the line is dropped; the part sent again completes the image.
    const tBlob resent = imageRequest(25, "image/png", content);
    tBlob damaged = frame(resent, 607, 65536, 2);
    damaged.getBuffer()[damaged.size() / 2] ^= 0x01;
    station.send(frame(resent, 607, 65536, 1));
    station.send(damaged);
    station.send(frames(resent, 607, 65536, {2, 3, 4, 5, 6, 7}));
    answer = station.stateAnswer(607);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->imageUidPresent(25));
    EXPECT_EQ(fileText(device.images() + "/image_id25.png"), text(content));

    // The station goes away mid-transfer: the half-written file goes with it.
    station.send(frames(imageRequest(26, "image/png", content), 608, 65536, {1, 2, 3}));
    EXPECT_TRUE(eventually([&] { return anyTemporary(device.images()); }));
    station.close();
    EXPECT_TRUE(eventually([&] { return !anyTemporary(device.images()); }));
    EXPECT_EQ(filesIn(device.images()), std::vector<std::string>{"image_id25.png"});

    const std::vector<std::string> events = device.events();
    auto recorded = [&events](std::string const& text) {
        for (std::string const& e : events)
            if (e.find(text) != std::string::npos) return true;
        return false;
    };
    EXPECT_TRUE(recorded("image 21 refused: content does not match its checksum"));
    EXPECT_TRUE(recorded("IMAGE body cut short: " + std::to_string(cut.size()) + " bytes do not hold the whole layout"));
    EXPECT_TRUE(recorded("image 24 refused: unsupported mime type 5"));
    // The telegram with a part missing is dropped as the engine drops it: not even refused.
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](std::string const& e) { return e.find("cut short") != std::string::npos; }),
              1);
    std::system(("rm -rf " + dir).c_str());
}

TEST(ToolsLink, APausedLinkReadsNothingUntilResumed)
{
    asio::io_context io;
    std::shared_ptr<Link> server;
    TcpListener listener(io, parseEndpoint("127.0.0.1:0", "127.0.0.1"), [&](std::shared_ptr<Link> link) { server = link; });
    std::shared_ptr<Link> client = connectTcp(io, listener.localEndpoint(), std::chrono::seconds(5));
    io.restart();  // connecting ran the context until it stopped
    while (!server) io.run_one();
    std::size_t received = 0;
    server->start([&](unsigned char const*, std::size_t n) { received += n; }, nullptr);
    client->start(nullptr, nullptr);

    const std::vector<unsigned char> bytes(1000, 0x55);
    client->queue(bytes.data(), bytes.size());
    while (received < 1000) io.run_one();
    server->pauseReading();
    // The read already asked for still delivers; after it nothing does.
    client->queue(bytes.data(), bytes.size());
    io.run_for(std::chrono::milliseconds(200));
    const std::size_t whilePaused = received;
    client->queue(bytes.data(), bytes.size());
    io.run_for(std::chrono::milliseconds(200));
    EXPECT_EQ(received, whilePaused);
    server->resumeReading();
    while (received < 3000) io.run_one();
    EXPECT_EQ(received, 3000u);
}

// The broker transport with the real parts: mosquitto started by the project's script,
// nkdevice --simulate as a separate process, and the station's engines on one MQTT connection.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>

#include "broker_station.h"
#include "fleet_processes.h"
#include "nk_messageShutdown.h"
#include "nk_messageState.h"
#include "station.h"

using namespace fleet_test;

namespace
{
bool runUntil(asio::io_context& io, std::function<bool()> const& done, int seconds = 30)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        io.run_one_for(std::chrono::milliseconds(50));
    }
    return true;
}

struct StationUnderTest
{
    asio::io_context io;
    std::unique_ptr<BrokerStation> station;
    std::map<unsigned int, bool> online;

    explicit StationUnderTest(std::string const& url)
    {
        BrokerStation::Options options;
        options.broker = parseMqttUrl(url);
        options.topics.fleet = "test";
        options.clientId = "station-under-test";
        station.reset(new BrokerStation(io, options));
        station->onPresence([this](unsigned int address, bool isOnline) { online[address] = isOnline; });
        station->start();
    }

    bool allOnline(unsigned int first, unsigned int count, bool expected)
    {
        return runUntil(io, [&] {
            for (unsigned int a = first; a < first + count; ++a)
                if (online.count(a) == 0 || online[a] != expected) return false;
            return true;
        });
    }

    // Sends SHUTDOWN; true when the panel acknowledged it with the same message.
    bool shutdown(unsigned int address, std::string& error)
    {
        nk_messageShutdown request(nk_message::VERSION_0);
        bool done = false;
        bool acknowledged = false;
        station->request(address, request, 5, [&](tBlob* content, std::string const& why) {
            done = true;
            error = why;
            if (!content) return;
            auto answer = decodeMessage(content, error);
            acknowledged = answer && answer->type() == nk_message::SHUTDOWN;
        });
        if (!runUntil(io, [&] { return done; })) error = "handler never ran";
        return acknowledged;
    }

    // The serial a panel reports in its state, or 0 with the error.
    unsigned int serialOf(unsigned int address, std::string& error)
    {
        nk_messageStateReq request(nk_message::VERSION_2);
        bool done = false;
        unsigned int serial = 0;
        station->request(address, request, 5, [&](tBlob* content, std::string const& why) {
            done = true;
            error = why;
            if (!content) return;
            auto answer = decodeMessage(content, error);
            if (answer && answer->type() == nk_message::STATE_RSP)
                serial = static_cast<nk_messageStateRsp&>(*answer).serial();
        });
        if (!runUntil(io, [&] { return done; })) error = "handler never ran";
        return serial;
    }
};

std::vector<std::string> simulate(std::string const& url, unsigned int first, unsigned int count)
{
    return {NK_NKDEVICE, "--mqtt", url, "--fleet", "test", "--simulate", std::to_string(count), "--address",
            std::to_string(first)};
}
}

TEST(ToolsMqtt, EachSimulatedPanelAnswersOnItsOwnTopicsAndIgnoresGarbage)
{
    Broker broker;
    const std::string log = freshDirectory("sim") + "/out";
    Process panels(simulate(broker.url(), 20, 3), log);
    StationUnderTest station(broker.url());
    ASSERT_TRUE(station.allOnline(20, 3, true)) << "panels never reported online";

    for (unsigned int address = 20; address < 23; ++address) {
        std::string error;
        EXPECT_EQ(station.serialOf(address, error), address) << error;
    }

    // Garbage on a panel's down and up topics, and on a topic that names no panel: the panel
    // still answers, the station counts the stray message and nothing else changes.
    MqttClient::Options intruderOptions;
    intruderOptions.port = parseMqttUrl(broker.url()).port;
    intruderOptions.clientId = "intruder";
    MqttClient intruder(station.io, intruderOptions, nullptr);
    intruder.start();
    ASSERT_TRUE(runUntil(station.io, [&] { return intruder.connected(); }));
    const unsigned char junk[] = {0x02, 0xff, 0x13, 0x00, 0x7f, 0x03, 0x55, 0x02};
    intruder.publish("nk/test/21/down", junk, sizeof junk, 1, false);
    intruder.publish("nk/test/21/up", junk, sizeof junk, 1, false);
    intruder.publish("nk/test/not-a-panel/up", junk, sizeof junk, 1, false);
    ASSERT_TRUE(runUntil(station.io, [&] { return station.station->strayMessages() >= 1; }));
    std::string error;
    EXPECT_EQ(station.serialOf(21, error), 21u) << error;
    // A panel that does not exist gives a time-out, not an answer.
    EXPECT_EQ(station.serialOf(99, error), 0u);
    EXPECT_EQ(error, "no answer");
}

TEST(ToolsMqtt, PresenceFollowsTheLastWillAndLinksSurviveABrokerRestart)
{
    Broker broker;
    const std::string log = freshDirectory("sim") + "/out";
    StationUnderTest station(broker.url());
    {
        Process panels(simulate(broker.url(), 40, 2), log);
        ASSERT_TRUE(station.allOnline(40, 2, true));
        // Killed without a word: the broker publishes each panel's last will.
        panels.kill(SIGKILL);
        EXPECT_TRUE(station.allOnline(40, 2, false)) << "last will not seen";
    }
    {
        Process panels(simulate(broker.url(), 40, 2), log);
        ASSERT_TRUE(station.allOnline(40, 2, true));
        // A clean stop sets the flag itself.
        EXPECT_EQ(panels.kill(SIGTERM), 0);
        EXPECT_TRUE(station.allOnline(40, 2, false)) << "clean stop not seen";
    }
    Process panels(simulate(broker.url(), 40, 2), log);
    ASSERT_TRUE(station.allOnline(40, 2, true));
    const unsigned int connectsBefore = station.station->client().connects();
    broker.restart();
    // Both sides come back on their own, with back-off, and talk again.
    ASSERT_TRUE(runUntil(station.io, [&] { return station.station->client().connects() > connectsBefore; }, 60));
    std::string error;
    unsigned int serial = 0;
    for (int attempt = 0; attempt < 10 && serial != 41; ++attempt) serial = station.serialOf(41, error);
    EXPECT_EQ(serial, 41u) << error;
}

TEST(ToolsMqtt, ShutdownEndsOneSimulatedPanelAndTheProcessEndsWithTheLast)
{
    Broker broker;
    const std::string log = freshDirectory("sim") + "/out";
    Process panels(simulate(broker.url(), 60, 3), log);
    StationUnderTest station(broker.url());
    ASSERT_TRUE(station.allOnline(60, 3, true)) << "panels never reported online";

    std::string error;
    ASSERT_TRUE(station.shutdown(61, error)) << error;
    EXPECT_TRUE(station.allOnline(61, 1, false)) << "the stopped panel's flag never went to 0";
    // The others keep answering, and the process keeps running for them.
    EXPECT_EQ(station.serialOf(60, error), 60u) << error;
    EXPECT_EQ(station.serialOf(62, error), 62u) << error;
    EXPECT_TRUE(panels.running());
    EXPECT_TRUE(station.online[60] && station.online[62]);
    // The stopped panel no longer answers.
    EXPECT_EQ(station.serialOf(61, error), 0u);
    EXPECT_EQ(error, "no answer");

    ASSERT_TRUE(station.shutdown(60, error)) << error;
    ASSERT_TRUE(station.shutdown(62, error)) << error;
    EXPECT_TRUE(station.allOnline(60, 3, false));
    EXPECT_TRUE(runUntil(station.io, [&] { return !panels.running(); })) << "the process outlived its last panel";
    EXPECT_EQ(panels.kill(SIGTERM), 0) << "the process did not end cleanly";
}

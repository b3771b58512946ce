#ifndef NK_TOOLS_BROKER_STATION_H
#define NK_TOOLS_BROKER_STATION_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "engine_binding.h"
#include "fleet_topics.h"
#include "mqtt_client.h"
#include "mqtt_link.h"
#include "nkProtocol.h"
#include "poll_timer.h"

// The station's side of a fleet on a broker: one MQTT connection subscribed to every panel's
// up and online topics, and one protocol engine per panel address (made when the panel is
// first addressed or heard), whose frames travel on that panel's down and up topics. A message
// on a panel's up topic reaches only that panel's engine, and an answer counts only when its
// telegram comes from the address of the topic it arrived on: a panel cannot answer for another.
class BrokerStation
{
public:
    struct Options
    {
        MqttUrl broker;
        FleetTopics topics;
        std::string clientId;
        unsigned int ownAddress = 100;
        // Subscribe through $share/<group>/... so that several stations split one fleet.
        std::string sharedGroup;
        bool verbose = false;
        // The station's client certificate, for an mqtts:// broker.
        TlsFiles tls;
    };
    // The answer's content (null on time-out or on an answer from the wrong address) and why not.
    using ResponseHandler = std::function<void(tBlob* content, std::string const& error)>;
    using PresenceHandler = std::function<void(unsigned int address, bool online)>;
    using ConnectionHandler = std::function<void(bool connected, std::string const& reason)>;

    BrokerStation(asio::io_context& io, Options options);
    ~BrokerStation();
    BrokerStation(BrokerStation const&) = delete;
    BrokerStation& operator=(BrokerStation const&) = delete;

    void onPresence(PresenceHandler handler) { m_onPresence = std::move(handler); }
    void onConnection(ConnectionHandler handler) { m_onConnection = std::move(handler); }
    void start();
    void stop();

    // Sends one request to a panel; handler runs once, with the answer or after timeout_s.
    bool request(unsigned int address, nk_message& message, unsigned int timeout_s, ResponseHandler handler);

    bool connected() const { return m_client->connected(); }
    MqttClient& client() { return *m_client; }
    // Payloads on topics of this fleet that name no panel, or answers from the wrong address.
    std::uint64_t strayMessages() const { return m_stray; }

private:
    struct Peer;
    struct Pending;
    Peer& peer(unsigned int address);
    void received(std::string const& topic, unsigned char const* data, std::size_t length);
    void pollActive();
    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData);

    asio::io_context& m_io;
    Options m_options;
    std::unique_ptr<MqttClient> m_client;
    std::map<unsigned int, std::unique_ptr<Peer>> m_peers;
    PresenceHandler m_onPresence;
    ConnectionHandler m_onConnection;
    PollTimer m_timer;
    std::uint64_t m_stray = 0;
};

#endif

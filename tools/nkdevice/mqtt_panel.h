#ifndef NK_TOOLS_MQTT_PANEL_H
#define NK_TOOLS_MQTT_PANEL_H

#include <memory>

#include "device_server.h"
#include "fleet_topics.h"
#include "mqtt_client.h"
#include "mqtt_link.h"

// A device reached through a broker: one MQTT connection with the client id
// nk-<fleet>-<address>, the device's down topic read as its incoming bytes, its answers
// published on its up topic, and its retained online flag ("1" while connected, "0" from the
// last will or a clean stop).
class MqttPanel
{
public:
    MqttPanel(asio::io_context& io, DeviceServer& server, MqttUrl const& broker, FleetTopics const& topics,
              unsigned int address, TlsFiles const& tls = TlsFiles());
    void start();
    // Sets the online flag to "0" and disconnects.
    void stop();
    MqttClient& client() { return *m_client; }
    // A panel that is online and never answers, for testing stations.
    void setSilent(bool on) { m_silent = on; }

private:
    void openLink();

    DeviceServer& m_server;
    FleetTopics m_topics;
    unsigned int m_address;
    std::unique_ptr<MqttClient> m_client;
    std::shared_ptr<MqttLink> m_link;
    bool m_silent = false;
};

#endif

#include "mqtt_panel.h"

MqttPanel::MqttPanel(asio::io_context& io, DeviceServer& server, MqttUrl const& broker, FleetTopics const& topics,
                     unsigned int address, TlsFiles const& tls)
    : m_server(server), m_topics(topics), m_address(address)
{
    MqttClient::Options options;
    options.host = broker.host;
    options.port = broker.port;
    options.clientId = "nk-" + topics.fleet + "-" + std::to_string(address);
    options.subscriptions.push_back(topics.down(address));
    options.presenceTopic = topics.online(address);
    options.tls = tls;
    const std::string down = topics.down(address);
    m_client.reset(new MqttClient(io, options, [this, down](std::string const& topic, unsigned char const* data,
                                                            std::size_t length) {
        if (topic != down || m_silent) return;
        // A link the server closed (a peer's frame beyond the bound) is replaced, so the device
        // stays reachable.
        if (!m_link || !m_link->isOpen()) openLink();
        m_link->deliver(data, length);
    }));
}

void MqttPanel::openLink()
{
    m_link = std::make_shared<MqttLink>(*m_client, m_topics.up(m_address), m_topics.down(m_address));
    m_server.serveLink(m_link);
}

void MqttPanel::start()
{
    openLink();
    m_client->start();
}

void MqttPanel::stop()
{
    m_client->stop();
}

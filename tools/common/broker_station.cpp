#include "broker_station.h"

#include <cstdio>

struct BrokerStation::Peer
{
    unsigned int address = 0;
    std::unique_ptr<nk_protocol> engine;
    std::shared_ptr<MqttLink> link;
    std::unique_ptr<EngineBinding> binding;
    unsigned int outstanding = 0;
};

struct BrokerStation::Pending
{
    BrokerStation* station = nullptr;
    Peer* peer = nullptr;
    ResponseHandler handler;
};

BrokerStation::BrokerStation(asio::io_context& io, Options options)
    : m_io(io),
      m_options(std::move(options)),
      // Engines with requests outstanding are polled for their time-outs; the others only
      // when bytes arrive, so a large idle fleet costs nothing here.
      m_timer(io, std::chrono::milliseconds(100), [this] { pollActive(); })
{
    MqttClient::Options client;
    client.host = m_options.broker.host;
    client.port = m_options.broker.port;
    client.clientId = m_options.clientId;
    client.tls = m_options.tls;
    const std::string share = m_options.sharedGroup.empty() ? "" : "$share/" + m_options.sharedGroup + "/";
    client.subscriptions.push_back(share + m_options.topics.allUp());
    // Presence is retained and every worker needs its panels' flags: not shared.
    client.subscriptions.push_back(m_options.topics.allOnline());
    m_client.reset(new MqttClient(
        io, client,
        [this](std::string const& topic, unsigned char const* data, std::size_t length) { received(topic, data, length); },
        [this](bool connected, std::string const& reason) {
            if (m_onConnection) m_onConnection(connected, reason);
        }));
}

BrokerStation::~BrokerStation()
{
    m_timer.stop();
    m_peers.clear();
}

void BrokerStation::start()
{
    m_client->start();
}

void BrokerStation::stop()
{
    m_timer.stop();
    m_client->stop();
}

BrokerStation::Peer& BrokerStation::peer(unsigned int address)
{
    std::unique_ptr<Peer>& slot = m_peers[address];
    if (slot && slot->link->isOpen()) return *slot;
    if (!slot) {
        slot.reset(new Peer);
        slot->address = address;
        slot->engine.reset(new nk_protocol(m_options.ownAddress, nullptr, nullptr, 10, nullptr,
                                           const_cast<char*>("nkstation engine"),
                                           m_options.verbose ? &EngineBinding::logToStderr : nullptr));
    }
    // A new link, or one in place of a link its frame gate closed (a panel's endless frame):
    // the gate never passed those bytes on, so the engine and its outstanding requests stay.
    slot->link = std::make_shared<MqttLink>(*m_client, m_options.topics.down(address), m_options.topics.up(address));
    slot->binding.reset(new EngineBinding(slot->link, *slot->engine));
    slot->binding->start([](std::string const&) {});
    return *slot;
}

void BrokerStation::received(std::string const& topic, unsigned char const* data, std::size_t length)
{
    unsigned int address = 0;
    switch (m_options.topics.parse(topic, address)) {
    case FleetTopics::UP:
        peer(address).link->deliver(data, length);
        return;
    case FleetTopics::ONLINE:
        if (m_onPresence) m_onPresence(address, length == 1 && data[0] == '1');
        return;
    default:
        ++m_stray;
        return;
    }
}

bool BrokerStation::request(unsigned int address, nk_message& message, unsigned int timeout_s, ResponseHandler handler)
{
    nk_serializer bytes;
    if (!message.serializeMsg(&bytes)) return false;
    Peer& target = peer(address);
    auto* pending = new Pending{this, &target, std::move(handler)};
    ++target.outstanding;
    tBlob content(bytes);
    target.engine->enqueue_TS(&content, address, &BrokerStation::onResponse, timeout_s, pending);
    target.binding->poll();
    return true;
}

void BrokerStation::onResponse(unsigned int address, tBlob* content, void*, bool timedOut, void* userData)
{
    std::unique_ptr<Pending> pending(static_cast<Pending*>(userData));
    --pending->peer->outstanding;
    if (timedOut) {
        pending->handler(nullptr, "no answer");
        return;
    }
    if (address != pending->peer->address) {
        ++pending->station->m_stray;
        pending->handler(nullptr, "answer from address " + std::to_string(address) + " on the topic of " +
                                      std::to_string(pending->peer->address));
        return;
    }
    pending->handler(content, std::string());
}

void BrokerStation::pollActive()
{
    for (auto& entry : m_peers)
        if (entry.second->outstanding > 0 || entry.second->engine->queuedTelegrams_TS() > 0) entry.second->binding->poll();
}

#include "mqtt_link.h"

#include <cstring>

MqttLink::MqttLink(MqttClient& client, std::string publishTopic, std::string name)
    : Link(std::move(name)), m_client(client), m_topic(std::move(publishTopic))
{
}

void MqttLink::deliver(unsigned char const* data, std::size_t length)
{
    if (!isOpen() || length == 0) return;
    if (m_reading) {
        auto keep = shared_from_this();
        received(data, length);
        return;
    }
    // Bounded like a socket's receive side: a link never started is closed, not grown.
    if (m_inbox.size() + length > kMaxQueuedBytes) {
        close("more than " + std::to_string(kMaxQueuedBytes) + " bytes received and not read");
        return;
    }
    m_inbox.insert(m_inbox.end(), data, data + length);
}

void MqttLink::beginReading()
{
    m_reading = true;
    if (m_inbox.empty()) return;
    std::vector<unsigned char> early;
    early.swap(m_inbox);
    auto keep = shared_from_this();
    received(early.data(), early.size());
}

void MqttLink::asyncReadSome(asio::mutable_buffer, ReadDone done)
{
    // Never called: beginReading() does not read from a stream.
    asio::post(m_client.io(), [done = std::move(done)] { done(asio::error::operation_not_supported, 0); });
}

void MqttLink::asyncWrite(asio::const_buffer buffer, ReadDone done)
{
    if (!m_client.publish(m_topic, static_cast<unsigned char const*>(buffer.data()), buffer.size(), 1, false))
        ++m_dropped;
    const std::size_t n = buffer.size();
    asio::post(m_client.io(), [done = std::move(done), n] { done(std::error_code(), n); });
}

void MqttLink::closeStream()
{
    m_reading = false;
    m_inbox.clear();
    m_inbox.shrink_to_fit();
}

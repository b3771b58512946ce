#include "mqtt_link.h"

#include <cstring>

MqttLink::MqttLink(MqttClient& client, std::string publishTopic, std::string name)
    : Link(std::move(name)), m_client(client), m_topic(std::move(publishTopic))
{
}

void MqttLink::deliver(unsigned char const* data, std::size_t length)
{
    if (!isOpen() || length == 0) return;
    // Bounded like a socket's receive side: a reader that stopped is closed, not grown.
    if (m_inbox.size() + length > kMaxQueuedBytes) {
        close("more than " + std::to_string(kMaxQueuedBytes) + " bytes received and not read");
        return;
    }
    m_inbox.insert(m_inbox.end(), data, data + length);
    if (m_readDone) completeRead();
}

void MqttLink::asyncReadSome(asio::mutable_buffer buffer, ReadDone done)
{
    m_readBuffer = buffer;
    m_readDone = std::move(done);
    if (!m_inbox.empty()) asio::post(m_client.io(), [this, keep = shared_from_this()] {
        if (m_readDone && !m_inbox.empty()) completeRead();
    });
}

void MqttLink::completeRead()
{
    const std::size_t n = std::min(m_readBuffer.size(), m_inbox.size());
    std::memcpy(m_readBuffer.data(), m_inbox.data(), n);
    m_inbox.erase(m_inbox.begin(), m_inbox.begin() + static_cast<std::ptrdiff_t>(n));
    ReadDone done = std::move(m_readDone);
    m_readDone = nullptr;
    done(std::error_code(), n);
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
    // The pending read holds the link itself; dropping it ends that cycle.
    m_readDone = nullptr;
    m_inbox.clear();
}

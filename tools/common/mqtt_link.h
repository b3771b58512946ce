#ifndef NK_TOOLS_MQTT_LINK_H
#define NK_TOOLS_MQTT_LINK_H

#include <string>
#include <vector>

#include "link.h"
#include "mqtt_client.h"

// A link to one peer over a broker: what the engine writes is published on one topic (QoS 1),
// and the bytes of the peer's messages, which the owner of the client routes here with
// deliver(), are read as if they came from a socket. The payloads are the byte stream the engine
// would have written to a socket; a frame gate on the receiving side finds the frames in them.
class MqttLink : public Link
{
public:
    MqttLink(MqttClient& client, std::string publishTopic, std::string name);

    // Bytes from the peer, in the order of its messages.
    void deliver(unsigned char const* data, std::size_t length);
    // Messages the client refused (a stopped client): the engine's time-outs and retries
    // cover them as they cover a lost packet.
    std::uint64_t droppedMessages() const { return m_dropped; }
    bool canPauseReading() const override { return false; }

protected:
    // A message's bytes go to the receive handler as they are delivered: a fleet of links
    // keeps no read buffer per link (bytes delivered before start() wait in a small inbox).
    void beginReading() override;
    void asyncReadSome(asio::mutable_buffer buffer, ReadDone done) override;
    void asyncWrite(asio::const_buffer buffer, ReadDone done) override;
    void closeStream() override;

private:
    MqttClient& m_client;
    std::string m_topic;
    std::vector<unsigned char> m_inbox;
    bool m_reading = false;
    std::uint64_t m_dropped = 0;
};

#endif

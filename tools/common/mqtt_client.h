#ifndef NK_TOOLS_MQTT_CLIENT_H
#define NK_TOOLS_MQTT_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <asio.hpp>

#include "tls_files.h"

struct mosquitto;
struct mosquitto_message;

// One MQTT connection (libmosquitto) driven by the io_context of the polling thread: asio waits
// on the client's socket and calls mosquitto_loop_read / loop_write when it is ready, and a timer
// calls loop_misc for keep-alive and retries. Nothing blocks, so one thread serves thousands of
// connections. A lost connection is re-established with exponential back-off (with jitter, so a
// fleet that lost its broker does not return in one wave); the session is kept (clean session
// off), so QoS 1 messages published while away are delivered after the return.
class MqttClient
{
public:
    struct Options
    {
        std::string host = "127.0.0.1";
        unsigned short port = 1883;
        std::string clientId;
        unsigned int keepalive_s = 30;
        // Subscribed with QoS 1 on every connect.
        std::vector<std::string> subscriptions;
        // When set: the last will publishes "0" there (retained), and every connect publishes "1".
        std::string presenceTopic;
        std::chrono::milliseconds backoffMin{250};
        std::chrono::milliseconds backoffMax{15000};
        unsigned int maxInflight = 100;
        // TLS 1.3 with this client certificate; the broker's certificate must chain to tls.ca
        // and name the host connected to.
        TlsFiles tls;
    };
    using MessageHandler = std::function<void(std::string const& topic, unsigned char const* data, std::size_t length)>;
    // connected is true after the broker accepted the connection, false when it was lost;
    // reason says why (empty on a connect).
    using StateHandler = std::function<void(bool connected, std::string const& reason)>;
    // An attempt to connect that failed (a refused certificate, a broker that is down). Called
    // for the first failure and whenever the reason changes, not for every retry.
    using FailureHandler = std::function<void(std::string const& reason)>;

    MqttClient(asio::io_context& io, Options options, MessageHandler onMessage, StateHandler onState = nullptr);
    ~MqttClient();
    MqttClient(MqttClient const&) = delete;
    MqttClient& operator=(MqttClient const&) = delete;

    void onFailure(FailureHandler handler) { m_onFailure = std::move(handler); }
    // Starts connecting; failures are retried, never thrown.
    void start();
    // QoS 0 or 1. A QoS 1 message published while the connection is down is kept by the client
    // and sent after the return. False only when the client refuses it (too large, stopped).
    bool publish(std::string const& topic, unsigned char const* data, std::size_t length, int qos, bool retain);
    // Publishes "0" on the presence topic and disconnects cleanly; no reconnect follows.
    void stop();

    bool connected() const { return m_connected; }
    asio::io_context& io() { return m_io; }
    std::string const& clientId() const { return m_options.clientId; }
    std::uint64_t messagesReceived() const { return m_received; }
    std::uint64_t messagesPublished() const { return m_published; }
    unsigned int connects() const { return m_connects; }

private:
    static void onConnect(mosquitto*, void* self, int rc);
    static void onDisconnect(mosquitto*, void* self, int rc);
    static void onMessage(mosquitto*, void* self, mosquitto_message const* message);
    static void onLog(mosquitto*, void* self, int level, char const* text);

    void watchSocket();
    void waitRead();
    void waitWrite();
    void readable();
    void writable();
    void tick();
    void armTick();
    // Called after every library call: notices a socket the library closed.
    bool checkSocket(int rc, char const* what);
    // True while the socket, or the TLS layer above it, holds bytes not yet read.
    bool moreToRead() const;
    void attemptFailed(std::string const& reason);
    // hint: what the failure of an attempt probably means, when the library does not say.
    void lost(std::string const& reason, std::string const& hint = std::string());
    std::string tlsDisagreement(int rc) const;
    void scheduleReconnect();

    asio::io_context& m_io;
    Options m_options;
    MessageHandler m_onMessage;
    StateHandler m_onState;
    FailureHandler m_onFailure;
    std::string m_lastFailure;
    // The library's last error message (the TLS layer's reason, which its return codes omit).
    std::string m_lastLibraryError;
    mosquitto* m_mosq = nullptr;
    std::optional<asio::posix::stream_descriptor> m_socket;
    int m_fd = -1;
    unsigned long long m_generation = 0;
    bool m_writeWaiting = false;
    bool m_connected = false;
    bool m_stopped = false;
    bool m_reconnectPending = false;
    asio::steady_timer m_tickTimer;
    asio::steady_timer m_reconnectTimer;
    std::chrono::milliseconds m_backoff;
    std::minstd_rand m_random;
    std::uint64_t m_received = 0;
    std::uint64_t m_published = 0;
    unsigned int m_connects = 0;
};

#endif

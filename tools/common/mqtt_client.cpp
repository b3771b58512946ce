#include "mqtt_client.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>

#include <mosquitto.h>
#include <openssl/ssl.h>

#include "tool_error.h"

namespace
{
void initialiseLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

}

// loop_read takes one packet at a time, and asio reports readiness only on a change, so the
// rest is read before waiting again. Over TLS the rest may already sit decrypted in the TLS
// layer, where the socket's readiness does not show it.
bool MqttClient::moreToRead() const
{
    auto* ssl = static_cast<SSL*>(mosquitto_ssl_get(m_mosq));
    if (ssl && SSL_pending(ssl) > 0) return true;
    pollfd p{m_fd, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & POLLIN);
}

MqttClient::MqttClient(asio::io_context& io, Options options, MessageHandler onMessage, StateHandler onState)
    : m_io(io),
      m_options(std::move(options)),
      m_onMessage(std::move(onMessage)),
      m_onState(std::move(onState)),
      m_tickTimer(io),
      m_reconnectTimer(io),
      m_backoff(m_options.backoffMin),
      m_random(static_cast<unsigned int>(std::hash<std::string>()(m_options.clientId)))
{
    initialiseLibrary();
    m_mosq = mosquitto_new(m_options.clientId.empty() ? nullptr : m_options.clientId.c_str(),
                           m_options.clientId.empty(), this);
    if (!m_mosq) throw std::bad_alloc();
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_max_inflight_messages_set(m_mosq, m_options.maxInflight);
    mosquitto_connect_callback_set(m_mosq, &MqttClient::onConnect);
    mosquitto_disconnect_callback_set(m_mosq, &MqttClient::onDisconnect);
    mosquitto_message_callback_set(m_mosq, &MqttClient::onMessage);
    mosquitto_log_callback_set(m_mosq, &MqttClient::onLog);
    if (m_options.tls.enabled()) {
        TlsFiles const& tls = m_options.tls;
        if (mosquitto_tls_set(m_mosq, tls.ca.c_str(), nullptr, tls.cert.c_str(), tls.key.c_str(), nullptr) !=
            MOSQ_ERR_SUCCESS) {
            mosquitto_destroy(m_mosq);
            throw ToolError("cannot use the TLS files " + tls.cert + ", " + tls.key + " and " + tls.ca, EXIT_INPUT);
        }
        // SSL_VERIFY_PEER: the broker's certificate is checked against the CA and the host name.
        mosquitto_tls_opts_set(m_mosq, 1, "tlsv1.3", nullptr);
    }
    if (!m_options.presenceTopic.empty())
        mosquitto_will_set(m_mosq, m_options.presenceTopic.c_str(), 1, "0", 1, true);
}

MqttClient::~MqttClient()
{
    m_stopped = true;
    m_tickTimer.cancel();
    m_reconnectTimer.cancel();
    if (m_socket) m_socket->release();
    m_socket.reset();
    mosquitto_destroy(m_mosq);
}

void MqttClient::start()
{
    int rc = mosquitto_connect_async(m_mosq, m_options.host.c_str(), m_options.port,
                                     static_cast<int>(m_options.keepalive_s));
    armTick();
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_socket(m_mosq) >= 0) {
        watchSocket();
        return;
    }
    lost(rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : mosquitto_strerror(rc));
}

void MqttClient::watchSocket()
{
    m_fd = mosquitto_socket(m_mosq);
    m_socket.emplace(m_io, m_fd);
    ++m_generation;
    m_writeWaiting = false;
    waitRead();
    // The connect packet waits for the connection to complete.
    waitWrite();
}

void MqttClient::waitRead()
{
    const unsigned long long generation = m_generation;
    m_socket->async_wait(asio::posix::stream_descriptor::wait_read, [this, generation](std::error_code ec) {
        if (ec || generation != m_generation || m_stopped) return;
        readable();
    });
}

void MqttClient::waitWrite()
{
    if (m_writeWaiting || !m_socket) return;
    m_writeWaiting = true;
    const unsigned long long generation = m_generation;
    m_socket->async_wait(asio::posix::stream_descriptor::wait_write, [this, generation](std::error_code ec) {
        if (generation != m_generation || m_stopped) return;
        m_writeWaiting = false;
        if (ec) return;
        writable();
    });
}

void MqttClient::readable()
{
    // A bounded number of packets per turn, so one busy connection does not starve the others.
    for (int i = 0; i < 256; ++i) {
        const int rc = mosquitto_loop_read(m_mosq, 1);
        if (!checkSocket(rc, "read")) return;
        if (!moreToRead()) break;
    }
    if (mosquitto_want_write(m_mosq)) waitWrite();
    waitRead();
}

void MqttClient::writable()
{
    const int rc = mosquitto_loop_write(m_mosq, 1);
    if (!checkSocket(rc, "write")) return;
    if (mosquitto_want_write(m_mosq)) waitWrite();
}

void MqttClient::armTick()
{
    m_tickTimer.expires_after(std::chrono::seconds(1));
    m_tickTimer.async_wait([this](std::error_code ec) {
        if (ec || m_stopped) return;
        tick();
        armTick();
    });
}

void MqttClient::tick()
{
    if (!m_socket) return;
    const int rc = mosquitto_loop_misc(m_mosq);
    if (!checkSocket(rc, "keep-alive")) return;
    if (mosquitto_want_write(m_mosq)) waitWrite();
}

bool MqttClient::checkSocket(int rc, char const* what)
{
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_socket(m_mosq) == m_fd) return true;
    std::string reason = std::string(what) + ": ";
    if (rc == MOSQ_ERR_ERRNO) reason += std::strerror(errno);
    else if (rc == MOSQ_ERR_SUCCESS) reason += "connection closed";
    else reason += mosquitto_strerror(rc);
    lost(reason, !m_connected ? tlsDisagreement(rc) : std::string());
    return false;
}

// A broker and a client that disagree on TLS part without a word: a TLS listener resets a plain
// client's connection before any answer, and a plain one closes a TLS client's connection in
// the handshake. Neither says why, so the likely cause is named here.
std::string MqttClient::tlsDisagreement(int rc) const
{
    if (!m_options.tls.enabled() && rc == MOSQ_ERR_CONN_LOST)
        return "The broker closed the connection before accepting it, as a broker that takes TLS only does with a "
               "plain client: use an mqtts:// URL and the TLS options";
    if (m_options.tls.enabled() && rc == MOSQ_ERR_TLS && m_lastLibraryError.find("unexpected eof") != std::string::npos)
        return "The broker closed the connection in the TLS handshake, as a plain broker does with a TLS client: use an "
               "mqtt:// URL without the TLS options";
    return std::string();
}

void MqttClient::attemptFailed(std::string const& reason)
{
    if (reason == m_lastFailure) return;
    m_lastFailure = reason;
    if (m_onFailure) m_onFailure(reason);
}

void MqttClient::lost(std::string const& reason, std::string const& hint)
{
    // The library has closed the socket already; the descriptor only leaves asio's reactor.
    if (m_socket) m_socket->release();
    m_socket.reset();
    m_fd = -1;
    ++m_generation;
    m_writeWaiting = false;
    const bool wasConnected = m_connected;
    m_connected = false;
    if (wasConnected && m_onState) m_onState(false, reason);
    if (!wasConnected && !m_stopped) {
        std::string detail = m_lastLibraryError.empty() ? reason : reason + " (" + m_lastLibraryError + ")";
        if (!hint.empty()) detail += (detail.back() == '.' ? " " : ". ") + hint;
        attemptFailed(detail);
    }
    m_lastLibraryError.clear();
    if (!m_stopped) scheduleReconnect();
}

void MqttClient::scheduleReconnect()
{
    if (m_reconnectPending) return;
    m_reconnectPending = true;
    // Between half and all of the current back-off, which doubles up to its bound.
    std::uniform_int_distribution<long long> spread(m_backoff.count() / 2, m_backoff.count());
    const std::chrono::milliseconds delay(spread(m_random));
    m_backoff = std::min(m_backoff * 2, m_options.backoffMax);
    m_reconnectTimer.expires_after(delay);
    m_reconnectTimer.async_wait([this](std::error_code ec) {
        m_reconnectPending = false;
        if (ec || m_stopped) return;
        const int rc = mosquitto_reconnect_async(m_mosq);
        if (rc == MOSQ_ERR_SUCCESS && mosquitto_socket(m_mosq) >= 0) {
            watchSocket();
            return;
        }
        lost(rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : mosquitto_strerror(rc));
    });
}

bool MqttClient::publish(std::string const& topic, unsigned char const* data, std::size_t length, int qos,
                         bool retain)
{
    if (m_stopped || length > 256u * 1024 * 1024) return false;
    const int rc = mosquitto_publish(m_mosq, nullptr, topic.c_str(), static_cast<int>(length), data, qos, retain);
    if (rc == MOSQ_ERR_SUCCESS) {
        ++m_published;
        if (m_socket && mosquitto_want_write(m_mosq)) waitWrite();
        return true;
    }
    // A write that failed has closed the connection; the reconnect follows from here. A QoS 1
    // message is still held by the library and goes out after the return.
    if (m_socket && mosquitto_socket(m_mosq) != m_fd) {
        lost(std::string("publish: ") + mosquitto_strerror(rc));
        if (qos > 0) {
            ++m_published;
            return true;
        }
    }
    return false;
}

void MqttClient::stop()
{
    if (m_stopped) return;
    if (m_connected && !m_options.presenceTopic.empty())
        mosquitto_publish(m_mosq, nullptr, m_options.presenceTopic.c_str(), 1, "0", 1, true);
    m_stopped = true;
    if (m_connected) mosquitto_disconnect(m_mosq);
    m_connected = false;
    m_tickTimer.cancel();
    m_reconnectTimer.cancel();
    if (m_socket) m_socket->release();
    m_socket.reset();
    m_fd = -1;
    ++m_generation;
}

void MqttClient::onConnect(mosquitto* mosq, void* context, int rc)
{
    auto* self = static_cast<MqttClient*>(context);
    if (rc != 0) {
        // The broker refused (bad credentials, identifier rejected): the library closes the
        // socket and checkSocket then retries with back-off.
        self->m_lastLibraryError = std::string("broker refused: ") + mosquitto_connack_string(rc);
        return;
    }
    self->m_backoff = self->m_options.backoffMin;
    self->m_lastFailure.clear();
    ++self->m_connects;
    for (std::string const& topic : self->m_options.subscriptions) mosquitto_subscribe(mosq, nullptr, topic.c_str(), 1);
    if (!self->m_options.presenceTopic.empty())
        mosquitto_publish(mosq, nullptr, self->m_options.presenceTopic.c_str(), 1, "1", 1, true);
    self->m_connected = true;
    if (self->m_onState) self->m_onState(true, std::string());
}

void MqttClient::onDisconnect(mosquitto*, void*, int)
{
    // Handled where the library call that closed the socket returns (checkSocket).
}

void MqttClient::onMessage(mosquitto*, void* context, mosquitto_message const* message)
{
    auto* self = static_cast<MqttClient*>(context);
    ++self->m_received;
    if (self->m_onMessage && message->topic)
        self->m_onMessage(message->topic, static_cast<unsigned char const*>(message->payload),
                          static_cast<std::size_t>(message->payloadlen > 0 ? message->payloadlen : 0));
}

void MqttClient::onLog(mosquitto*, void* context, int level, char const* text)
{
    // The TLS layer's reasons ("certificate verify failed") come only as error log lines.
    if (level != MOSQ_LOG_ERR || !text) return;
    // "OpenSSL Error[0]: error:0A000415:SSL routines::sslv3 alert certificate expired": the words
    // after the last "::" say it.
    std::string line = text;
    const std::size_t words = line.rfind("::");
    static_cast<MqttClient*>(context)->m_lastLibraryError = words == std::string::npos ? line : line.substr(words + 2);
}

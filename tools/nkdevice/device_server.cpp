#include "device_server.h"

#include <chrono>
#include <cstdio>

#include "output.h"
#include "serial.h"
#include "tool_error.h"

namespace
{
long long nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}

struct DeviceServer::Connection
{
    DeviceServer* server = nullptr;
    unsigned long long id = 0;
    std::string peer;
    std::unique_ptr<nk_protocol> engine;
    std::unique_ptr<EngineBinding> binding;
    bool serial = false;
};

DeviceServer::DeviceServer(asio::io_context& io, Device& device, Options const& options)
    : m_io(io),
      m_device(device),
      m_options(options),
      m_timer(io, std::chrono::milliseconds(options.pollPeriod_ms), [this] { tick(); })
{
}

DeviceServer::~DeviceServer()
{
    m_timer.stop();
    if (m_listener) m_listener->close();
    m_connections.clear();
}

Endpoint DeviceServer::listen(Endpoint const& ep)
{
    m_listener.reset(new TcpListener(m_io, ep, [this](std::shared_ptr<Link> link) { addConnection(link); }));
    return m_listener->localEndpoint();
}

void DeviceServer::openSerial(std::string const& path, unsigned int baud)
{
    m_serialPath = path;
    m_serialBaud = baud;
    addConnection(::openSerial(m_io, path, baud));
    m_connections.back()->serial = true;
}

void DeviceServer::addConnection(std::shared_ptr<Link> link)
{
    std::unique_ptr<Connection> connection(new Connection);
    Connection* raw = connection.get();
    raw->server = this;
    raw->id = ++m_lastConnectionId;
    raw->peer = link->name();
    raw->engine.reset(new nk_protocol(m_device.address(), &DeviceServer::onRequest, raw, 10, nullptr,
                                      const_cast<char*>("nkdevice engine"),
                                      m_options.verbose ? &EngineBinding::logToStderr : nullptr));
    raw->binding.reset(new EngineBinding(link, *raw->engine));
    m_connections.push_back(std::move(connection));
    if (m_options.verbose) logLine("info", "nkdevice", "connection from " + raw->peer);
    const unsigned long long id = raw->id;
    raw->binding->start([this, id](std::string const& reason) {
        // Not from inside the link's own handler: the connection owns the link's binding.
        asio::post(m_io, [this, id, reason] { dropConnection(id, reason); });
    });
}

void DeviceServer::dropConnection(unsigned long long id, std::string const& reason)
{
    for (auto it = m_connections.begin(); it != m_connections.end(); ++it) {
        Connection* connection = it->get();
        if (connection->id != id) continue;
        if (m_options.verbose)
            logLine("info", "nkdevice", connection->peer + ": " + reason);
        if (connection->serial && m_stopDeadline_ms < 0) m_reopenAt_ms = nowMs() + 1000;
        m_connections.erase(it);
        return;
    }
}

void DeviceServer::onRequest(unsigned int source, tBlob* content, void* context)
{
    auto* connection = static_cast<Connection*>(context);
    connection->server->m_device.handle(source, content, connection->peer);
    if (connection->server->m_device.shutdownRequested()) connection->server->stop();
}

void DeviceServer::stop()
{
    if (m_stopDeadline_ms >= 0) return;
    m_stopDeadline_ms = nowMs() + 2000;
    if (m_listener) m_listener->close();
}

bool DeviceServer::allFlushed() const
{
    for (auto const& connection : m_connections)
        if (connection->engine->queuedTelegrams_TS() > 0 ||
            (connection->binding->link().isOpen() && connection->binding->link().unsentBytes() > 0))
            return false;
    return true;
}

void DeviceServer::tick()
{
    for (auto const& connection : m_connections) connection->binding->poll();
    if (m_device.logChanged() &&
        (m_stopDeadline_ms >= 0 || nowMs() - m_logFlushedAt_ms >= static_cast<long long>(m_options.logFlushPeriod_ms))) {
        m_device.flushLog();
        m_logFlushedAt_ms = nowMs();
    }
    if (m_stopDeadline_ms >= 0) {
        if (allFlushed() || nowMs() > m_stopDeadline_ms) {
            m_timer.stop();
            m_connections.clear();
            m_io.stop();
        }
        return;
    }
    if (m_reopenAt_ms >= 0 && nowMs() >= m_reopenAt_ms) {
        m_reopenAt_ms = -1;
        try {
            openSerial(m_serialPath, m_serialBaud);
        } catch (ToolError const& e) {
            logLine("warning", "nkdevice", e.what());
            m_reopenAt_ms = nowMs() + 1000;
        }
    }
}

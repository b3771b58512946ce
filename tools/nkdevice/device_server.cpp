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
    // Before the binding, whose frame filter it is: the binding goes first.
    std::unique_ptr<ImageStreamReceiver> images;
    std::unique_ptr<EngineBinding> binding;
    bool serial = false;
};

struct DeviceServer::QueuedJob
{
    std::unique_ptr<DeviceJob> job;
    unsigned long long connection = 0;
    unsigned int destination = 0;
    unsigned int telegramId = 0;
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
    // A job's work still running is waited for; its answer is not sent.
    m_worker.join();
    m_timer.stop();
    if (m_listener) m_listener->close();
    m_connections.clear();
    // Images still arriving were abandoned with their connections: their files go.
    m_imageWriter.join();
}

Endpoint DeviceServer::listen(Endpoint const& ep, std::shared_ptr<asio::ssl::context> tls)
{
    m_listener.reset(new TcpListener(
        m_io, ep, [this](std::shared_ptr<Link> link) { addConnection(link); }, std::move(tls),
        [](std::string const& line) { logLine("warning", "nkdevice", line); }));
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
    if (link->canPauseReading()) {
        ImageStreamReceiver::Host host;
        host.store = &m_device.store();
        host.io = &m_io;
        host.writer = &m_imageWriter;
        host.link = link;
        host.engine = raw->engine.get();
        host.maxTelegramBytes = EngineBinding::kMaxOpenBytes;
        host.onComplete = [this, raw](StreamedImageRequest request) {
            const unsigned int source = request.source, telegramId = request.telegramId;
            std::unique_ptr<DeviceJob> job = m_device.beginStreamedImage(std::move(request), raw->peer);
            if (job) queueJob(std::move(job), *raw, source, telegramId);
        };
        raw->images.reset(new ImageStreamReceiver(std::move(host)));
        ImageStreamReceiver* images = raw->images.get();
        raw->binding->setFrameFilter([images](tBlob& frame) { return images->offer(frame); });
    }
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
        // A peer on the wrong protocol (TLS on a plain port) is worth a word even when quiet.
        if (connection->binding->link().refused())
            logLine("warning", "nkdevice", "refused the connection from " + connection->peer + ": " + reason);
        else if (m_options.verbose)
            logLine("info", "nkdevice", connection->peer + ": " + reason);
        if (connection->serial && m_stopDeadline_ms < 0) m_reopenAt_ms = nowMs() + 1000;
        m_connections.erase(it);
        return;
    }
}

void DeviceServer::onRequest(unsigned int source, tBlob* content, void* context)
{
    auto* connection = static_cast<Connection*>(context);
    DeviceServer* server = connection->server;
    std::unique_ptr<DeviceJob> job = server->m_device.begin(source, content, connection->peer);
    if (job) server->queueJob(std::move(job), *connection);
    if (server->m_device.shutdownRequested()) server->stop();
}

DeviceServer::Connection* DeviceServer::findConnection(unsigned long long id)
{
    for (auto const& connection : m_connections)
        if (connection->id == id) return connection.get();
    return nullptr;
}

void DeviceServer::queueJob(std::unique_ptr<DeviceJob> job, Connection& connection)
{
    unsigned int telegramId = 0, destination = 0;
    if (!connection.binding->currentTelegram(telegramId, destination)) {
        // Without the request's id an answer given later could not be matched: do it now.
        tBlob answer;
        job->start(m_device);
        job->work();
        job->finish(m_device, answer);
        m_device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_NOTICE,
                             tString(job->what() + " handled on the link's thread: its frame could not be read again"));
        return;
    }
    queueJob(std::move(job), connection, destination, telegramId);
}

void DeviceServer::queueJob(std::unique_ptr<DeviceJob> job, Connection& connection, unsigned int destination,
                            unsigned int telegramId)
{
    std::shared_ptr<QueuedJob> queued(new QueuedJob);
    queued->telegramId = telegramId;
    queued->destination = destination;
    queued->job = std::move(job);
    queued->connection = connection.id;
    m_jobs.push_back(queued);
    if (!m_jobRunning) startNextJob();
}

void DeviceServer::startNextJob()
{
    while (!m_jobs.empty()) {
        std::shared_ptr<QueuedJob> queued = m_jobs.front();
        if (!findConnection(queued->connection)) {
            m_device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_NOTICE,
                                 tString(queued->job->what() + " dropped: its station has gone"));
            m_jobs.pop_front();
            continue;
        }
        m_jobRunning = true;
        queued->job->start(m_device);
        asio::post(m_worker, [this, queued] {
            queued->job->work();
            asio::post(m_io, [this] { finishJob(); });
        });
        return;
    }
}

void DeviceServer::finishJob()
{
    std::shared_ptr<QueuedJob> queued = m_jobs.front();
    m_jobs.pop_front();
    m_jobRunning = false;
    Connection* connection = findConnection(queued->connection);
    if (!connection && !queued->job->keptWhenAbandoned()) {
        // Not put in force: the station that asked cannot learn of it, and will ask again.
        m_device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_NOTICE,
                             tString(queued->job->what() + " dropped: its station has gone"));
    } else {
        tBlob answer;
        queued->job->finish(m_device, answer);
        if (connection && !answer.isEmpty())
            connection->binding->respond(answer, queued->destination, queued->telegramId);
    }
    startNextJob();
}

void DeviceServer::stop()
{
    if (m_stopDeadline_ms >= 0) return;
    m_stopDeadline_ms = nowMs() + 2000;
    if (m_listener) m_listener->close();
}

bool DeviceServer::allFlushed() const
{
    if (!m_jobs.empty()) return false;
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
            if (m_options.onStopped) m_options.onStopped();
            else m_io.stop();
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

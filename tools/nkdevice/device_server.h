#ifndef NK_TOOLS_DEVICE_SERVER_H
#define NK_TOOLS_DEVICE_SERVER_H

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <asio.hpp>

#include "device.h"
#include "engine_binding.h"
#include "image_stream.h"
#include "poll_timer.h"
#include "tcp_listener.h"

// Serves one device on its links: every TCP connection (or the serial port) gets its own
// protocol engine with the device's address, so stations never share a stream buffer; all
// engines and the device run on the one thread that runs the io_context. The heavy part of a
// schedule set or an image (DeviceJob::work) runs on a worker thread, one job at a time, and
// its answer is sent when it is done, so the other stations keep their answers meanwhile; a
// job whose station has gone is dropped.
class DeviceServer
{
public:
    struct Options
    {
        bool verbose = false;
        // Requests are answered as their bytes arrive; the timer only times out, reopens a
        // failed serial port and writes the event log and counters.
        unsigned int pollPeriod_ms = 250;
        unsigned int logFlushPeriod_ms = 1000;
        // Called once the server has stopped (after a SHUTDOWN or stop()) and written what it
        // had queued. Unset, the server stops the io_context: the process ends with its one
        // device. A process serving many devices ends only the one that stopped.
        std::function<void()> onStopped;
    };

    DeviceServer(asio::io_context& io, Device& device, Options const& options);
    ~DeviceServer();

    // Throws ToolError when the address cannot be bound; gives the bound address. With a TLS
    // context only stations whose certificate it verifies are served; every refused
    // connection is logged as a warning.
    Endpoint listen(Endpoint const& ep, std::shared_ptr<asio::ssl::context> tls = nullptr);
    // Throws ToolError when the port cannot be opened. A port that fails later is reopened.
    void openSerial(std::string const& path, unsigned int baud);
    // Serves one more link that the caller opened (a broker connection's topic pair).
    void serveLink(std::shared_ptr<Link> link) { addConnection(std::move(link)); }
    // Stops after the answers already queued are written (at most about two seconds).
    void stop();
    // True while a job's work runs on the worker thread; it cannot be interrupted, and its
    // result (never confirmed to the station) may be dropped by ending the process.
    bool workInProgress() const { return m_jobRunning; }

private:
    struct Connection;
    struct QueuedJob;
    Connection* findConnection(unsigned long long id);
    void queueJob(std::unique_ptr<DeviceJob> job, Connection& connection);
    // The answer goes to destination as that of telegramId.
    void queueJob(std::unique_ptr<DeviceJob> job, Connection& connection, unsigned int destination,
                  unsigned int telegramId);
    void startNextJob();
    void finishJob();
    void addConnection(std::shared_ptr<Link> link);
    void dropConnection(unsigned long long id, std::string const& reason);
    void tick();
    bool allFlushed() const;
    static void onRequest(unsigned int source, tBlob* content, void* context);

    asio::io_context& m_io;
    Device& m_device;
    Options m_options;
    std::unique_ptr<TcpListener> m_listener;
    std::list<std::unique_ptr<Connection>> m_connections;
    PollTimer m_timer;
    std::string m_serialPath;
    unsigned int m_serialBaud = 0;
    long long m_reopenAt_ms = -1;
    long long m_stopDeadline_ms = -1;
    long long m_logFlushedAt_ms = 0;
    unsigned long long m_lastConnectionId = 0;
    std::deque<std::shared_ptr<QueuedJob>> m_jobs;  // the front one runs
    bool m_jobRunning = false;
    asio::thread_pool m_worker{1};
    // Hashes and writes the pieces of images as they arrive (see ImageStreamReceiver); apart
    // from m_worker, whose image jobs wait for it.
    asio::thread_pool m_imageWriter{1};
};

#endif

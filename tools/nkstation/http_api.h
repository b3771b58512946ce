#ifndef NK_STATION_HTTP_API_H
#define NK_STATION_HTTP_API_H

#include <memory>
#include <string>
#include <thread>

#include <asio.hpp>

#include "change_log.h"
#include "endpoint.h"
#include "fleet_store.h"
#include "image_store.h"
#include "reconciler.h"

namespace httplib
{
class Server;
}

// The station's HTTP/JSON API. Requests are served on the HTTP library's threads, but every
// look at the fleet or the store runs on the polling thread (posted there and waited for), so
// the reconciler and the store have one thread only. Changes are checked in full before any is
// stored: a request is applied whole or refused with a 4xx that names the member.
class HttpApi
{
public:
    // linkStatus gives the members of the summary about the station's links ("broker", "dialOut").
    HttpApi(asio::io_context& io, FleetStore& store, ImageStore& images, Reconciler& reconciler, ChangeLog& changes,
            std::function<nlohmann::json()> linkStatus);
    ~HttpApi();

    // Serves the dashboard's static files from webRoot and the charting library from chartDir
    // (under /lib/chart.js/); throws ToolError when webRoot is not a directory.
    void serveFiles(std::string const& webRoot, std::string const& chartDir);

    // Binds (port 0 picks a free one) and serves on a thread of its own; throws ToolError.
    Endpoint listen(Endpoint const& ep);
    void stop();

private:
    void routes();

    asio::io_context& m_io;
    FleetStore& m_store;
    ImageStore& m_images;
    Reconciler& m_reconciler;
    ChangeLog& m_changes;
    std::function<nlohmann::json()> m_linkStatus;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
};

#endif

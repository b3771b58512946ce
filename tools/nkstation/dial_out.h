#ifndef NK_STATION_DIAL_OUT_H
#define NK_STATION_DIAL_OUT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <asio.hpp>
#include <asio/ssl/context.hpp>

#include "endpoint.h"
#include "link.h"
#include "nkProtocol.h"
#include "poll_timer.h"

// HOST:PORT of a panel to dial: a host and a port other than 0. Throws ToolError (usage)
// naming the text.
Endpoint dialEndpoint(std::string const& text);

// A panel as --panel or a line of --panels-file names it, ADDR@HOST:PORT. Throws ToolError
// (usage) naming the text.
struct DialTarget
{
    unsigned int address = 0;
    Endpoint ep;
};
DialTarget parseDialTarget(std::string const& text);

// The station's panels that it reaches by dialling out over TCP (or TLS) rather than through
// the broker: one connection and one protocol engine per panel, opened without blocking on the
// polling thread, kept open, and opened again with exponential back-off (with jitter) after it
// was lost or could not be made. A panel counts as up once its connection is made, and over TLS
// only when the panel's certificate chains to the CA and names the panel's address. When the
// connection ends, the requests still waiting for an answer fail at once with the reason.
class DialOut
{
public:
    struct Options
    {
        unsigned int ownAddress = 100;
        // TLS 1.3 with the station's certificate on every connection; null for plain TCP.
        std::shared_ptr<asio::ssl::context> tls;
        std::chrono::milliseconds connectTimeout{10000};
        std::chrono::milliseconds backoffMin{1000};
        std::chrono::milliseconds backoffMax{30000};
        bool verbose = false;
    };
    // The answer's content (null on failure) and why not, as BrokerStation gives it.
    using ResponseHandler = std::function<void(tBlob* content, std::string const& error)>;
    using UpHandler = std::function<void(unsigned int address)>;
    // The connection ended or could not be made. refused: the panel was reached but the two sides
    // do not agree (its certificate, TLS on one side only); otherwise it could not be reached.
    using DownHandler = std::function<void(unsigned int address, std::string const& reason, bool refused)>;

    DialOut(asio::io_context& io, Options options);
    ~DialOut();
    DialOut(DialOut const&) = delete;
    DialOut& operator=(DialOut const&) = delete;

    void onUp(UpHandler handler) { m_onUp = std::move(handler); }
    void onDown(DownHandler handler) { m_onDown = std::move(handler); }

    // Dials the panel with this address at ep from now on; another endpoint than before ends
    // the old connection first. remove() ends it and dials no more.
    void add(unsigned int address, Endpoint const& ep);
    void remove(unsigned int address);
    bool has(unsigned int address) const { return m_panels.count(address) > 0; }
    bool connected(unsigned int address) const;
    std::size_t panels() const { return m_panels.size(); }
    std::size_t connectedPanels() const;

    // Sends one request; handler runs once, later on the polling thread, with the answer, after
    // timeout_s, or when the connection is not (or no longer) there.
    void request(unsigned int address, nk_message& message, unsigned int timeout_s, ResponseHandler handler);

    void stop();

private:
    struct Panel;
    struct Pending;
    void dial(Panel& panel);
    void connected(Panel& panel, std::shared_ptr<Link> link);
    void failed(Panel& panel, std::string const& reason, bool refused);
    void lost(unsigned int address, unsigned long long generation, std::string const& reason);
    void retryLater(Panel& panel);
    // Ends the panel's connection and engine; gives the requests that still waited.
    std::vector<std::unique_ptr<Pending>> dropConnection(Panel& panel);
    static void settle(std::vector<std::unique_ptr<Pending>>& waiting, std::string const& reason);
    void pollActive();
    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData);

    asio::io_context& m_io;
    Options m_options;
    std::map<unsigned int, std::unique_ptr<Panel>> m_panels;
    UpHandler m_onUp;
    DownHandler m_onDown;
    PollTimer m_timer;
    std::minstd_rand m_random;
    bool m_stopped = false;
};

#endif

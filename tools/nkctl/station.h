#ifndef NK_TOOLS_STATION_H
#define NK_TOOLS_STATION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <asio.hpp>

#include "engine_binding.h"
#include "nkProtocol.h"
#include "poll_timer.h"
#include "tls_files.h"
#include "tool_error.h"

struct DeviceLocation;

// Opens a station's TLS links. Only programs built with TLS have one (tls_dialer.h): the plain
// nkctl hands every run with TLS options to nkctl-tls, so that a run without TLS never loads
// OpenSSL, whose start costs more than the rest of the program (tls_handoff.h).
class TlsDialer
{
public:
    virtual ~TlsDialer() = default;
    // A link to the devices at address (HOST:PORT) whose certificate names each device of
    // locations that is there. Throws ToolError (connect) naming the address and the cause.
    virtual std::shared_ptr<Link> connect(asio::io_context& io, std::string const& address,
                                          std::vector<DeviceLocation> const& locations, std::chrono::seconds timeout) = 0;
};
using TlsDialerFactory = std::unique_ptr<TlsDialer> (*)(TlsFiles const& files);

struct StationOptions
{
    // "[ADDR@]HOST:PORT" per device; without ADDR the device has deviceAddress. Several
    // devices at one HOST:PORT share one link and engine.
    std::vector<std::string> devices;
    std::string serialPath;                  // instead of devices
    std::vector<unsigned int> serialAddresses;  // the devices on the serial bus; empty: deviceAddress
    unsigned int baud = 115200;
    unsigned int deviceAddress = 1;
    unsigned int ownAddress = 100;
    unsigned int timeout_s = 10;
    bool verbose = false;
    // TCP devices over TLS: each device's certificate must chain to tls.ca and name its address.
    TlsFiles tls;
    // Makes the dialer of TLS links; null in a program built without TLS.
    TlsDialerFactory tlsDialer = nullptr;
};

// One device as the command line names it.
struct DeviceLocation
{
    std::string link;      // HOST:PORT or the serial path
    unsigned int address;  // protocol address on that link
    bool addressGiven;     // written as ADDR@...
    std::string name() const;
};

// Parses "[ADDR@]HOST:PORT"; throws ToolError (usage) naming the text.
DeviceLocation parseDeviceLocation(std::string const& text, unsigned int defaultAddress);

// The devices named by a file (one per line; blank lines and lines starting with '#' are
// skipped) or by an environment variable (separated by commas or white space).
std::vector<std::string> devicesFromFile(std::string const& path);
std::vector<std::string> devicesFromText(std::string const& text);

// The station side of nkctl: one link and one protocol engine per HOST:PORT (or serial
// port), all driven by one io_context on this thread. A request goes to every device at
// once; each answer (or time-out, or lost connection) is collected per device.
class Station
{
public:
    struct Reply
    {
        std::string target;
        std::unique_ptr<nk_message> message;
        std::string error;  // empty when message holds the answer
        ExitCode code = EXIT_OK;
    };

    explicit Station(StationOptions options);
    ~Station();
    Station(Station const&) = delete;
    Station& operator=(Station const&) = delete;

    // Opens every link. A device that cannot be reached fails alone: its replies carry the
    // cause and its exit status.
    void connect();
    // A request ready to send: the message's bytes (header and body) and what a long
    // transfer shows on a terminal.
    struct Outgoing
    {
        tBlob bytes;
        std::string what;              // the message's type name, for errors
        std::string progressLabel;     // empty: no progress shown
        std::uint64_t shownBytes = 0;  // the size the user knows (a file's), counted in the progress
    };
    // The most bytes one request may hold: the link's limit on unsent bytes, of which frames
    // carry seven bits per byte. A device refuses more, so more is not sent at all.
    static const std::uint64_t kMaxRequestBytes = Link::kMaxQueuedBytes / 8 * 7;

    // Sends msg to every device and waits for all answers. A device times out when its link
    // has made no progress (no byte written or read) for the time-out, so a long transfer
    // lasts as long as its bytes keep moving. A long transfer shows its progress on a
    // terminal under progressLabel. The bytes are written to each link directly, one device
    // after the other, and never copied into an output queue.
    std::vector<Reply> request(nk_message& msg, std::string const& progressLabel = std::string());
    std::vector<Reply> request(Outgoing outgoing);
    // The bytes of msg as a request; throws ToolError when it cannot be written.
    static Outgoing outgoing(nk_message& msg, std::string const& progressLabel = std::string());
    std::size_t targetCount() const { return m_targets.size(); }

private:
    struct Connection;
    struct Target
    {
        DeviceLocation location;
        Connection* connection = nullptr;
    };
    struct Pending;
    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData);
    void abandon();

    StationOptions m_options;
    asio::io_context m_io;
    std::vector<std::unique_ptr<Connection>> m_connections;
    std::vector<Target> m_targets;
    std::unique_ptr<PollTimer> m_timer;
};

// The message held in a received content, or null with the reason in error. Types that the
// library's factory does not build are refused here (the factory would print a diagnostic on
// standard output, which carries JSON).
std::unique_ptr<nk_message> decodeMessage(tBlob* content, std::string& error);

// Starts the process's telegram ids at a random number. Every run used to number its first
// request 1, so an answer to an earlier run still on its way over a shared line could be
// taken for the answer to this run's request.
void randomizeTelegramIds();

#endif

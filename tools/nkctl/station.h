#ifndef NK_TOOLS_STATION_H
#define NK_TOOLS_STATION_H

#include <memory>
#include <string>
#include <vector>

#include <asio.hpp>

#include "engine_binding.h"
#include "nkProtocol.h"
#include "poll_timer.h"

struct StationOptions
{
    std::vector<std::string> devices;  // HOST:PORT, one engine each
    std::string serialPath;            // instead of devices
    unsigned int baud = 115200;
    unsigned int deviceAddress = 1;
    unsigned int ownAddress = 100;
    unsigned int timeout_s = 10;
    bool verbose = false;
};

// The station side of nkctl: one link and one protocol engine per device, all driven by one
// io_context on this thread. A request goes to every device at once; each answer (or time-out,
// or lost connection) is collected per device.
class Station
{
public:
    struct Reply
    {
        std::string target;
        std::unique_ptr<nk_message> message;
        std::string error;  // empty when message holds the answer
    };

    explicit Station(StationOptions options);
    ~Station();
    Station(Station const&) = delete;
    Station& operator=(Station const&) = delete;

    // Opens every link; throws ToolError naming the address and the cause.
    void connect();
    // Sends msg to every device and waits for all answers. A long transfer shows its
    // progress on a terminal under progressLabel.
    std::vector<Reply> request(nk_message& msg, std::string const& progressLabel = std::string());
    std::size_t targetCount() const { return m_targets.size(); }

private:
    struct Target;
    struct Pending;
    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData);
    unsigned int timeoutFor(unsigned int bytes) const;

    StationOptions m_options;
    asio::io_context m_io;
    std::vector<std::unique_ptr<Target>> m_targets;
    std::unique_ptr<PollTimer> m_timer;
};

// The message held in a received content, or null with the reason in error. Types that the
// library's factory does not build are refused here (the factory would print a diagnostic on
// standard output, which carries JSON).
std::unique_ptr<nk_message> decodeMessage(tBlob* content, std::string& error);

#endif

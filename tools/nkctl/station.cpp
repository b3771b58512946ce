#include "station.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <random>
#include <sstream>

#include "output.h"
#include "serial.h"
#include "tcp.h"

namespace
{
using Clock = std::chrono::steady_clock;
const unsigned int kBroadcast = 0xFFFFFFFEu;

// The engine's own time-out counts from the creation of the request; the station counts
// from the last progress instead, so the engine's is only a backstop.
const unsigned int kEngineTimeout_s = 86400;
}

struct Station::Connection
{
    std::string name;
    std::unique_ptr<nk_protocol> engine;
    std::unique_ptr<EngineBinding> binding;  // null when the link could not be opened
    std::string closedReason;
    ExitCode failureCode = EXIT_FAILURE_OTHER;
    std::uint64_t lastTraffic = 0;
    Clock::time_point lastProgress = Clock::now();

    bool open() const { return binding && binding->link().isOpen(); }
    std::string failure() const
    {
        if (!binding) return closedReason;
        return "connection to " + name + (binding->link().refused() ? " refused: " : " lost: ") + closedReason;
    }
    std::uint64_t traffic() const
    {
        return binding ? binding->link().bytesWritten() + binding->link().bytesRead() : 0;
    }
};

struct Station::Pending
{
    Target* target = nullptr;
    Reply* reply = nullptr;
    bool done = false;
    bool givenUp = false;  // ended by the station while the engine may still hold the request
};

std::string DeviceLocation::name() const
{
    return addressGiven ? std::to_string(address) + "@" + link : link;
}

DeviceLocation parseDeviceLocation(std::string const& text, unsigned int defaultAddress)
{
    DeviceLocation location{text, defaultAddress, false};
    const std::size_t at = text.find('@');
    if (at != std::string::npos) {
        location.address = static_cast<unsigned int>(
            parseUnsigned(text.substr(0, at), ("device address of '" + text + "'").c_str(), 0, 0xFFFFFFFEu));
        location.addressGiven = true;
        location.link = text.substr(at + 1);
    }
    location.link = parseEndpoint(location.link, "127.0.0.1").text();
    return location;
}

std::vector<std::string> devicesFromText(std::string const& text)
{
    std::string spaced = text;
    std::replace(spaced.begin(), spaced.end(), ',', ' ');
    std::istringstream words(spaced);
    std::vector<std::string> devices;
    for (std::string word; words >> word;) devices.push_back(word);
    return devices;
}

std::vector<std::string> devicesFromFile(std::string const& path)
{
    std::ifstream file(path);
    if (!file) throw ToolError("cannot read device list " + path, EXIT_INPUT);
    std::vector<std::string> devices;
    for (std::string line; std::getline(file, line);) {
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        for (std::string const& device : devicesFromText(line)) devices.push_back(device);
    }
    if (devices.empty()) throw ToolError("device list " + path + " names no device", EXIT_INPUT);
    return devices;
}

void randomizeTelegramIds()
{
    std::random_device entropy;
    nk_protocol::u32TlgNumber = entropy();
}

std::unique_ptr<nk_message> decodeMessage(tBlob* content, std::string& error)
{
    if (!content || content->size() < 4) {
        error = "answer too short to hold a message";
        return nullptr;
    }
    const unsigned int type = content->getBuffer()[0] | (content->getBuffer()[1] << 8);
    if (!((type >= 1 && type <= 15) || type == 28 || type == 29)) {
        error = "answer holds a message of unhandled type " + std::to_string(type);
        return nullptr;
    }
    std::unique_ptr<nk_message> message(nk_message::getMessage(content));
    if (!message) error = "answer could not be decoded";
    return message;
}

Station::Station(StationOptions options) : m_options(std::move(options)) {}

Station::~Station()
{
    m_timer.reset();
    m_connections.clear();
}

void Station::connect()
{
    std::vector<DeviceLocation> locations;
    if (!m_options.serialPath.empty()) {
        std::vector<unsigned int> addresses = m_options.serialAddresses;
        if (addresses.empty()) addresses.push_back(m_options.deviceAddress);
        for (unsigned int address : addresses) locations.push_back(DeviceLocation{m_options.serialPath, address, !m_options.serialAddresses.empty()});
    } else {
        // Addresses are checked before anything is sent.
        for (std::string const& device : m_options.devices) locations.push_back(parseDeviceLocation(device, m_options.deviceAddress));
    }

    std::unique_ptr<TlsDialer> tls;
    if (m_options.tls.enabled() && m_options.serialPath.empty()) {
        if (!m_options.tlsDialer) throw ToolError("this program was built without TLS", EXIT_USAGE);
        tls = m_options.tlsDialer(m_options.tls);
    }

    // One link per HOST:PORT (or serial port); a device that cannot be reached fails alone
    // when there are several, so the others are still served.
    for (DeviceLocation const& location : locations) {
        Connection* connection = nullptr;
        for (auto const& existing : m_connections)
            if (existing->name == location.link) connection = existing.get();
        if (!connection) {
            std::unique_ptr<Connection> fresh(new Connection);
            fresh->name = location.link;
            std::shared_ptr<Link> link;
            try {
                const std::chrono::seconds timeout(m_options.timeout_s);
                if (!m_options.serialPath.empty())
                    link = openSerial(m_io, m_options.serialPath, m_options.baud);
                else if (tls)
                    link = tls->connect(m_io, location.link, locations, timeout);
                else
                    link = connectTcp(m_io, parseEndpoint(location.link, "127.0.0.1"), timeout);
            } catch (ToolError const& e) {
                fresh->closedReason = e.what();
                fresh->failureCode = e.code;
            }
            // Connecting ran the io_context until it had no work left, which stops it.
            m_io.restart();
            if (link) {
                fresh->engine.reset(new nk_protocol(m_options.ownAddress, nullptr, nullptr, kEngineTimeout_s, nullptr,
                                                    const_cast<char*>("nkctl engine"),
                                                    m_options.verbose ? &EngineBinding::logToStderr : nullptr));
                fresh->binding.reset(new EngineBinding(link, *fresh->engine));
                Connection* raw = fresh.get();
                fresh->binding->start([raw](std::string const& reason) { raw->closedReason = reason; });
            }
            connection = fresh.get();
            m_connections.push_back(std::move(fresh));
        }
        m_targets.push_back(Target{location, connection});
    }
    // Only for time-outs: answers are handled as their bytes arrive.
    m_timer.reset(new PollTimer(m_io, std::chrono::milliseconds(250), [this] {
        for (auto const& connection : m_connections)
            if (connection->binding) connection->binding->poll();
    }));
}

void Station::onResponse(unsigned int address, tBlob* content, void*, bool timedOut, void* userData)
{
    auto* pending = static_cast<Pending*>(userData);
    Reply& reply = *pending->reply;
    pending->done = true;
    if (timedOut) {
        reply.error = "time-out: device " + pending->target->location.name() + " did not answer";
        reply.code = EXIT_TIMEOUT;
        return;
    }
    // Answers are matched by telegram id alone; one from another address is not this
    // device's, whatever it holds.
    if (pending->target->location.address != kBroadcast && address != pending->target->location.address) {
        reply.error = "answer for " + pending->target->location.name() + " came from address " + std::to_string(address);
        reply.code = EXIT_FAILURE_OTHER;
        return;
    }
    reply.message = decodeMessage(content, reply.error);
    if (!reply.message) reply.code = EXIT_FAILURE_OTHER;
}

void Station::abandon()
{
    // Requests still queued must not call back into a finished request's frame.
    m_timer.reset();
    m_connections.clear();
    for (Target& target : m_targets) target.connection = nullptr;
}

Station::Outgoing Station::outgoing(nk_message& msg, std::string const& progressLabel)
{
    nk_serializer bytes;
    if (!msg.serializeMsg(&bytes))
        throw ToolError("the " + std::string(msg.typeName().c_str()) + " message could not be written", EXIT_FAILURE_OTHER);
    Outgoing outgoing;
    outgoing.shownBytes = bytes.size();
    outgoing.bytes = std::move(bytes);
    outgoing.what = msg.typeName().str();
    outgoing.progressLabel = progressLabel;
    return outgoing;
}

std::vector<Station::Reply> Station::request(nk_message& msg, std::string const& progressLabel)
{
    return request(outgoing(msg, progressLabel));
}

std::vector<Station::Reply> Station::request(Outgoing outgoing)
{
    std::vector<Reply> replies(m_targets.size());
    std::vector<Pending> pendings(m_targets.size());
    const std::uint64_t requestBytes = outgoing.bytes.size();
    for (std::size_t i = 0; i < m_targets.size(); ++i) {
        replies[i].target = m_targets[i].location.name();
        pendings[i].target = &m_targets[i];
        pendings[i].reply = &replies[i];
    }
    if (requestBytes > kMaxRequestBytes) {
        // A local limit, known before anything is sent: said at once, not left to time out.
        for (Reply& reply : replies) {
            reply.error = "the " + outgoing.what + " request (" + std::to_string(requestBytes) +
                          " bytes) is larger than one request may be (" + std::to_string(kMaxRequestBytes) +
                          " bytes, the local send limit of " + std::to_string(Link::kMaxQueuedBytes >> 20) +
                          " MiB on the link); nothing was sent to " + reply.target;
            reply.code = EXIT_LOCAL_LIMIT;
        }
        return replies;
    }

    std::vector<std::size_t> sendTo;
    for (std::size_t i = 0; i < m_targets.size(); ++i) {
        Connection* connection = m_targets[i].connection;
        if (!connection || !connection->open()) {
            replies[i].error = connection ? connection->failure() : "not connected";
            replies[i].code = connection && !connection->binding ? connection->failureCode : EXIT_FAILURE_OTHER;
            pendings[i].done = true;
            continue;
        }
        sendTo.push_back(i);
    }
    std::vector<std::uint64_t> refusedBefore;
    for (auto const& connection : m_connections)
        refusedBefore.push_back(connection->binding ? connection->binding->refusedBytes() : 0);

    // The progress counts the size the user knows (the file) for every device it goes to;
    // each telegram written is one request's share.
    const std::uint64_t shownTotal = outgoing.shownBytes * sendTo.size();
    Progress progress(outgoing.progressLabel,
                      outgoing.progressLabel.empty() || outgoing.shownBytes < (256u << 10) ? 0 : shownTotal);
    std::uint64_t shownDone = 0;
    // Building the telegrams (the compression choice, the frames) precedes the first byte.
    showPreparing(outgoing.progressLabel, outgoing.shownBytes);
    const auto quiet = std::chrono::seconds(m_options.timeout_s);
    for (auto const& connection : m_connections) {
        if (!connection->binding) continue;
        connection->binding->link().writeDirectly(
            quiet,
            [&](std::size_t written, std::size_t length) {
                const std::uint64_t share = length == 0 ? 0 : outgoing.shownBytes * written / length;
                progress.update(std::min(shownTotal, shownDone + share));
                if (written == length) shownDone += outgoing.shownBytes;
            },
            &m_io);
    }

    // One device after the other: the engine builds its frames, the link writes them, and
    // only then is the next device's copy made; the last device takes the bytes themselves.
    for (std::size_t k = 0; k < sendTo.size(); ++k) {
        const std::size_t i = sendTo[k];
        Connection& connection = *m_targets[i].connection;
        tBlob content = k + 1 == sendTo.size() ? std::move(outgoing.bytes) : tBlob(outgoing.bytes);
        connection.engine->enqueue_TS(&content, m_targets[i].location.address, &Station::onResponse, kEngineTimeout_s,
                                      &pendings[i]);
        connection.binding->poll();
    }
    // The quiet time of every device starts when all were written to, not while another
    // device's bytes were being written.
    for (auto const& connection : m_connections) {
        connection->lastTraffic = connection->traffic();
        connection->lastProgress = Clock::now();
    }

    for (;;) {
        const auto now = Clock::now();
        bool allDone = true;
        for (auto const& connection : m_connections) {
            if (!connection->binding) continue;
            if (connection->traffic() != connection->lastTraffic) {
                connection->lastTraffic = connection->traffic();
                connection->lastProgress = now;
            }
        }
        for (std::size_t i = 0; i < m_targets.size(); ++i) {
            if (pendings[i].done) continue;
            Connection& connection = *m_targets[i].connection;
            const std::size_t c = static_cast<std::size_t>(
                std::find_if(m_connections.begin(), m_connections.end(),
                             [&connection](std::unique_ptr<Connection> const& x) { return x.get() == &connection; }) -
                m_connections.begin());
            const bool linkTimedOut = connection.binding->link().timedOut();
            if (connection.binding->refusedBytes() > refusedBefore[c]) {
                replies[i].error = "the " + outgoing.what + " request (" + std::to_string(requestBytes) +
                                   " bytes) exceeds the local send queue of " +
                                   std::to_string(Link::kMaxQueuedBytes >> 20) + " MiB; nothing more was sent to " +
                                   m_targets[i].location.name();
                replies[i].code = EXIT_LOCAL_LIMIT;
            } else if (!connection.open() && !linkTimedOut) {
                replies[i].error = connection.failure();
                const bool refused = connection.binding->link().refused();
                if (refused && !m_options.tls.enabled()) replies[i].error += " (give --tls-cert, --tls-key and --tls-ca)";
                replies[i].code = refused ? EXIT_CONNECT : EXIT_FAILURE_OTHER;
            } else if (linkTimedOut || now - connection.lastProgress > quiet) {
                replies[i].error = "time-out: device " + std::to_string(m_targets[i].location.address) + " at " +
                                   m_targets[i].location.link + (linkTimedOut ? " took no byte of the request" : " did not answer") +
                                   " within " + std::to_string(m_options.timeout_s) + " s of the last byte moved";
                replies[i].code = EXIT_TIMEOUT;
            } else {
                allDone = false;
                continue;
            }
            pendings[i].done = true;
            pendings[i].givenUp = true;
        }
        if (allDone) break;
        m_io.run_one_for(std::chrono::milliseconds(100));
    }
    progress.finish();
    for (auto const& connection : m_connections)
        if (connection->binding) connection->binding->link().writeDirectly(quiet, nullptr, &m_io);
    // A request given up by the station may still be queued in an engine.
    if (std::any_of(pendings.begin(), pendings.end(), [](Pending const& p) { return p.givenUp; })) abandon();
    return replies;
}

#include "station.h"

#include <chrono>

#include "output.h"
#include "serial.h"
#include "tcp.h"
#include "tool_error.h"

struct Station::Target
{
    std::string name;
    std::unique_ptr<nk_protocol> engine;
    std::unique_ptr<EngineBinding> binding;  // null when the link could not be opened
    std::string closedReason;

    bool open() const { return binding && binding->link().isOpen(); }
    std::string failure() const
    {
        return binding ? "connection to " + name + " lost: " + closedReason : closedReason;
    }
};

struct Station::Pending
{
    Target* target = nullptr;
    std::size_t index = 0;
    bool done = false;
    unsigned int timeout_s = 0;
    unsigned int address = 0;
    std::vector<Reply>* replies = nullptr;
};

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
    m_targets.clear();
}

void Station::connect()
{
    std::vector<std::shared_ptr<Link>> links;
    std::vector<std::string> failures;
    if (!m_options.serialPath.empty()) {
        links.push_back(openSerial(m_io, m_options.serialPath, m_options.baud));
        failures.emplace_back();
    } else {
        // Addresses are checked before anything is sent; a device that cannot be reached
        // fails alone when there are several, so the others are still served.
        std::vector<Endpoint> endpoints;
        for (std::string const& device : m_options.devices) endpoints.push_back(parseEndpoint(device, "127.0.0.1"));
        for (Endpoint const& endpoint : endpoints) {
            try {
                links.push_back(connectTcp(m_io, endpoint, std::chrono::seconds(m_options.timeout_s)));
                failures.emplace_back();
            } catch (ToolError const& e) {
                if (endpoints.size() == 1) throw;
                links.push_back(nullptr);
                failures.emplace_back(e.what());
            }
        }
    }
    // Connecting ran the io_context until it had no work left, which stops it.
    m_io.restart();
    for (std::size_t i = 0; i < links.size(); ++i) {
        std::shared_ptr<Link>& link = links[i];
        std::unique_ptr<Target> target(new Target);
        if (!link) {
            target->name = m_options.devices[i];
            target->closedReason = failures[i];
            m_targets.push_back(std::move(target));
            continue;
        }
        target->name = link->name();
        target->engine.reset(new nk_protocol(m_options.ownAddress, nullptr, nullptr, m_options.timeout_s, nullptr,
                                             const_cast<char*>("nkctl engine"),
                                             m_options.verbose ? &EngineBinding::logToStderr : nullptr));
        target->binding.reset(new EngineBinding(link, *target->engine));
        Target* raw = target.get();
        target->binding->start([raw](std::string const& reason) { raw->closedReason = reason; });
        m_targets.push_back(std::move(target));
    }
    m_timer.reset(new PollTimer(m_io, std::chrono::milliseconds(20), [this] {
        for (auto const& target : m_targets)
            if (target->binding) target->binding->poll();
    }));
}

unsigned int Station::timeoutFor(unsigned int bytes) const
{
    // Time-outs count from the creation of the request, so a slow serial link gets the time
    // its bytes need on the wire (ten bits per byte, base-128 adds an eighth) on top.
    if (m_options.serialPath.empty() || m_options.baud == 0) return m_options.timeout_s;
    const unsigned long long wire = static_cast<unsigned long long>(bytes) * 10 * 8 / 7 / m_options.baud;
    return m_options.timeout_s + static_cast<unsigned int>(std::min<unsigned long long>(wire + 1, 86400));
}

void Station::onResponse(unsigned int, tBlob* content, void*, bool timedOut, void* userData)
{
    auto* pending = static_cast<Pending*>(userData);
    Reply& reply = (*pending->replies)[pending->index];
    pending->done = true;
    if (timedOut) {
        reply.error = "time-out: device " + std::to_string(pending->address) + " at " + pending->target->name +
                      " did not answer within " + std::to_string(pending->timeout_s) + " s";
        return;
    }
    reply.message = decodeMessage(content, reply.error);
}

std::vector<Station::Reply> Station::request(nk_message& msg, std::string const& progressLabel)
{
    nk_serializer bytes;
    if (!msg.serializeMsg(&bytes)) throw ToolError("the " + std::string(msg.typeName().c_str()) + " message could not be written");

    std::vector<Reply> replies(m_targets.size());
    std::vector<Pending> pendings(m_targets.size());
    std::uint64_t startWritten = 0;
    for (std::size_t i = 0; i < m_targets.size(); ++i) {
        Target& target = *m_targets[i];
        replies[i].target = target.name;
        Pending& pending = pendings[i];
        pending.target = &target;
        pending.index = i;
        pending.replies = &replies;
        pending.address = m_options.deviceAddress;
        pending.timeout_s = timeoutFor(bytes.size());
        if (!target.open()) {
            replies[i].error = target.failure();
            pending.done = true;
            continue;
        }
        startWritten += target.binding->link().bytesWritten();
        tBlob content(bytes);
        target.engine->enqueue_TS(&content, m_options.deviceAddress, &Station::onResponse, pending.timeout_s,
                                  &pending);
        target.binding->poll();
    }

    std::uint64_t total = 0;
    for (auto const& target : m_targets)
        if (target->binding) total += target->binding->link().unsentBytes();
    Progress progress(progressLabel, progressLabel.empty() || total < (256u << 10) ? 0 : total);
    // A safety net beyond the engines' own time-outs, which count in whole seconds.
    unsigned int longest = 0;
    for (Pending const& pending : pendings) longest = std::max(longest, pending.timeout_s);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(longest + 3);

    for (;;) {
        bool allDone = true;
        std::uint64_t written = 0;
        for (std::size_t i = 0; i < m_targets.size(); ++i) {
            Target& target = *m_targets[i];
            if (target.binding) written += target.binding->link().bytesWritten();
            if (pendings[i].done) continue;
            if (!target.open()) {
                replies[i].error = target.failure();
                pendings[i].done = true;
                continue;
            }
            allDone = false;
        }
        progress.update(written - startWritten);
        if (allDone) break;
        if (std::chrono::steady_clock::now() > deadline) {
            for (std::size_t i = 0; i < m_targets.size(); ++i)
                if (!pendings[i].done)
                    replies[i].error = "time-out: device " + std::to_string(m_options.deviceAddress) + " at " +
                                       m_targets[i]->name + " did not answer";
            break;
        }
        m_io.run_one_for(std::chrono::milliseconds(100));
    }
    progress.finish();
    // Requests still queued (only after the safety net) must not call back into this frame.
    if (std::any_of(pendings.begin(), pendings.end(), [](Pending const& p) { return !p.done; })) {
        m_timer.reset();
        m_targets.clear();
    }
    return replies;
}

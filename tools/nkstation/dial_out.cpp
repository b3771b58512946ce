#include "dial_out.h"

#include <set>
#include <vector>

#include "engine_binding.h"
#include "tcp.h"
#include "tls.h"
#include "tool_error.h"

Endpoint dialEndpoint(std::string const& text)
{
    const Endpoint ep = parseEndpoint(text, std::string());
    if (ep.host.empty() || ep.port == 0)
        throw ToolError("panel endpoint '" + text + "' needs a host and a port other than 0, HOST:PORT", EXIT_USAGE);
    return ep;
}

DialTarget parseDialTarget(std::string const& text)
{
    const std::size_t at = text.find('@');
    if (at == std::string::npos)
        throw ToolError("panel '" + text + "' needs its address, ADDR@HOST:PORT", EXIT_USAGE);
    DialTarget target;
    // The broadcast address and the one for none are no panel's.
    target.address = static_cast<unsigned int>(
        parseUnsigned(text.substr(0, at), ("panel address of '" + text + "'").c_str(), 0, 0xFFFFFFFDu));
    target.ep = dialEndpoint(text.substr(at + 1));
    return target;
}

struct DialOut::Pending
{
    Panel* panel = nullptr;
    ResponseHandler handler;
};

struct DialOut::Panel
{
    explicit Panel(asio::io_context& io) : retry(io) {}

    unsigned int address = 0;
    Endpoint ep;
    // Counts the attempts and connections: a handler of an earlier one finds it changed and
    // leaves the panel alone.
    unsigned long long generation = 0;
    std::unique_ptr<nk_protocol> engine;
    std::unique_ptr<EngineBinding> binding;  // while connected
    // Requests whose answer is awaited. The engine calls back each of them once, unless the
    // engine is dropped first: then they are failed and deleted here.
    std::set<Pending*> outstanding;
    std::chrono::milliseconds backoff{0};
    asio::steady_timer retry;
    std::string lastReason;  // of the last failed attempt, so that a repeated one is told once
};

DialOut::DialOut(asio::io_context& io, Options options)
    : m_io(io),
      m_options(std::move(options)),
      // Engines with requests outstanding are polled for their time-outs; the others only when
      // bytes arrive.
      m_timer(io, std::chrono::milliseconds(100), [this] { pollActive(); }),
      m_random(std::random_device()())
{
}

DialOut::~DialOut()
{
    stop();
}

bool DialOut::connected(unsigned int address) const
{
    auto found = m_panels.find(address);
    return found != m_panels.end() && found->second->binding != nullptr;
}

std::size_t DialOut::connectedPanels() const
{
    std::size_t n = 0;
    for (auto const& entry : m_panels)
        if (entry.second->binding) ++n;
    return n;
}

void DialOut::add(unsigned int address, Endpoint const& ep)
{
    std::unique_ptr<Panel>& slot = m_panels[address];
    if (slot && slot->ep.text() == ep.text()) return;
    if (!slot) {
        slot.reset(new Panel(m_io));
        slot->address = address;
    }
    std::vector<std::unique_ptr<Pending>> waiting = dropConnection(*slot);
    slot->ep = ep;
    slot->backoff = m_options.backoffMin;
    slot->lastReason.clear();
    dial(*slot);
    settle(waiting, "the panel is now dialled at " + ep.text());
}

void DialOut::remove(unsigned int address)
{
    auto found = m_panels.find(address);
    if (found == m_panels.end()) return;
    std::unique_ptr<Panel> panel = std::move(found->second);
    m_panels.erase(found);
    panel->retry.cancel();
    std::vector<std::unique_ptr<Pending>> waiting = dropConnection(*panel);
    settle(waiting, "the panel is no longer dialled");
}

void DialOut::dial(Panel& panel)
{
    if (m_stopped) return;
    panel.retry.cancel();
    const unsigned long long generation = ++panel.generation;
    const unsigned int address = panel.address;
    const Endpoint ep = panel.ep;
    // The handlers find the panel again by address and generation: it may have been removed,
    // moved or dialled anew meanwhile.
    auto current = [this, address, generation]() -> Panel* {
        auto found = m_panels.find(address);
        return found != m_panels.end() && found->second->generation == generation && !m_stopped ? found->second.get()
                                                                                                 : nullptr;
    };
    if (m_options.tls) {
        connectTlsAsync(m_io, ep, m_options.connectTimeout, m_options.tls,
                        [this, current, ep, address](std::shared_ptr<TlsLink> link, std::string const& error, bool refused) {
                            Panel* panel = current();
                            if (!panel) {
                                if (link) link->close("no longer dialled");
                                return;
                            }
                            if (!link) {
                                failed(*panel, error, refused);
                                return;
                            }
                            // The CA alone would let any panel of the fleet answer for another.
                            const std::string mismatch = panelNameMismatch(link->peerName(), address);
                            if (!mismatch.empty()) {
                                link->close("not the panel dialled");
                                failed(*panel, "the TLS certificate of " + ep.text() + " " + mismatch, true);
                                return;
                            }
                            connected(*panel, link);
                        });
        return;
    }
    connectSocketAsync(m_io, ep, m_options.connectTimeout,
                       [this, current, ep](asio::ip::tcp::socket socket, std::string const& error) {
                           Panel* panel = current();
                           if (!panel) return;
                           if (!error.empty()) {
                               failed(*panel, error, false);
                               return;
                           }
                           connected(*panel, std::make_shared<TcpLink>(std::move(socket), ep.text()));
                       });
}

void DialOut::connected(Panel& panel, std::shared_ptr<Link> link)
{
    panel.engine.reset(new nk_protocol(m_options.ownAddress, nullptr, nullptr, 10, nullptr,
                                       const_cast<char*>("nkstation engine"),
                                       m_options.verbose ? &EngineBinding::logToStderr : nullptr));
    panel.binding.reset(new EngineBinding(link, *panel.engine));
    panel.lastReason.clear();
    const unsigned int address = panel.address;
    const unsigned long long generation = panel.generation;
    // The link may end inside its own handlers (a frame too long): the connection is dropped
    // from a handler of its own, never under the link's feet.
    panel.binding->start([this, address, generation](std::string const& reason) {
        asio::post(m_io, [this, address, generation, reason] { lost(address, generation, reason); });
    });
    if (m_onUp) m_onUp(address);
}

void DialOut::failed(Panel& panel, std::string const& reason, bool refused)
{
    const unsigned int address = panel.address;
    if (reason != panel.lastReason) {
        panel.lastReason = reason;
        if (m_onDown) m_onDown(address, reason, refused);
    }
    auto found = m_panels.find(address);
    if (found != m_panels.end()) retryLater(*found->second);
}

void DialOut::lost(unsigned int address, unsigned long long generation, std::string const& reason)
{
    auto found = m_panels.find(address);
    if (found == m_panels.end() || found->second->generation != generation || !found->second->binding || m_stopped)
        return;
    Panel& panel = *found->second;
    Link& link = panel.binding->link();
    const bool refused = link.refused();
    // A connection that carried answers worked: the next attempt starts from the shortest wait.
    if (link.bytesRead() > 0 && !refused) panel.backoff = m_options.backoffMin;
    std::string text = "connection to " + panel.ep.text() + (refused ? " refused: " : " lost: ") + reason;
    if (refused && !m_options.tls) text += " (start nkstation with --tls-cert, --tls-key and --tls-ca)";
    panel.lastReason = text;
    std::vector<std::unique_ptr<Pending>> waiting = dropConnection(panel);
    const unsigned long long dropped = panel.generation;
    // The panel is down before its requests fail, so that whoever asked sees why.
    if (m_onDown) m_onDown(address, text, refused);
    settle(waiting, text);
    found = m_panels.find(address);
    if (found != m_panels.end() && found->second->generation == dropped) retryLater(*found->second);
}

std::vector<std::unique_ptr<DialOut::Pending>> DialOut::dropConnection(Panel& panel)
{
    ++panel.generation;
    // The engine goes without calling back: what it still held is handed to the caller.
    panel.binding.reset();
    panel.engine.reset();
    std::vector<std::unique_ptr<Pending>> waiting;
    for (Pending* pending : panel.outstanding) waiting.emplace_back(pending);
    panel.outstanding.clear();
    return waiting;
}

void DialOut::settle(std::vector<std::unique_ptr<Pending>>& waiting, std::string const& reason)
{
    for (auto& pending : waiting) pending->handler(nullptr, reason);
    waiting.clear();
}

void DialOut::retryLater(Panel& panel)
{
    if (m_stopped) return;
    // Between half and all of the current back-off, which doubles up to its bound, so that
    // panels lost together are not dialled again in one wave.
    std::uniform_int_distribution<long long> spread(panel.backoff.count() / 2, panel.backoff.count());
    const std::chrono::milliseconds delay(spread(m_random));
    panel.backoff = std::min(panel.backoff * 2, m_options.backoffMax);
    const unsigned int address = panel.address;
    const unsigned long long generation = panel.generation;
    panel.retry.expires_after(delay);
    panel.retry.async_wait([this, address, generation](std::error_code ec) {
        if (ec || m_stopped) return;
        auto found = m_panels.find(address);
        if (found != m_panels.end() && found->second->generation == generation && !found->second->binding)
            dial(*found->second);
    });
}

void DialOut::request(unsigned int address, nk_message& message, unsigned int timeout_s, ResponseHandler handler)
{
    auto found = m_panels.find(address);
    std::string why;
    nk_serializer bytes;
    if (found == m_panels.end()) why = "panel " + std::to_string(address) + " is not dialled";
    else if (!found->second->binding)
        why = "not connected" + (found->second->lastReason.empty() ? "" : " (" + found->second->lastReason + ")");
    else if (!message.serializeMsg(&bytes)) why = "the request could not be written";
    if (!why.empty()) {
        // Later, as an answer would come: the caller is still in the middle of asking.
        asio::post(m_io, [handler = std::move(handler), why] { handler(nullptr, why); });
        return;
    }
    Panel& panel = *found->second;
    auto* pending = new Pending{&panel, std::move(handler)};
    panel.outstanding.insert(pending);
    tBlob content(bytes);
    const std::uint64_t refusedBefore = panel.binding->refusedBytes();
    panel.engine->enqueue_TS(&content, address, &DialOut::onResponse, timeout_s, pending);
    panel.binding->poll();
    // The engine drops a telegram the link would not take, without calling back: a panel that
    // stopped reading is as good as gone.
    if (panel.binding && panel.binding->refusedBytes() > refusedBefore)
        panel.binding->link().close("the panel takes no more bytes");
}

void DialOut::onResponse(unsigned int address, tBlob* content, void*, bool timedOut, void* userData)
{
    std::unique_ptr<Pending> pending(static_cast<Pending*>(userData));
    pending->panel->outstanding.erase(pending.get());
    if (timedOut) {
        pending->handler(nullptr, "no answer");
        return;
    }
    if (address != pending->panel->address) {
        pending->handler(nullptr, "answer from address " + std::to_string(address) + " on the connection to panel " +
                                      std::to_string(pending->panel->address));
        return;
    }
    pending->handler(content, std::string());
}

void DialOut::pollActive()
{
    for (auto& entry : m_panels) {
        Panel& panel = *entry.second;
        if (panel.binding && (!panel.outstanding.empty() || panel.engine->queuedTelegrams_TS() > 0)) panel.binding->poll();
    }
}

void DialOut::stop()
{
    if (m_stopped) return;
    m_stopped = true;
    m_timer.stop();
    for (auto& entry : m_panels) {
        Panel& panel = *entry.second;
        panel.retry.cancel();
        // Nobody is told any more: the station is ending.
        dropConnection(panel);
    }
}

#include "engine_binding.h"

#include "nk_telegram.h"
#include "output.h"

#include <cerrno>
#include <cstdio>
#include <string>

EngineBinding::EngineBinding(std::shared_ptr<Link> link, nk_protocol& engine)
    : m_link(std::move(link)), m_engine(engine)
{
    // What one peer may make a tool hold: the library bounds nothing by default.
    m_engine.setIncomingLimits_TS(kMaxOpenContexts, kMaxOpenBytes);
    nk_protocol::setMaxDecodedSize(kMaxDecodedBytes);
}

EngineBinding::~EngineBinding()
{
    m_link->close();
}

void EngineBinding::start(Link::CloseHandler onClose)
{
    m_link->start(
        [this](unsigned char const* data, std::size_t length) {
            const bool withinBound = m_gate.feed(data, length, [this](unsigned char const* bytes, std::size_t n) {
                m_frame.append(bytes, static_cast<unsigned int>(n));
                if (bytes[n - 1] != 0x02) return;
                // A whole frame: the engine handles it now (unless the filter takes it), and a
                // request it completes is known by this frame's header (see currentTelegram).
                if (!m_filter || !m_filter(m_frame)) {
                    m_engine.pushData(m_frame.getBuffer(), m_frame.size());
                    poll();
                }
                m_frame.clear();
            });
            if (!withinBound) {
                m_link->close("peer sent a frame longer than " + std::to_string(m_gate.maxFrameBytes()) +
                              " bytes");
                return;
            }
        },
        std::move(onClose));
}

void EngineBinding::poll()
{
    // A link that waits for its bytes to be written runs the event loop inside the engine's
    // send (see Link::writeDirectly): bytes and timer ticks that arrive meanwhile must not
    // start a round inside that round, which would send the same telegram again. Their
    // round runs when the current one is done.
    if (m_polling) {
        m_pollAgain = true;
        return;
    }
    m_polling = true;
    struct EndOfRound
    {
        bool& polling;
        ~EndOfRound() { polling = false; }
    } endOfRound{m_polling};
    do {
        m_pollAgain = false;
        // A round sends before it reads, so answers that the receive callback queues in this
        // round would wait for the next one; the queue holds only requests awaiting their
        // answers otherwise, whose second round costs a look at their time-outs.
        m_engine.poll(nullptr, this, &EngineBinding::sendToLink, nullptr);
        if (m_engine.queuedTelegrams_TS() > 0) m_engine.poll(nullptr, this, &EngineBinding::sendToLink, nullptr);
    } while (m_pollAgain);
}

bool EngineBinding::currentTelegram(unsigned int& telegramId, unsigned int& source) const
{
    if (m_frame.isEmpty()) return false;
    tBlob frame(m_frame);
    nk_telegramPart part;
    if (!part.streamContainsTelegram(&frame)) return false;
    telegramId = part.telegramId();
    source = part.sourceAddress();
    return true;
}

void EngineBinding::respond(tBlob& content, unsigned int destination, unsigned int telegramId)
{
    m_engine.respond_TS(&content, destination, telegramId);
    poll();
}

unsigned int EngineBinding::sendToLink(nk_server*, void* ctx, unsigned char* data, unsigned int length,
                                       int* error)
{
    auto* self = static_cast<EngineBinding*>(ctx);
    if (self->m_link->queue(data, length)) return length;
    if (self->m_link->isOpen()) self->m_refusedBytes += length;
    // A closed link or a peer that stopped reading: a hard error, so the telegram is dropped
    // at once instead of being retried.
    if (error) *error = EPIPE;
    return 0;
}

void EngineBinding::logToStderr(void* prefix, char const* text)
{
    logLine("debug", prefix ? static_cast<char const*>(prefix) : "engine", text);
}

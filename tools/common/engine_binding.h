#ifndef NK_TOOLS_ENGINE_BINDING_H
#define NK_TOOLS_ENGINE_BINDING_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "frame_gate.h"
#include "link.h"
#include "nk_protocol.h"

// Joins one protocol engine to one link on the polling thread. The frame bytes that arrive
// (see FrameGate) are pushed into the engine, which is polled at once, and once more when
// that poll queued answers, so an answer leaves as soon as its request has arrived instead
// of on the next timer tick. The engine's send function hands its bytes to the link's output
// queue and so always reports them all as written: a poll never waits on the link and the
// engine's EAGAIN retries are never reached.
class EngineBinding
{
public:
    // Bounds set on every bound engine: open incomplete telegrams (oldest dropped first)
    // and the decoded size of one compressed telegram (larger ones arrive empty).
    static const unsigned int kMaxOpenContexts = 1024;
    static const unsigned long long kMaxOpenBytes = 256ull << 20;
    static const unsigned int kMaxDecodedBytes = 256u << 20;

    // The binding polls the engine; both must outlive it, and run on link's io_context.
    EngineBinding(std::shared_ptr<Link> link, nk_protocol& engine);
    ~EngineBinding();
    EngineBinding(EngineBinding const&) = delete;
    EngineBinding& operator=(EngineBinding const&) = delete;

    // Starts reading; onClose runs once when the link ends (with the reason).
    void start(Link::CloseHandler onClose);
    // Sees every whole frame (start byte to end byte) before the engine does. A frame it
    // takes (true; it may consume the bytes) never reaches the engine; one it leaves must be
    // left unchanged. For a program that handles some telegrams itself as their parts
    // arrive, instead of after the engine has joined them.
    using FrameFilter = std::function<bool(tBlob& frame)>;
    void setFrameFilter(FrameFilter filter) { m_filter = std::move(filter); }
    // One engine round, and a second one when the first left telegrams unsent (answers
    // queued while it handled requests).
    void poll();

    // Bytes of telegrams the link's output queue refused while the link was open: the local
    // limit on unsent bytes (Link::kMaxQueuedBytes), not a fault of the peer. 0 when none.
    std::uint64_t refusedBytes() const { return m_refusedBytes; }

    Link& link() { return *m_link; }

    // While the engine hands a request to its receive callback: the telegram id and source
    // address of that request, read from the frame that completed it (the engine is polled
    // after every whole frame). An answer given later goes out with respond(). False when
    // not called from inside that callback or the frame cannot be read.
    bool currentTelegram(unsigned int& telegramId, unsigned int& source) const;
    // Queues content as the answer to telegramId from source, and sends it.
    void respond(tBlob& content, unsigned int destination, unsigned int telegramId);
    nk_protocol& engine() { return m_engine; }

    // The engine's log output, for a --verbose switch: one line per message on stderr.
    static void logToStderr(void* prefix, char const* text);

private:
    static unsigned int sendToLink(nk_server* server, void* ctx, unsigned char* data, unsigned int length,
                                   int* error);

    std::shared_ptr<Link> m_link;
    nk_protocol& m_engine;
    FrameGate m_gate;
    FrameFilter m_filter;
    tBlob m_frame;  // the bytes of the frame being received
    std::uint64_t m_refusedBytes = 0;
    bool m_polling = false;
    bool m_pollAgain = false;
};

#endif

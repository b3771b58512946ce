#ifndef NK_TOOLS_ENGINE_BINDING_H
#define NK_TOOLS_ENGINE_BINDING_H

#include <memory>
#include <string>

#include "frame_gate.h"
#include "link.h"
#include "nk_protocol.h"

// Joins one protocol engine to one link on the polling thread. The frame bytes that arrive
// (see FrameGate) are pushed into the engine, which is polled at once; the engine's send function hands its bytes to the
// link's output queue and so always reports them all as written: a poll never waits on the
// link and the engine's EAGAIN retries are never reached.
class EngineBinding
{
public:
    // The binding polls the engine; both must outlive it, and run on link's io_context.
    EngineBinding(std::shared_ptr<Link> link, nk_protocol& engine);
    ~EngineBinding();
    EngineBinding(EngineBinding const&) = delete;
    EngineBinding& operator=(EngineBinding const&) = delete;

    // Starts reading; onClose runs once when the link ends (with the reason).
    void start(Link::CloseHandler onClose);
    void poll();

    Link& link() { return *m_link; }
    nk_protocol& engine() { return m_engine; }

    // The engine's log output, for a --verbose switch: one line per message on stderr.
    static void logToStderr(void* prefix, char const* text);

private:
    static unsigned int sendToLink(nk_server* server, void* ctx, unsigned char* data, unsigned int length,
                                   int* error);

    std::shared_ptr<Link> m_link;
    nk_protocol& m_engine;
    FrameGate m_gate;
};

#endif

#ifndef NK_TOOLS_FRAME_GATE_H
#define NK_TOOLS_FRAME_GATE_H

#include <cstddef>
#include <functional>

// Stands between a link and its engine and passes on only the bytes of frames, from a start
// byte up to and including the next end byte; bytes between frames are dropped.
//
// The engine deliberately waits while a stray end byte lies ahead of the next start byte, and
// it keeps the bytes of an unfinished frame for as long as the frame lasts. On a link that
// lives long (a serial line, a station's connection) one byte of line noise would make the
// engine deaf for good, and a peer that never ends its frame would make it grow without
// bound. With the gate the stray byte never reaches the engine, and a frame longer than the
// bound ends the link.
class FrameGate
{
public:
    using Pass = std::function<void(unsigned char const* data, std::size_t length)>;

    // The longest frame accepted: generously above the largest frame a peer with the
    // library's payload size limit writes.
    static std::size_t defaultMaxFrameBytes();

    explicit FrameGate(std::size_t maxFrameBytes = defaultMaxFrameBytes()) : m_maxFrameBytes(maxFrameBytes) {}

    // Hands the frame bytes among data to pass, in order. False when the current frame has
    // grown beyond the bound: the link should be closed.
    bool feed(unsigned char const* data, std::size_t length, Pass const& pass);

    std::size_t droppedBytes() const { return m_dropped; }
    std::size_t maxFrameBytes() const { return m_maxFrameBytes; }

private:
    std::size_t m_maxFrameBytes;
    bool m_inFrame = false;
    std::size_t m_frameBytes = 0;
    std::size_t m_dropped = 0;
};

#endif

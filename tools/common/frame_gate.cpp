#include "frame_gate.h"

#include <algorithm>
#include <cstring>

#include "nk_telegram.h"

namespace
{
const unsigned char kFrameStart = 0x01;
const unsigned char kFrameEnd = 0x02;
}

std::size_t FrameGate::defaultMaxFrameBytes()
{
    // A frame holds a header of a few dozen bytes, the payload and a CRC, base-128 encoded;
    // twice that, and never less than 16 MiB, leaves room for a peer with a larger limit.
    const std::size_t body = static_cast<std::size_t>(nk_telegram::s_u32MaxPayloadSize) + 64;
    const std::size_t largest = (8 * body + 6) / 7 + 2;
    return std::max<std::size_t>(16u << 20, 2 * largest);
}

bool FrameGate::feed(unsigned char const* data, std::size_t length, Pass const& pass)
{
    while (length > 0) {
        if (!m_inFrame) {
            auto const* start = static_cast<unsigned char const*>(std::memchr(data, kFrameStart, length));
            const std::size_t skipped = start ? static_cast<std::size_t>(start - data) : length;
            m_dropped += skipped;
            data += skipped;
            length -= skipped;
            if (!start) return true;
            m_inFrame = true;
            m_frameBytes = 0;
        }
        auto const* end = static_cast<unsigned char const*>(std::memchr(data, kFrameEnd, length));
        const std::size_t run = end ? static_cast<std::size_t>(end - data) + 1 : length;
        m_frameBytes += run;
        if (m_frameBytes > m_maxFrameBytes) return false;
        pass(data, run);
        data += run;
        length -= run;
        if (end) m_inFrame = false;
    }
    return true;
}

#include "link.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

void Link::start(ReceiveHandler onReceive, CloseHandler onClose)
{
    m_onReceive = std::move(onReceive);
    m_onClose = std::move(onClose);
    m_started = true;
    beginReading();
}

void Link::resumeReading()
{
    if (!m_paused) return;
    m_paused = false;
    if (m_started && !m_readInProgress) readMore();
}

void Link::beginReading()
{
    m_readBuffer.resize(32768);
    readMore();
}

void Link::received(unsigned char const* data, std::size_t length)
{
    if (!m_open || length == 0) return;
    m_bytesRead += length;
    if (m_onReceive) m_onReceive(data, length);
}

void Link::readMore()
{
    if (!m_open || m_paused) return;
    auto self = shared_from_this();
    m_readInProgress = true;
    asyncReadSome(asio::buffer(m_readBuffer), [this, self](std::error_code ec, std::size_t n) {
        m_readInProgress = false;
        if (!m_open) return;
        if (ec) {
            fail(ec == asio::error::eof ? "closed by peer" : readFailure(ec));
            return;
        }
        if (m_bytesRead == 0 && n > 0) {
            const std::string refusal = screenFirstBytes(m_readBuffer.data(), n);
            if (!refusal.empty()) {
                markRefused();
                fail(refusal);
                return;
            }
        }
        received(m_readBuffer.data(), n);
        // A read that filled the buffer is part of a bulk transfer (an image): larger reads
        // then cost fewer system calls and fewer window updates to the peer. A link that only
        // ever carries small messages keeps the small buffer.
        if (n == m_readBuffer.size() && n < kLargestReadBuffer) m_readBuffer.resize(n * 2);
        readMore();
    });
}

bool Link::queue(unsigned char const* data, std::size_t length)
{
    if (!m_open) return false;
    if (length == 0) return true;
    if (unsentBytes() + length > kMaxQueuedBytes) return false;
    if (m_direct && unsentBytes() == 0) {
        const int descriptor = writeDescriptor();
        if (descriptor >= 0) return writeNow(descriptor, data, length);
    }
    m_pending.insert(m_pending.end(), data, data + length);
    if (m_writing.empty()) writeMore();
    if (m_direct && m_directIo && !m_waiting) return waitUntilWritten(length);
    return true;
}

bool Link::waitUntilWritten(std::size_t length)
{
    using Clock = std::chrono::steady_clock;
    m_waiting = true;
    // This call's bytes are the last length bytes of the queue.
    const std::uint64_t goal = m_bytesWritten + unsentBytes();
    const std::uint64_t first = goal - length;
    std::uint64_t seen = m_bytesWritten;
    Clock::time_point lastProgress = Clock::now();
    while (m_open && m_bytesWritten < goal) {
        if (m_directIo->stopped()) m_directIo->restart();
        m_directIo->run_one_for(m_quiet);
        if (m_bytesWritten != seen) {
            seen = m_bytesWritten;
            lastProgress = Clock::now();
            if (m_onWrite && seen > first) m_onWrite(static_cast<std::size_t>(std::min<std::uint64_t>(seen - first, length)), length);
        } else if (Clock::now() - lastProgress >= m_quiet) {
            m_timedOut = true;
            fail("time-out: no byte taken for " + std::to_string(m_quiet.count() / 1000) + " s");
        }
    }
    m_waiting = false;
    return m_open;
}

void Link::writeMore()
{
    if (!m_open || m_pendingOffset == m_pending.size()) return;
    const std::size_t n = std::min(kWriteSlice, m_pending.size() - m_pendingOffset);
    m_writing.assign(m_pending.begin() + static_cast<std::ptrdiff_t>(m_pendingOffset),
                     m_pending.begin() + static_cast<std::ptrdiff_t>(m_pendingOffset + n));
    m_pendingOffset += n;
    if (m_pendingOffset == m_pending.size()) {
        m_pending.clear();
        m_pendingOffset = 0;
    } else if (m_pendingOffset > (4u << 20) && m_pendingOffset * 2 > m_pending.size()) {
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(m_pendingOffset));
        m_pendingOffset = 0;
    }
    auto self = shared_from_this();
    asyncWrite(asio::buffer(m_writing), [this, self](std::error_code ec, std::size_t written) {
        m_bytesWritten += written;
        m_writing.clear();
        if (!m_open) return;
        if (ec) {
            fail(ec.message());
            return;
        }
        writeMore();
    });
}

void Link::writeDirectly(std::chrono::milliseconds quiet, WriteProgress onWrite, asio::io_context* io)
{
    m_direct = true;
    m_quiet = quiet;
    m_onWrite = std::move(onWrite);
    m_directIo = io;
}

bool Link::writeNow(int descriptor, unsigned char const* data, std::size_t length)
{
    // Non-blocking, so that a peer that stops reading is noticed after the quiet time
    // instead of holding write() for ever; asio's own operations expect EAGAIN anyway.
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags >= 0 && !(flags & O_NONBLOCK)) ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
    struct stat kind {};
    const bool socket = ::fstat(descriptor, &kind) == 0 && S_ISSOCK(kind.st_mode);
    std::size_t done = 0;
    while (done < length) {
        // A socket whose peer has gone must give EPIPE, not the signal that ends the process.
        const ssize_t n = socket ? ::send(descriptor, data + done, length - done, MSG_NOSIGNAL)
                                 : ::write(descriptor, data + done, length - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            m_bytesWritten += static_cast<std::uint64_t>(n);
            if (m_onWrite) m_onWrite(done, length);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd writable{descriptor, POLLOUT, 0};
            const int ready = ::poll(&writable, 1, static_cast<int>(m_quiet.count()));
            if (ready == 0) {
                m_timedOut = true;
                fail("time-out: no byte taken for " + std::to_string(m_quiet.count() / 1000) + " s");
                return false;
            }
            if (ready < 0 && errno != EINTR) {
                fail(std::strerror(errno));
                return false;
            }
            // POLLERR or POLLHUP: the next write says what happened.
            continue;
        }
        fail(n == 0 ? std::string("closed by peer") : std::string(std::strerror(errno)));
        return false;
    }
    return true;
}

void Link::fail(std::string const& reason)
{
    if (!m_open) return;
    m_open = false;
    closeStream();
    m_pending.clear();
    m_pendingOffset = 0;
    CloseHandler onClose = std::move(m_onClose);
    m_onClose = nullptr;
    if (onClose) onClose(reason);
}

void Link::close(std::string const& reason)
{
    fail(reason);
}

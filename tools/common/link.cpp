#include "link.h"

void Link::start(ReceiveHandler onReceive, CloseHandler onClose)
{
    m_onReceive = std::move(onReceive);
    m_onClose = std::move(onClose);
    m_readBuffer.resize(32768);
    readMore();
}

void Link::readMore()
{
    if (!m_open) return;
    auto self = shared_from_this();
    asyncReadSome(asio::buffer(m_readBuffer), [this, self](std::error_code ec, std::size_t n) {
        if (!m_open) return;
        if (ec) {
            fail(ec == asio::error::eof ? "closed by peer" : ec.message());
            return;
        }
        m_bytesRead += n;
        if (m_onReceive && n > 0) m_onReceive(m_readBuffer.data(), n);
        readMore();
    });
}

bool Link::queue(unsigned char const* data, std::size_t length)
{
    if (!m_open) return false;
    if (length == 0) return true;
    if (unsentBytes() + length > kMaxQueuedBytes) return false;
    m_pending.insert(m_pending.end(), data, data + length);
    if (m_writing.empty()) writeMore();
    return true;
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

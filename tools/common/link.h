#ifndef NK_TOOLS_LINK_H
#define NK_TOOLS_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio.hpp>

// One byte link (a TCP connection or a serial port) driven by the io_context of the polling
// thread. Bytes that arrive go to the receive handler; bytes to send are appended to the
// link's own output queue, which asio drains asynchronously. queue() therefore never blocks,
// and the engine's send function never has to ask for a retry.
class Link : public std::enable_shared_from_this<Link>
{
public:
    using ReceiveHandler = std::function<void(unsigned char const* data, std::size_t length)>;
    using CloseHandler = std::function<void(std::string const& reason)>;

    // A peer that stops reading must not make the process grow without bound: beyond this
    // many unsent bytes queue() refuses, and the telegram that asked is dropped.
    static constexpr std::size_t kMaxQueuedBytes = 256u << 20;

    explicit Link(std::string name) : m_name(std::move(name)) {}
    virtual ~Link() = default;
    Link(Link const&) = delete;
    Link& operator=(Link const&) = delete;

    // Starts reading. The close handler runs once, when the peer or an error ends the link.
    void start(ReceiveHandler onReceive, CloseHandler onClose);
    bool queue(unsigned char const* data, std::size_t length);
    // Stops asking the stream for more bytes (those of the read in progress are still
    // delivered), so that a peer faster than the receiver's disk waits in its own send
    // buffer instead of filling this process. Links whose bytes are handed to them (a
    // broker's messages) cannot stop them.
    virtual bool canPauseReading() const { return true; }
    void pauseReading() { m_paused = canPauseReading(); }
    void resumeReading();
    // Ends the link; the close handler gets reason.
    void close(std::string const& reason = "closed");

    // Direct writes, for a program that sends one request at a time and has nothing else to
    // do meanwhile (nkctl): queue() writes the bytes to the stream itself and waits while the
    // peer does not take them, instead of copying them into the output queue. A large request
    // is then neither copied nor held twice. After quiet without a byte taken the link ends
    // as timed out. onWrite runs after every write with the bytes of this queue() call
    // written so far and their number. A stream whose bytes must pass through asio (TLS)
    // still queues them, but queue() then runs io until they are written, so the queue holds
    // one call's bytes at a time, not a whole request; the handlers io runs meanwhile must not
    // start another write (see EngineBinding::poll). Without io such links keep queueing.
    using WriteProgress = std::function<void(std::size_t written, std::size_t length)>;
    void writeDirectly(std::chrono::milliseconds quiet, WriteProgress onWrite, asio::io_context* io = nullptr);
    bool timedOut() const { return m_timedOut; }

    bool isOpen() const { return m_open; }
    std::size_t unsentBytes() const { return m_pending.size() - m_pendingOffset + m_writing.size(); }
    std::uint64_t bytesWritten() const { return m_bytesWritten; }
    std::uint64_t bytesRead() const { return m_bytesRead; }
    std::string const& name() const { return m_name; }
    // True when the link ended before it ever worked because the two sides do not agree on how
    // to talk: TLS bytes on a plain link, or a TLS peer that refused this side's certificate.
    bool refused() const { return m_refused; }

protected:
    using ReadDone = std::function<void(std::error_code, std::size_t)>;
    // Reading from a stream: a read buffer of the link's own and asyncReadSome, again and
    // again. A link whose bytes are handed to it (a broker's messages) overrides this and
    // passes them to received() as they come, with no buffer of its own.
    virtual void beginReading();
    virtual void asyncReadSome(asio::mutable_buffer buffer, ReadDone done) = 0;
    virtual void asyncWrite(asio::const_buffer buffer, ReadDone done) = 0;
    virtual void closeStream() = 0;
    // The descriptor that direct writes use, or -1 where bytes must pass through asio (a
    // stream that encrypts or frames them).
    virtual int writeDescriptor() { return -1; }
    // The reason a read failed, for the close handler; a link that knows its stream better
    // (TLS alerts) says more, and calls markRefused() when the peer turned it away.
    virtual std::string readFailure(std::error_code ec) { return ec.message(); }
    // Looks at the first bytes read before they are passed on; a non-empty answer ends the
    // link, refused, with that reason.
    virtual std::string screenFirstBytes(unsigned char const*, std::size_t) { return std::string(); }
    void markRefused() { m_refused = true; }
    // Bytes that arrived, for the receive handler.
    void received(unsigned char const* data, std::size_t length);

private:
    void readMore();
    void writeMore();
    void fail(std::string const& reason);
    bool writeNow(int descriptor, unsigned char const* data, std::size_t length);
    bool waitUntilWritten(std::size_t length);

    // Reads start into 32 KiB and grow up to this while reads fill the buffer.
    static constexpr std::size_t kLargestReadBuffer = 256u << 10;
    // Writes go out in slices so that a long transfer reports its progress as it goes.
    static constexpr std::size_t kWriteSlice = 64u << 10;

    std::string m_name;
    bool m_open = true;
    bool m_refused = false;
    bool m_started = false;
    bool m_paused = false;
    bool m_readInProgress = false;
    ReceiveHandler m_onReceive;
    CloseHandler m_onClose;
    std::vector<unsigned char> m_readBuffer;
    std::vector<unsigned char> m_pending;
    std::size_t m_pendingOffset = 0;
    std::vector<unsigned char> m_writing;
    std::uint64_t m_bytesWritten = 0;
    std::uint64_t m_bytesRead = 0;
    bool m_direct = false;
    bool m_timedOut = false;
    std::chrono::milliseconds m_quiet{0};
    WriteProgress m_onWrite;
    asio::io_context* m_directIo = nullptr;
    bool m_waiting = false;
};

// The descriptor of the streams whose bytes go to the kernel unchanged.
inline int plainDescriptor(asio::ip::tcp::socket& stream) { return stream.native_handle(); }
inline int plainDescriptor(asio::serial_port& stream) { return stream.native_handle(); }
template <typename Stream>
int plainDescriptor(Stream&)
{
    return -1;
}

// A link over any asio stream with async_read_some / async_write_some (sockets, serial ports).
template <typename Stream>
class StreamLink : public Link
{
public:
    StreamLink(Stream stream, std::string name) : Link(std::move(name)), m_stream(std::move(stream)) {}
    Stream& stream() { return m_stream; }

protected:
    void asyncReadSome(asio::mutable_buffer buffer, ReadDone done) override
    {
        m_stream.async_read_some(buffer, std::move(done));
    }
    void asyncWrite(asio::const_buffer buffer, ReadDone done) override
    {
        asio::async_write(m_stream, buffer, std::move(done));
    }
    void closeStream() override
    {
        std::error_code ignored;
        m_stream.close(ignored);
    }
    int writeDescriptor() override { return m_stream.is_open() ? plainDescriptor(m_stream) : -1; }

private:
    Stream m_stream;
};

#endif

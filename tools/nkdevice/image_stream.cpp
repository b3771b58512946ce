#include "image_stream.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace
{
const nk_serializer::teSerDirection kRead = nk_serializer::SER_READ;

// The start of an IMAGE request that stores one file, read from its first part: the fields
// as nk_messageImage reads them, up to the file's content.
struct ImageHead
{
    unsigned int version = 0;
    ImageRequestView::File file;
};

bool readImageHead(tBlob const& payload, ImageHead& head)
{
    nk_serializer reader(payload.getBuffer(), payload.size());
    unsigned short type = 0, version = 0;
    unsigned char taskRemove = 0;
    unsigned int count = 0;
    if (!reader.u16(type, kRead) || type != nk_message::IMAGE || !reader.u16(version, kRead) ||
        !reader.u8(taskRemove, kRead) || taskRemove != 0 || !reader.u32(count, kRead) || count != 1)
        return false;
    ImageRequestView::File& file = head.file;
    if (!reader.u64(file.id, kRead) || !reader.string(file.name, kRead) || !reader.string(file.checksum, kRead) ||
        !reader.u8(file.mimeType, kRead) || !reader.u32(file.length, kRead))
        return false;
    file.offset = reader.readPosition();
    head.version = version;
    return true;
}

// Buffers for decoded parts, kept for reuse: fresh ones would cost their page faults anew.
const std::size_t kMaxSpares = ImageStreamReceiver::kMaxQueuedBytes / (1u << 20) + 2;
}

void StreamedImageFile::waitWritten()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_written; });
}

void StreamedImageFile::markWritten()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_written = true;
    }
    m_condition.notify_all();
}

// Shared by the link's thread and the writer thread: the content not yet written, and the
// buffers that come back once written.
struct ImageStreamReceiver::Flow : std::enable_shared_from_this<Flow>
{
    asio::io_context* io = nullptr;
    std::weak_ptr<Link> link;
    std::atomic<std::uint64_t> queued{0};
    std::mutex spareMutex;
    std::vector<tBlob> spares;

    void keep(tBlob buffer)
    {
        buffer.clear();
        std::lock_guard<std::mutex> lock(spareMutex);
        if (spares.size() < kMaxSpares) spares.push_back(std::move(buffer));
    }

    // On the writer thread, after a piece was written.
    void written(std::uint64_t bytes, tBlob buffer)
    {
        keep(std::move(buffer));
        if (queued.fetch_sub(bytes) - bytes > kMaxQueuedBytes / 2) return;
        asio::post(*io, [self = shared_from_this()] {
            if (self->queued.load() > kMaxQueuedBytes / 2) return;
            if (std::shared_ptr<Link> l = self->link.lock()) l->resumeReading();
        });
    }
};

struct ImageStreamReceiver::Active
{
    Key key;
    unsigned int version = 0;
    ImageRequestView::File file;
    bool kept = false;  // the content goes to a file
    std::shared_ptr<StreamedImageFile> content;
    unsigned int nextPart = 1;
    std::map<unsigned int, tBlob> early;  // parts that came ahead of their turn
    bool stray = false;                   // a part numbered 0 came: the telegram cannot be whole
    std::uint64_t received = 0;           // payload bytes of every part taken
    std::uint64_t joined = 0;             // bytes of the parts passed on in order
};

ImageStreamReceiver::ImageStreamReceiver(Host host) : m_host(std::move(host)), m_flow(new Flow)
{
    m_flow->io = m_host.io;
    m_flow->link = m_host.link;
}

ImageStreamReceiver::~ImageStreamReceiver()
{
    if (m_active) abandon();
}

tBlob ImageStreamReceiver::spare()
{
    std::lock_guard<std::mutex> lock(m_flow->spareMutex);
    if (m_flow->spares.empty()) return tBlob();
    tBlob buffer = std::move(m_flow->spares.back());
    m_flow->spares.pop_back();
    return buffer;
}

bool ImageStreamReceiver::offer(tBlob& frame)
{
    if (frame.size() < 2) return false;
    nk_telegramPart head;
    if (!head.peekHeader(&frame, 0, frame.size() - 1)) return false;
    if (!m_active) return begin(frame, head);
    if (Key(head.telegramId(), head.sourceAddress(), head.destinationAddress()) != m_active->key) return false;
    nk_telegramPart part;
    tBlob payload = spare();
    // An invalid frame is dropped without a word, as the engine drops it.
    if (part.streamContainsTelegram(&frame, 0, frame.size() - 1, &payload)) take(part, std::move(payload));
    else m_flow->keep(std::move(payload));
    return true;
}

bool ImageStreamReceiver::begin(tBlob& frame, nk_telegramPart const& head)
{
    const unsigned int destination = head.destinationAddress();
    if ((destination != m_host.engine->ownAddress() && destination != nk_basicTelegram::ADDRESS_BROADCAST) ||
        head.partId() != 1 || head.isLastPart() || head.compression() != nk_basicTelegram::COMPRESSION_NONE ||
        head.isResponse())
        return false;
    // A telegram the engine has open could be the one this part continues.
    if (m_host.engine->incomingTelegrams_TS() != 0) return false;

    // Decoded from a copy: a frame that turns out not to begin an image goes to the engine as
    // it came.
    tBlob copy(frame);
    nk_telegramPart part;
    tBlob payload = spare();
    ImageHead image;
    if (!part.streamContainsTelegram(&copy, 0, copy.size() - 1, &payload) || !readImageHead(payload, image)) {
        m_flow->keep(std::move(payload));
        return false;
    }
    m_active.reset(new Active);
    Active& active = *m_active;
    active.key = Key(part.telegramId(), part.sourceAddress(), part.destinationAddress());
    active.version = image.version;
    active.file = image.file;
    // A type the device does not store is refused when the request is whole; its content is
    // not written meanwhile.
    active.kept = image.file.mimeType <= nk_msgFile::MIME_XML;
    std::unique_ptr<ImageWriter> writer;
    if (active.kept)
        writer = m_host.store->imageWriter(
            nk_msgFile::imageNameByMimeType_e(image.file.id, static_cast<nk_msgFile::teMimeType>(image.file.mimeType))
                .str());
    active.content = std::make_shared<StreamedImageFile>(std::move(writer));
    if (active.kept) asio::post(*m_host.writer, [content = active.content] { content->writer()->open(); });
    take(part, std::move(payload));
    return true;
}

void ImageStreamReceiver::take(nk_telegramPart& part, tBlob payload)
{
    Active& active = *m_active;
    const unsigned int id = part.partId();
    const bool repeated = id == 0 ? active.stray : id < active.nextPart || active.early.count(id) != 0;
    if (repeated) {
        m_flow->keep(std::move(payload));
        return;
    }
    active.received += payload.size();
    if (id == 0) {
        active.stray = true;
        m_flow->keep(std::move(payload));
    } else if (id == active.nextPart) {
        writeInOrder(std::move(payload));
        for (auto next = active.early.find(active.nextPart); next != active.early.end();
             next = active.early.find(active.nextPart)) {
            tBlob bytes = std::move(next->second);
            active.early.erase(next);
            writeInOrder(std::move(bytes));
        }
    } else {
        active.early.emplace(id, std::move(payload));
    }
    // As in the engine: the bound is looked at only while the telegram is not complete.
    if (part.isLastPart())
        complete(part);
    else if (m_host.maxTelegramBytes != 0 && active.received > m_host.maxTelegramBytes)
        abandon();
}

void ImageStreamReceiver::writeInOrder(tBlob payload)
{
    Active& active = *m_active;
    ++active.nextPart;
    const std::uint64_t from = active.joined;
    const std::uint64_t to = from + payload.size();
    active.joined = to;
    const std::uint64_t contentFrom = active.file.offset;
    const std::uint64_t contentTo = contentFrom + active.file.length;
    const std::uint64_t begin = std::max(from, contentFrom);
    const std::uint64_t end = std::min(to, contentTo);
    if (!active.kept || begin >= end) {
        m_flow->keep(std::move(payload));
        return;
    }
    const std::size_t offset = static_cast<std::size_t>(begin - from);
    const std::size_t count = static_cast<std::size_t>(end - begin);
    m_flow->queued += count;
    asio::post(*m_host.writer, [flow = m_flow, content = active.content, buffer = std::move(payload), offset,
                                count]() mutable {
        content->writer()->append(buffer.getBuffer() + offset, count);
        flow->written(count, std::move(buffer));
    });
    if (m_flow->queued.load() > kMaxQueuedBytes) m_host.link->pauseReading();
}

void ImageStreamReceiver::complete(nk_telegramPart const& last)
{
    Active& active = *m_active;
    // Parts that do not number 1 to n make the engine drop the telegram; a response has no
    // request here to go to.
    if (!active.early.empty() || active.stray || last.isResponse()) {
        abandon();
        return;
    }
    StreamedImageRequest request;
    request.source = last.sourceAddress();
    request.telegramId = last.telegramId();
    request.version = active.version;
    request.requestBytes = active.received;
    request.file = active.file;
    // As ImageRequestView reads it: the content, then from the fourth layout on one more byte.
    const unsigned int layout = std::min<unsigned int>(active.version, nk_message::VERSION_3);
    const std::uint64_t needed =
        static_cast<std::uint64_t>(active.file.offset) + active.file.length + (layout > nk_message::VERSION_2 ? 1 : 0);
    if (active.received < needed) {
        request.refusal = "IMAGE body cut short: " + std::to_string(active.received) +
                          " bytes do not hold the whole layout; nothing changed";
        abandon();
    } else {
        request.content = active.content;
        asio::post(*m_host.writer, [content = active.content] { content->markWritten(); });
        m_active.reset();
    }
    m_host.onComplete(std::move(request));
}

void ImageStreamReceiver::abandon()
{
    std::unique_ptr<Active> active = std::move(m_active);
    asio::post(*m_host.writer, [content = active->content] {
        if (content->writer()) content->writer()->abandon();
        content->markWritten();
    });
}

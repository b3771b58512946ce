#ifndef NK_TOOLS_IMAGE_STREAM_H
#define NK_TOOLS_IMAGE_STREAM_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>

#include <asio.hpp>

#include "device_store.h"
#include "image_request_view.h"
#include "link.h"
#include "nkProtocol.h"

// The content of one streamed image on its way to disk: its pieces are hashed and written
// on the image writer thread in the order they arrived, to a temporary file of its own.
class StreamedImageFile
{
public:
    // writer null: the content is not kept (a type the device does not store).
    explicit StreamedImageFile(std::unique_ptr<ImageWriter> writer) : m_writer(std::move(writer)) {}
    // Waits until every piece handed over was written (or the stream was abandoned); the
    // writer then belongs to the caller.
    void waitWritten();
    ImageWriter* writer() { return m_writer.get(); }

private:
    friend class ImageStreamReceiver;
    void markWritten();

    std::unique_ptr<ImageWriter> m_writer;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_written = false;
};

// A whole IMAGE request that was stored while it arrived, as the receiver hands it over.
struct StreamedImageRequest
{
    unsigned int source = 0;
    unsigned int telegramId = 0;
    unsigned int version = 0;          // as received
    std::uint64_t requestBytes = 0;    // the request's bytes, header and body
    std::string refusal;               // not empty: the body was cut short, nothing is kept
    ImageRequestView::File file;       // its one file (offset: where the content began)
    std::shared_ptr<StreamedImageFile> content;  // null when refused
};

// Stores the one file of a large IMAGE request while its parts arrive, instead of after the
// engine has joined all of them: the link's thread decodes each part, the image writer thread
// hashes and writes it, and a link faster than the disk is paused. The device then holds a
// few parts of an image, not the whole request, and the file is on disk when its last part
// comes in.
//
// It takes (see EngineBinding::setFrameFilter) the frames of one multi-part, uncompressed
// request to this device whose first part begins an IMAGE request with one file to store,
// and treats them as the engine would: invalid frames and repeated parts are dropped, parts
// that arrive ahead of their turn wait for it, a telegram whose parts do not number 1 to n
// when its last part comes is dropped, as is one that grows beyond the engine's bound on open
// telegrams. Every other frame, and every telegram while the engine has one of its own open
// (whose parts this one could continue), is left to the engine.
class ImageStreamReceiver
{
public:
    struct Host
    {
        DeviceStore* store = nullptr;
        asio::io_context* io = nullptr;       // the link's thread
        asio::thread_pool* writer = nullptr;  // the image writer thread
        std::shared_ptr<Link> link;
        nk_protocol* engine = nullptr;        // its open telegrams and own address
        unsigned long long maxTelegramBytes = 0;
        std::function<void(StreamedImageRequest)> onComplete;
    };
    // Content handed to the writer and not yet written beyond which the link pauses.
    static const std::uint64_t kMaxQueuedBytes = 8u << 20;

    explicit ImageStreamReceiver(Host host);
    // An image still arriving is abandoned: its temporary file goes.
    ~ImageStreamReceiver();
    ImageStreamReceiver(ImageStreamReceiver const&) = delete;
    ImageStreamReceiver& operator=(ImageStreamReceiver const&) = delete;

    // One whole frame; true when it was taken.
    bool offer(tBlob& frame);
    bool receiving() const { return m_active != nullptr; }

private:
    struct Flow;
    struct Active;
    using Key = std::tuple<unsigned int, unsigned int, unsigned int>;

    bool begin(tBlob& frame, nk_telegramPart const& head);
    void take(nk_telegramPart& part, tBlob payload);
    void writeInOrder(tBlob payload);
    void complete(nk_telegramPart const& last);
    void abandon();
    tBlob spare();

    Host m_host;
    std::shared_ptr<Flow> m_flow;
    std::unique_ptr<Active> m_active;
};

#endif

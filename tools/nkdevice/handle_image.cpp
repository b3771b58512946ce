#include "handlers.h"

#include <vector>

namespace
{
// Checking each file's content against its checksum and saving it (with fsync) take time
// in proportion to the content; work() does both away from the links and keeps the events
// to record for finish(). The contents are read where they arrived (see ImageRequestView).
class ImageJob : public DeviceJob
{
public:
    explicit ImageJob(std::unique_ptr<ImageRequestView> request) : m_request(std::move(request)) {}

    void start(Device& device) override { m_store = &device.store(); }

    void work() override
    {
        for (ImageRequestView::File const& file : m_request->files) {
            const tString uid = tString::fromUInt64(file.id);
            if (m_request->taskRemove != 0) {
                if (m_store->removeImage(file.id) == 0)
                    note(Device::CATEGORY_NOTICE, "image " + uid + " to remove is not held");
            } else {
                store(file, uid);
            }
        }
        // The received bytes are not needed for the answer.
        m_request.reset();
    }

    void finish(Device& device, tBlob& answer) override
    {
        for (Note const& n : m_notes) device.recordEvent(Device::EVENT_ERROR, n.category, n.text);
        device.counters().imgUpdateCount += m_stored;
        // IMAGE has no response message of its own; the state shows which images are now held.
        nk_serializer bytes;
        if (device.stateResponse(nk_message::VERSION_2)->serializeMsg(&bytes)) answer.append(bytes);
    }

    std::string what() const override { return "image"; }
    // The files are saved by work(); their events and counts must follow them.
    bool keptWhenAbandoned() const override { return true; }

private:
    struct Note
    {
        Device::EventCategory category;
        tString text;
    };

    void note(Device::EventCategory category, tString const& text) { m_notes.push_back(Note{category, text}); }

    void store(ImageRequestView::File const& file, tString const& uid)
    {
        if (file.mimeType > nk_msgFile::MIME_XML) {
            note(Device::CATEGORY_ERROR, tString::format("image %s refused: unsupported mime type %u", uid.c_str(),
                                                         static_cast<unsigned int>(file.mimeType)));
            return;
        }
        // The stored name comes from the id and mime type only; the name the sender gave is
        // never used as a path.
        const tString name =
            nk_msgFile::imageNameByMimeType_e(file.id, static_cast<nk_msgFile::teMimeType>(file.mimeType));
        std::string error;
        if (m_store->saveImage(name.str(), file.id, m_request->content(file), file.length, file.checksum, error).empty()) {
            note(Device::CATEGORY_ERROR, "image " + uid + " " + tString(error));
            return;
        }
        ++m_stored;
    }

    std::unique_ptr<ImageRequestView> m_request;
    DeviceStore* m_store = nullptr;
    std::vector<Note> m_notes;
    unsigned int m_stored = 0;
};
}

std::unique_ptr<DeviceJob> imageJob(std::unique_ptr<ImageRequestView> request)
{
    return std::unique_ptr<DeviceJob>(new ImageJob(std::move(request)));
}

#include "handlers.h"

#include <vector>

namespace
{
// What an image job leaves for finish(): the events to record and how many files it stored.
class ImageJobBase : public DeviceJob
{
public:
    void start(Device& device) override { m_store = &device.store(); }

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

protected:
    void note(Device::EventCategory category, tString const& text) { m_notes.push_back(Note{category, text}); }

    // False, with the event, for a type the device does not store.
    bool storable(ImageRequestView::File const& file)
    {
        if (file.mimeType <= nk_msgFile::MIME_XML) return true;
        note(Device::CATEGORY_ERROR, tString::format("image %s refused: unsupported mime type %u",
                                                     tString::fromUInt64(file.id).c_str(),
                                                     static_cast<unsigned int>(file.mimeType)));
        return false;
    }

    // The stored name comes from the id and mime type only; the name the sender gave is
    // never used as a path.
    static std::string storedName(ImageRequestView::File const& file)
    {
        return nk_msgFile::imageNameByMimeType_e(file.id, static_cast<nk_msgFile::teMimeType>(file.mimeType)).str();
    }

    void stored(ImageRequestView::File const& file, bool ok, std::string const& error)
    {
        if (ok) ++m_stored;
        else note(Device::CATEGORY_ERROR, "image " + tString::fromUInt64(file.id) + " " + tString(error));
    }

    DeviceStore* m_store = nullptr;

private:
    struct Note
    {
        Device::EventCategory category;
        tString text;
    };
    std::vector<Note> m_notes;
    unsigned int m_stored = 0;
};

// Checking each file's content against its checksum and saving it (with fsync) take time
// in proportion to the content; work() does both away from the links. The contents are read
// where they arrived (see ImageRequestView).
class ImageJob : public ImageJobBase
{
public:
    explicit ImageJob(std::unique_ptr<ImageRequestView> request) : m_request(std::move(request)) {}

    void work() override
    {
        for (ImageRequestView::File const& file : m_request->files) {
            if (m_request->taskRemove != 0) {
                if (m_store->removeImage(file.id) == 0)
                    note(Device::CATEGORY_NOTICE, "image " + tString::fromUInt64(file.id) + " to remove is not held");
            } else if (storable(file)) {
                std::string error;
                const bool ok = !m_store->saveImage(storedName(file), file.id, m_request->content(file), file.length,
                                                    file.checksum, error)
                                     .empty();
                stored(file, ok, error);
            }
        }
        // The received bytes are not needed for the answer.
        m_request.reset();
    }

private:
    std::unique_ptr<ImageRequestView> m_request;
};

// An image whose content was written while it arrived: work() waits for the last piece, then
// puts the file in place when it matches its checksum.
class StreamedImageJob : public ImageJobBase
{
public:
    StreamedImageJob(ImageRequestView::File const& file, std::shared_ptr<StreamedImageFile> content)
        : m_file(file), m_content(std::move(content))
    {
    }

    void work() override
    {
        m_content->waitWritten();
        if (storable(m_file)) {
            ImageWriter& writer = *m_content->writer();
            stored(m_file, m_store->commitImage(writer, storedName(m_file), m_file.id, m_file.checksum),
                   writer.error());
        }
        m_content.reset();
    }

private:
    ImageRequestView::File m_file;
    std::shared_ptr<StreamedImageFile> m_content;
};
}

std::unique_ptr<DeviceJob> imageJob(std::unique_ptr<ImageRequestView> request)
{
    return std::unique_ptr<DeviceJob>(new ImageJob(std::move(request)));
}

std::unique_ptr<DeviceJob> streamedImageJob(ImageRequestView::File const& file,
                                            std::shared_ptr<StreamedImageFile> content)
{
    return std::unique_ptr<DeviceJob>(new StreamedImageJob(file, std::move(content)));
}

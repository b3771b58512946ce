#include "image_request_view.h"

#include <algorithm>
#include <memory>

namespace
{
const nk_serializer::teSerDirection kRead = nk_serializer::SER_READ;
}

bool readImageRequest(tBlob& received, nk_message::teVersion newest, ImageRequestView& view, std::string& refusal)
{
    view = ImageRequestView();
    view.bytes.swap(received);
    const unsigned int size = view.bytes.size();
    unsigned char const* data = view.bytes.getBuffer();
    // A serializer reads a view of the bytes in place; each content is stepped over by
    // starting a new view behind it, since reading it as a blob would copy it.
    unsigned int base = 0;
    std::unique_ptr<nk_serializer> reader(new nk_serializer(data, size));
    unsigned short type = 0, version = 0;
    unsigned int count = 0;
    bool whole = reader->u16(type, kRead) && reader->u16(version, kRead) && reader->u8(view.taskRemove, kRead) &&
                 reader->u32(count, kRead);
    view.version = version;
    for (unsigned int i = 0; whole && i < count; ++i) {
        ImageRequestView::File file;
        unsigned int length = 0;
        whole = reader->u64(file.id, kRead) && reader->string(file.name, kRead) && reader->string(file.checksum, kRead) &&
                reader->u8(file.mimeType, kRead) && reader->u32(length, kRead) && reader->remaining() >= length;
        if (!whole) break;
        file.offset = base + reader->readPosition();
        file.length = length;
        view.files.push_back(file);
        base = file.offset + length;
        reader.reset(new nk_serializer(data + base, size - base));
    }
    // The revision read is the one received, or the newest this device knows when it is newer.
    const unsigned int layout = std::min<unsigned int>(version, newest);
    if (whole && layout > nk_message::VERSION_2) whole = reader->u8(view.taskFbc, kRead);
    if (!whole) {
        refusal = "IMAGE body cut short: " + std::to_string(size) + " bytes do not hold the whole layout; nothing changed";
        view.files.clear();
        return false;
    }
    return true;
}

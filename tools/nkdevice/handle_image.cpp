#include "handlers.h"

namespace
{
tString contentChecksum(tBlob& content)
{
    SHA1 sha;
    sha.Input(content.getBuffer(), content.size());
    return sha.Result();
}

void storeImage(Device& device, nk_msgFile& file)
{
    const tString uid = tString::fromUInt64(file.id());
    if (file.mimeType() > nk_msgFile::MIME_XML) {
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR,
                           tString::format("image %s refused: unsupported mime type %u", uid.c_str(),
                                           static_cast<unsigned int>(file.mimeType())));
        return;
    }
    if (contentChecksum(file.content()) != file.checksum()) {
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR,
                           "image " + uid + " refused: content does not match its checksum");
        return;
    }
    // One file per id: a new type of content replaces the old file of another extension.
    device.store().removeImage(file.id());
    // The stored name comes from the id and mime type only; the name the sender gave is
    // never used as a path.
    const tString path = file.saveToDir(tString(device.store().imagesDirectory()), true);
    if (path.isEmpty()) {
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "image " + uid + " could not be stored");
        return;
    }
    device.store().syncImagesDirectory();
    ++device.counters().imgUpdateCount;
}
}

Reply handleImage(Device& device, nk_messageImage& request)
{
    for (unsigned int i = 0; nk_msgFile* file = request.get(i); ++i) {
        if (request.taskRemove != 0) {
            if (device.store().removeImage(file->id()) == 0)
                device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_NOTICE,
                                   "image " + tString::fromUInt64(file->id()) + " to remove is not held");
        } else {
            storeImage(device, *file);
        }
    }
    // IMAGE has no response message of its own; the state shows which images are now held.
    return device.stateResponse(nk_message::VERSION_2);
}

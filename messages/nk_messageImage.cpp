#include <utility>

#include "nk_messageImage.h"

nk_messageImage::nk_messageImage(teVersion v) : nk_message(IMAGE, v) {}

nk_messageImage::nk_messageImage(nk_serializer* ser, teVersion v) : nk_message(IMAGE, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

nk_messageImage::~nk_messageImage() { clear(); }

void nk_messageImage::clear()
{
    for (nk_msgFile* file : m_images) delete file;
    m_images.clear();
}

nk_msgFile* nk_messageImage::get(unsigned int index) const
{
    return index < m_images.size() ? m_images[index] : nullptr;
}

bool nk_messageImage::imageIsPresent(unsigned long long id) const
{
    for (unsigned int i = 0; nk_msgFile* file = get(i); ++i)
        if (file->id() == id) return true;
    return false;
}

bool nk_messageImage::add(unsigned long long id, tString const& name, tString const& mimeType, tBlob* content)
{
    if (content == nullptr) return false;
    if (imageIsPresent(id)) return true;
    m_images.push_back(new nk_msgFile(id, name, mimeType, content));
    return true;
}

bool nk_messageImage::add(unsigned long long id, tString const& name, tString const& mimeType)
{
    // No duplicate test here, unlike the overload with content: stations announce a file
    // before its content this way and may do so repeatedly, so the difference stays.
    m_images.push_back(new nk_msgFile(id, name, mimeType, nullptr));
    return true;
}

bool nk_messageImage::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    if (ser == nullptr) return false;
    const bool reading = dir == nk_serializer::SER_READ;
    if (reading) clear();
    unsigned int count = reading ? 0 : this->count();

    if (!reading) {
        // One allocation for the whole body: growing the buffer while appending a large
        // file would copy it again.
        unsigned long long total = ser->size() + 1ULL + 4 + 1;
        for (nk_msgFile* file : m_images)
            if (file) total += 8 + 4 + file->name().length() + 4 + file->checksum().length() + 1 + 4 + file->content().size();
        if (total <= 0xFFFFFFFFULL) ser->reserve(static_cast<unsigned int>(total));
    }

    if (!ser->u8(taskRemove, dir) || !ser->u32(count, dir)) return false;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned long long id = 0;
        tString name, checksum;
        unsigned char mime = 0;
        if (reading) {
            tBlob content;
            if (!ser->u64(id, dir) || !ser->string(name, dir) || !ser->string(checksum, dir) || !ser->u8(mime, dir) ||
                !ser->blob(content, dir))
                return false;
            // The checksum is carried as it arrived; the receiver decides whether to verify it.
            m_images.push_back(new nk_msgFile(id, name, checksum, mime, std::move(content)));
        } else {
            nk_msgFile* file = get(i);
            if (file == nullptr) return false;
            id = file->id();
            name = file->name();
            checksum = file->checksum();
            mime = file->mimeType();
            if (!ser->u64(id, dir) || !ser->string(name, dir) || !ser->string(checksum, dir) || !ser->u8(mime, dir) ||
                !ser->blob(file->content(), dir))
                return false;
        }
    }
    if (version() > VERSION_2 && !ser->u8(taskFbc, dir)) return false;
    return true;
}

bool nk_messageImage::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "images", false);
    json->addInt("taskRemove", taskRemove);
    json->addInt("taskFbc", taskFbc);
    for (unsigned int i = 0; nk_msgFile* file = get(i); ++i) {
        tJson entry;
        entry.addUInt("uid", file->id());
        entry.addString("name", file->name());
        entry.addString("cs", file->checksum());
        entry.addInt("mime", file->mimeType());
        entry.addBinary("content", file->content());
        json->addToArray("images", entry);
    }
    return true;
}

bool nk_messageImage::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "images", false)) return false;
    clear();
    taskRemove = static_cast<unsigned char>(json->getInt("taskRemove", taskRemove));
    taskFbc = static_cast<unsigned char>(json->getInt("taskFbc", taskFbc));
    tJson entry;
    for (unsigned int i = 0; json->getArrayObject("images", i, entry); ++i) {
        tBlob content;
        entry.getBinary("content", content);
        m_images.push_back(new nk_msgFile(entry.getUInt("uid", 0), entry.getString("name"), entry.getString("cs"),
                                          static_cast<unsigned char>(entry.getInt("mime", nk_msgFile::MIME_UNSUPPORTED)),
                                          std::move(content)));
    }
    return true;
}

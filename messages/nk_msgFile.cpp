#include <cstdio>
#include <utility>

#include "SHA1.h"
#include "nk_messageImage.h"
#include "tFile.h"

namespace
{
struct tMimeEntry
{
    char const* text;
    nk_msgFile::teMimeType type;
};

// Tried in this order. "application/octet-stream" is taken as an archive on purpose: the
// station sends 7z archives under that type, and devices store them as .7z.
const tMimeEntry s_mimeTable[] = {
    {"image/png", nk_msgFile::MIME_PNG},
    {"image/jpeg", nk_msgFile::MIME_JPEG},
    {"application/pdf", nk_msgFile::MIME_PDF},
    {"application/x-7z-compressed", nk_msgFile::MIME_7Z},
    {"application/octet-stream", nk_msgFile::MIME_7Z},
    {"application/xml", nk_msgFile::MIME_XML},
    {"text/xml", nk_msgFile::MIME_XML},
};

char const* const s_extensions[] = {".png", ".jpg", ".pdf", ".7z", ".xml"};
}

nk_msgFile::nk_msgFile(unsigned long long id, tString const& name, tString const& mimeType, tBlob* content)
    : m_id(id), m_name(name), m_mimeType(getMimeType(mimeType)), m_content(content)
{
    SHA1 sha;
    sha.Input(m_content.getBuffer(), m_content.size());
    m_checksum = sha.Result();
}

nk_msgFile::nk_msgFile(unsigned long long id, tString const& name, tString const& checksum, unsigned char mimeType,
                       tBlob* content)
    : m_id(id), m_name(name), m_checksum(checksum), m_mimeType(mimeType), m_content(content)
{
}

nk_msgFile::nk_msgFile(unsigned long long id, tString const& name, tString const& checksum, unsigned char mimeType,
                       tBlob&& content)
    : m_id(id), m_name(name), m_checksum(checksum), m_mimeType(mimeType), m_content(std::move(content))
{
}

nk_msgFile::~nk_msgFile() = default;

nk_msgFile::teMimeType nk_msgFile::getMimeType(tString const& mimeType)
{
    for (tMimeEntry const& entry : s_mimeTable)
        if (mimeType == entry.text) return entry.type;
    std::printf("unsupported mime type: %s\r\n", mimeType.c_str());
    return MIME_UNSUPPORTED;
}

tString nk_msgFile::getFileExtension(teMimeType type)
{
    unsigned int value = type;
    if (value < sizeof(s_extensions) / sizeof(s_extensions[0])) return s_extensions[value];
    std::printf("unsupported mime type: %u\r\n", value);
    return ".";
}

tString nk_msgFile::imageNameByMimeType_e(unsigned long long id, teMimeType type)
{
    return "image_id" + tString::fromUInt64(id) + getFileExtension(type);
}

tString nk_msgFile::imageName(unsigned long long id) const { return imageNameByMimeType_e(id, mimeType()); }

tString nk_msgFile::saveToDir(tString directory, bool sync, tString const& fileName)
{
    directory.completePath();
    const tString target = directory + (fileName.isEmpty() ? imageName(m_id) : fileName);
    const tString temporary = target + "~";

    tFile file(tFile::FILE_CREATE_TRUNCATE_WRITE, temporary);
    // add fails too when the file could not be opened (missing or read-only directory).
    if (!file.add(m_content)) {
        file.close();
        return tString();
    }
    if (sync) file.sync();
    file.close();
    tFile::renameFile(temporary, target);
    if (sync) {
        // Sync once more under the final name so that the rename is durable as well.
        tFile durable;
        durable.open(target);
        durable.sync();
        durable.close();
    }
    return target;
}

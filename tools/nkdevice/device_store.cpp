#include "device_store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tFile.h"
#include "tool_error.h"

namespace
{
void makeDirectory(std::string const& path)
{
    if (::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) {
        struct stat st;
        if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return;
        throw ToolError("data directory " + path + " is not a directory");
    }
    throw ToolError("cannot create data directory " + path + ": " + std::strerror(errno));
}

std::vector<std::string> listDirectory(std::string const& path)
{
    std::vector<std::string> names;
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return names;
    while (dirent* entry = ::readdir(dir)) names.emplace_back(entry->d_name);
    ::closedir(dir);
    return names;
}
}

bool parseImageFileName(std::string const& name, unsigned long long& id)
{
    static const std::string prefix = "image_id";
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    const std::size_t dot = name.find('.', prefix.size());
    if (dot == std::string::npos || dot == prefix.size() || dot - prefix.size() > 20) return false;
    const std::string digits = name.substr(prefix.size(), dot - prefix.size());
    if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
    const std::string extension = name.substr(dot + 1);
    if (extension != "png" && extension != "jpg" && extension != "pdf" && extension != "7z" && extension != "xml")
        return false;
    errno = 0;
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, 10);
    if (errno == ERANGE) return false;
    id = value;
    return true;
}

DeviceStore::DeviceStore(std::string directory) : m_dir(std::move(directory))
{
    while (m_dir.size() > 1 && m_dir.back() == '/') m_dir.pop_back();
    makeDirectory(m_dir);
    makeDirectory(imagesDirectory());
    m_lockFd = ::open(path(".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lockFd < 0) throw ToolError("cannot lock data directory " + m_dir + ": " + std::strerror(errno));
    if (::flock(m_lockFd, LOCK_EX | LOCK_NB) != 0) {
        ::close(m_lockFd);
        m_lockFd = -1;
        throw ToolError("data directory " + m_dir + " is in use by another nkdevice");
    }
    removeTemporaryImages();
}

DeviceStore::~DeviceStore()
{
    if (m_lockFd >= 0) ::close(m_lockFd);
}

bool DeviceStore::read(std::string const& name, tBlob& out) const
{
    out.clear();
    return tFile::readAll(tString(path(name)), out);
}

bool DeviceStore::write(std::string const& name, tBlob const& content)
{
    return tFile::writeAtomic(tString(path(name)), content);
}

bool DeviceStore::readJson(std::string const& name, tJson& out) const
{
    out.clear();
    tBlob bytes;
    if (!read(name, bytes)) return false;
    return out.parse(tString(reinterpret_cast<char const*>(bytes.getBuffer()), bytes.size()));
}

bool DeviceStore::writeJson(std::string const& name, tJson const& content)
{
    const tString text = content.getJson(false);
    return write(name, tBlob(reinterpret_cast<unsigned char const*>(text.data()), text.length()));
}

std::vector<unsigned long long> DeviceStore::imageIds() const
{
    std::vector<unsigned long long> ids;
    for (std::string const& name : listDirectory(imagesDirectory())) {
        unsigned long long id = 0;
        if (parseImageFileName(name, id)) ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

unsigned int DeviceStore::removeImage(unsigned long long id)
{
    unsigned int removed = 0;
    for (std::string const& name : listDirectory(imagesDirectory())) {
        unsigned long long found = 0;
        if (parseImageFileName(name, found) && found == id &&
            ::unlink((imagesDirectory() + "/" + name).c_str()) == 0)
            ++removed;
    }
    if (removed > 0) syncImagesDirectory();
    return removed;
}

void DeviceStore::syncImagesDirectory() const
{
    syncDirectoryOf(imagesDirectory() + "/");
}

std::string DeviceStore::saveImage(std::string const& name, unsigned long long id, unsigned char const* content,
                                   std::size_t length, tString const& checksum, std::string& error)
{
    std::unique_ptr<ImageWriter> writer = imageWriter(name);
    const std::size_t kPiece = 1u << 20;
    if (writer->open())
        for (std::size_t done = 0; done < length && !writer->failed(); done += std::min(kPiece, length - done))
            writer->append(content + done, std::min(kPiece, length - done));
    if (!commitImage(*writer, name, id, checksum)) {
        error = writer->error();
        return std::string();
    }
    return imagesDirectory() + "/" + name;
}

std::unique_ptr<ImageWriter> DeviceStore::imageWriter(std::string const& name)
{
    // Each writer has a temporary file of its own: an image that streams in while another of
    // the same id is being stored must not write into the other's file.
    const unsigned long long n = m_temporaries.fetch_add(1) + 1;
    const std::string target = imagesDirectory() + "/" + name;
    return std::unique_ptr<ImageWriter>(new ImageWriter(target, target + "~" + std::to_string(n)));
}

bool DeviceStore::commitImage(ImageWriter& writer, std::string const& name, unsigned long long id,
                              tString const& checksum)
{
    return writer.commit(checksum, [&] {
        // One file per id: a new type of content replaces the old file of another extension.
        for (std::string const& existing : listDirectory(imagesDirectory())) {
            unsigned long long found = 0;
            if (existing != name && parseImageFileName(existing, found) && found == id)
                ::unlink((imagesDirectory() + "/" + existing).c_str());
        }
    });
}

void DeviceStore::removeTemporaryImages()
{
    // Left by a device that ended while an image was on its way; never put in place.
    bool removed = false;
    for (std::string const& name : listDirectory(imagesDirectory())) {
        const std::size_t tilde = name.find('~');
        unsigned long long id = 0;
        if (tilde != std::string::npos && parseImageFileName(name.substr(0, tilde), id))
            removed = ::unlink((imagesDirectory() + "/" + name).c_str()) == 0 || removed;
    }
    if (removed) syncImagesDirectory();
}

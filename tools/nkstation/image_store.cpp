#include "image_store.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "SHA1.h"
#include "mime_types.h"
#include "tool_error.h"

namespace
{
void writeAll(int fd, std::string const& content, std::string const& path)
{
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw ToolError("cannot write " + path + ": " + std::strerror(errno), EXIT_FAILURE_OTHER);
        done += static_cast<std::size_t>(n);
    }
}

void syncDirectory(std::string const& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

bool startsWith(std::string const& content, char const* signature, std::size_t length)
{
    return content.size() >= length && content.compare(0, length, signature, length) == 0;
}
}

ImageStore::ImageStore(std::string directory, FleetStore& store) : m_directory(std::move(directory)), m_store(store)
{
    std::error_code ec;
    std::filesystem::create_directories(m_directory, ec);
    if (ec || !std::filesystem::is_directory(m_directory))
        throw ToolError("cannot create the image directory " + m_directory + ": " + ec.message(), EXIT_INPUT);
}

std::string ImageStore::digestOf(std::string const& content)
{
    SHA1 sha;
    // SHA1::Input takes at most 4 GiB at a time.
    for (std::size_t at = 0; at < content.size(); at += 1u << 30) {
        const std::size_t piece = std::min<std::size_t>(content.size() - at, 1u << 30);
        sha.Input(reinterpret_cast<unsigned char const*>(content.data() + at), static_cast<unsigned int>(piece));
    }
    return sha.Result().str();
}

bool ImageStore::isContentId(std::string const& text)
{
    return text.size() == 40 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

ImageStore::Added ImageStore::add(std::string const& content, std::string const& type, std::string const& name)
{
    Added out;
    const std::string id = digestOf(content);
    if (auto held = m_store.image(id)) {
        std::string onDisk;
        // A row whose file went missing (removed by hand) is healed by writing the file again.
        if (read(id, onDisk)) {
            out.record = *held;
            return out;
        }
    }
    const std::string path = pathOf(id);
    std::error_code ec;
    if (!std::filesystem::exists(path, ec) || std::filesystem::file_size(path, ec) != content.size()) {
        std::string temporary = m_directory + "/." + id + ".XXXXXX";
        const int fd = ::mkstemp(temporary.data());
        if (fd < 0)
            throw ToolError("cannot create a file in " + m_directory + ": " + std::strerror(errno), EXIT_FAILURE_OTHER);
        try {
            writeAll(fd, content, temporary);
            if (::fchmod(fd, 0644) != 0 || ::fsync(fd) != 0)
                throw ToolError("cannot flush " + temporary + ": " + std::strerror(errno), EXIT_FAILURE_OTHER);
        } catch (...) {
            ::close(fd);
            ::unlink(temporary.c_str());
            throw;
        }
        ::close(fd);
        if (::rename(temporary.c_str(), path.c_str()) != 0) {
            const std::string why = std::strerror(errno);
            ::unlink(temporary.c_str());
            throw ToolError("cannot rename " + temporary + ": " + why, EXIT_FAILURE_OTHER);
        }
        syncDirectory(m_directory);
    }
    out.record.id = id;
    out.record.type = type;
    out.record.name = name;
    out.record.bytes = content.size();
    out.record.created_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    m_store.putImage(out.record);
    out.isNew = true;
    return out;
}

bool ImageStore::read(std::string const& id, std::string& content) const
{
    if (!isContentId(id)) return false;
    std::ifstream file(pathOf(id), std::ios::binary);
    if (!file) return false;
    content.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad() && digestOf(content) == id;
}

std::shared_ptr<std::string const> ImageStore::content(std::string const& id)
{
    auto found = m_recent.find(id);
    if (found != m_recent.end()) return found->second;
    auto bytes = std::make_shared<std::string>();
    if (!read(id, *bytes)) return nullptr;
    constexpr std::size_t kKeptBytes = 64u << 20;
    if (m_recentBytes + bytes->size() > kKeptBytes) {
        m_recent.clear();
        m_recentBytes = 0;
    }
    if (bytes->size() <= kKeptBytes) {
        m_recent[id] = bytes;
        m_recentBytes += bytes->size();
    }
    return bytes;
}

std::string imageTypeProblem(std::string const& type, std::string const& content)
{
    try {
        mimeTypeFor("", type);
    } catch (ToolError const& e) {
        return e.what();
    }
    auto notA = [&type](char const* what) { return "the content is not " + std::string(what) + " (type " + type + ")"; };
    if (type == "image/png" && !startsWith(content, "\x89PNG\r\n\x1a\n", 8)) return notA("a PNG file");
    if (type == "image/jpeg" && !startsWith(content, "\xff\xd8\xff", 3)) return notA("a JPEG file");
    if (type == "application/pdf" && !startsWith(content, "%PDF-", 5)) return notA("a PDF file");
    if (type == "application/x-7z-compressed" && !startsWith(content, "7z\xbc\xaf\x27\x1c", 6)) return notA("a 7z archive");
    if (type == "application/xml" || type == "text/xml") {
        const std::size_t first = content.find_first_not_of(" \t\r\n\xef\xbb\xbf");
        if (first == std::string::npos || content[first] != '<') return notA("XML");
    }
    return std::string();
}

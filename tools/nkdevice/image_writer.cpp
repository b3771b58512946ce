#include "image_writer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{
// How much written content the disk is asked to start writing back at a time.
const std::uint64_t kWritebackStep = 1u << 20;

std::string directoryOf(std::string const& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);
}
}

void syncDirectoryOf(std::string const& path)
{
    const int fd = ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

ImageWriter::ImageWriter(std::string target, std::string temporary)
    : m_target(std::move(target)), m_temporary(std::move(temporary))
{
}

ImageWriter::~ImageWriter()
{
    if (!m_committed) abandon();
}

bool ImageWriter::open()
{
    m_fd = ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (m_fd < 0) fail(std::strerror(errno));
    m_created = m_fd >= 0;
    return m_created;
}

void ImageWriter::fail(std::string const& reason)
{
    if (m_error.empty()) m_error = "could not be stored: " + reason;
}

void ImageWriter::append(unsigned char const* data, std::size_t length)
{
    // SHA1 takes at most 4 GiB per call; pieces are far smaller.
    m_sha.Input(data, static_cast<unsigned int>(length));
    if (m_fd < 0 || failed()) return;
    for (std::size_t at = 0; at < length;) {
        const ssize_t n = ::write(m_fd, data + at, length - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fail(n < 0 ? std::strerror(errno) : "nothing written");
            return;
        }
        at += static_cast<std::size_t>(n);
    }
    m_written += length;
    if (m_written - m_flushedUpTo >= kWritebackStep) {
        // Only a hint that lets the disk work while more content arrives; fsync at the end is
        // what makes the file durable.
        ::sync_file_range(m_fd, static_cast<off_t>(m_flushedUpTo), static_cast<off_t>(m_written - m_flushedUpTo),
                          SYNC_FILE_RANGE_WRITE);
        m_flushedUpTo = m_written;
    }
}

bool ImageWriter::finishContent(tString const& checksum)
{
    if (m_fd < 0 && !failed()) fail("the file was never opened");
    if (!failed() && m_sha.Result() != checksum) m_error = "refused: content does not match its checksum";
    if (!failed() && ::fsync(m_fd) != 0) fail(std::strerror(errno));
    if (failed()) {
        abandon();
        return false;
    }
    return true;
}

bool ImageWriter::putInPlace()
{
    ::close(m_fd);
    m_fd = -1;
    if (::rename(m_temporary.c_str(), m_target.c_str()) != 0) {
        fail(std::strerror(errno));
        abandon();
        return false;
    }
    m_committed = true;
    syncDirectoryOf(m_target);
    return true;
}

void ImageWriter::abandon()
{
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    if (m_created && !m_committed) ::unlink(m_temporary.c_str());
    m_created = false;
}

#include "tFile.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
int openFlags(int mode)
{
    const bool read = (mode & tFile::FILE_READ) != 0;
    // Creating, truncating or appending only makes sense for writing, so they imply it.
    const bool write = (mode & (tFile::FILE_WRITE | tFile::FILE_CREATE | tFile::FILE_TRUNCATE | tFile::FILE_APPEND)) != 0;
    int flags = O_CLOEXEC;
    if (read && write)
        flags |= O_RDWR;
    else if (write)
        flags |= O_WRONLY;
    else
        flags |= O_RDONLY;
    if (mode & tFile::FILE_CREATE) flags |= O_CREAT;
    if (mode & tFile::FILE_TRUNCATE) flags |= O_TRUNC;
    if (mode & tFile::FILE_APPEND) flags |= O_APPEND;
    return flags;
}

bool writeAll(int fd, unsigned char const* data, std::size_t length)
{
    while (length > 0) {
        ssize_t n = ::write(fd, data, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

int closeRetry(int fd)
{
    // close is not retried on EINTR: on Linux the descriptor is gone either way.
    return ::close(fd);
}

std::string directoryOf(std::string const& path)
{
    std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}
}

tFile::tFile(int mode, tString const& path)
{
    open(path, mode);
}

tFile::~tFile()
{
    close();
}

bool tFile::open(tString const& path, int mode)
{
    close();
    if (path.isEmpty()) return false;
    do {
        m_fd = ::open(path.c_str(), openFlags(mode), 0666);
    } while (m_fd < 0 && errno == EINTR);
    return m_fd >= 0;
}

bool tFile::add(unsigned char const* data, unsigned int length)
{
    if (m_fd < 0) return false;
    if (length == 0) return true;
    if (!data) return false;
    return writeAll(m_fd, data, length);
}

bool tFile::sync()
{
    return m_fd >= 0 && ::fsync(m_fd) == 0;
}

void tFile::close()
{
    if (m_fd >= 0) closeRetry(m_fd);
    m_fd = -1;
}

bool tFile::renameFile(tString const& from, tString const& to)
{
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool tFile::removeFile(tString const& path)
{
    return ::unlink(path.c_str()) == 0;
}

bool tFile::exists(tString const& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

bool tFile::readAll(tString const& path, tBlob& out)
{
    out.clear();
    tFile file;
    if (!file.open(path, FILE_READ)) return false;
    struct stat st;
    if (::fstat(file.m_fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    // A blob holds at most 4 GiB - 1 bytes; larger files are refused before any allocation.
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > 0xFFFFFFFFULL) return false;
    const std::size_t expected = static_cast<std::size_t>(st.st_size);
    unsigned char* buffer = out.resize(static_cast<unsigned int>(expected));
    std::size_t got = 0;
    while (got < expected) {
        ssize_t n = ::read(file.m_fd, buffer + got, expected - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.clear();
            return false;
        }
        if (n == 0) break;  // the file shrank meanwhile
        got += static_cast<std::size_t>(n);
    }
    out.resize(static_cast<unsigned int>(got));
    return true;
}

bool tFile::writeAtomic(tString const& path, tBlob const& content)
{
    if (path.isEmpty()) return false;
    const tString temporary = path + "~";
    tFile file;
    if (!file.open(temporary, FILE_CREATE_TRUNCATE_WRITE)) return false;
    bool ok = file.add(content) && file.sync();
    ok = (closeRetry(file.m_fd) == 0) && ok;
    file.m_fd = -1;
    if (!ok || !renameFile(temporary, path)) {
        removeFile(temporary);
        return false;
    }
    // Make the rename itself durable. Some file systems cannot sync a directory; the new
    // content is in place regardless, so that failure is not reported.
    int dir = ::open(directoryOf(path.str()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

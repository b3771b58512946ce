#include "image_request.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "tool_error.h"

namespace
{
// Overwrites the four bytes at offset with value, encoded as the serializer encodes a u32.
void patchU32(tBlob& bytes, unsigned int offset, unsigned int value)
{
    nk_serializer encoded;
    encoded.u32(value, nk_serializer::SER_WRITE);
    std::memcpy(bytes.getBuffer() + offset, encoded.getBuffer(), encoded.size());
}

class InputFile
{
public:
    explicit InputFile(std::string const& path)
        : m_path(path), m_standardInput(path == "-"), m_fd(m_standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (m_fd < 0) fail(errno);
    }
    ~InputFile()
    {
        if (!m_standardInput && m_fd >= 0) ::close(m_fd);
    }
    InputFile(InputFile const&) = delete;
    InputFile& operator=(InputFile const&) = delete;

    // The size of a regular file, else -1 (standard input, a pipe).
    long long knownSize() const
    {
        struct stat info {};
        return ::fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode) ? static_cast<long long>(info.st_size) : -1;
    }
    // Up to length bytes; 0 at the end.
    std::size_t read(unsigned char* into, std::size_t length)
    {
        int error = 0;
        const std::size_t n = read(into, length, error);
        if (error != 0) fail(error);
        return n;
    }
    // The same without throwing, for another thread: 0 at the end or with the cause in error.
    std::size_t read(unsigned char* into, std::size_t length, int& error)
    {
        for (;;) {
            const ssize_t n = ::read(m_fd, into, length);
            if (n >= 0) return static_cast<std::size_t>(n);
            if (errno != EINTR) {
                error = errno;
                return 0;
            }
        }
    }
    [[noreturn]] void fail(int error) const
    {
        throw ToolError("cannot read " + m_path + ": " + std::strerror(error), EXIT_INPUT);
    }

private:
    std::string m_path;
    bool m_standardInput;
    int m_fd;
};

const std::size_t kPiece = 1u << 20;

// Reads up to size bytes of file into into and hashes them; gives how many there were. A
// thread of its own reads while this one hashes what has arrived, so reading (which also
// pays for the fresh pages of into) and hashing take the time of the slower one, not of both.
std::size_t readHashing(InputFile& file, unsigned char* into, std::size_t size, SHA1& sha)
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::size_t arrivedBytes = 0;
    bool ended = false;
    int error = 0;
    std::thread reader([&] {
        std::size_t at = 0;
        int failure = 0;
        while (at < size) {
            const std::size_t n = file.read(into + at, std::min(kPiece, size - at), failure);
            if (n == 0) break;
            at += n;
            std::lock_guard<std::mutex> lock(mutex);
            arrivedBytes = at;
            arrived.notify_one();
        }
        std::lock_guard<std::mutex> lock(mutex);
        ended = true;
        error = failure;
        arrived.notify_one();
    });
    std::size_t hashed = 0;
    for (bool last = false; !last;) {
        std::size_t available = 0;
        {
            std::unique_lock<std::mutex> lock(mutex);
            arrived.wait(lock, [&] { return arrivedBytes > hashed || ended; });
            available = arrivedBytes;
            last = ended;
        }
        if (available > hashed) sha.Input(into + hashed, static_cast<unsigned int>(available - hashed));
        hashed = available;
    }
    reader.join();
    if (error != 0) file.fail(error);
    return hashed;
}

std::string tooLarge(std::string const& path, std::uint64_t bytes, std::uint64_t limit)
{
    return path + " (" + std::to_string(bytes) + " bytes) is larger than one request may carry (" +
           std::to_string(limit) + " bytes, a local limit of nkctl); nothing was sent";
}
}

ImageRequest imageRequestFromFile(std::string const& path, unsigned long long id, std::string const& name,
                                  std::string const& mime, std::uint64_t maxContentBytes)
{
    InputFile file(path);
    const long long size = file.knownSize();
    if (size >= 0 && static_cast<unsigned long long>(size) > maxContentBytes)
        throw ToolError(tooLarge(path, static_cast<std::uint64_t>(size), maxContentBytes), EXIT_LOCAL_LIMIT);

    // The fields in the order of nk_messageImage's body, the checksum and the content's
    // length first as placeholders: both are known only once the content has been read.
    const nk_serializer::teSerDirection write = nk_serializer::SER_WRITE;
    nk_serializer body;
    unsigned short type = nk_message::IMAGE;
    unsigned short version = nk_message::VERSION_3;
    unsigned char taskRemove = 0;
    unsigned int count = 1;
    unsigned long long uid = id;
    tString fileName(name);
    tString checksumText(std::string(40, '0'));
    unsigned char mimeType = nk_msgFile::getMimeType(tString(mime));
    unsigned int length = 0;
    body.u16(type, write);
    body.u16(version, write);
    body.u8(taskRemove, write);
    body.u32(count, write);
    body.u64(uid, write);
    body.string(fileName, write);
    body.string(checksumText, write);
    const unsigned int checksumAt = body.size() - 40;
    body.u8(mimeType, write);
    const unsigned int lengthAt = body.size();
    body.u32(length, write);
    const unsigned int contentAt = body.size();

    tBlob& bytes = body;
    SHA1 sha;
    if (size > 0) {
        // Exactly the room needed, so that the buffer never moves.
        bytes.reserve(static_cast<unsigned int>(contentAt + size + 1));
        unsigned char* into = bytes.resize(contentAt + static_cast<unsigned int>(size)) + contentAt;
        const std::size_t n = readHashing(file, into, static_cast<std::size_t>(size), sha);
        bytes.resize(contentAt + static_cast<unsigned int>(n));
    }
    // Whatever follows (standard input, or a file that grew while it was read) goes through
    // a buffer of its own: growing the request only to learn that the file has ended would
    // move all of it.
    std::vector<unsigned char> piece(64u << 10);
    for (;;) {
        if (bytes.size() - contentAt > maxContentBytes)
            throw ToolError(tooLarge(path, bytes.size() - contentAt, maxContentBytes), EXIT_LOCAL_LIMIT);
        const std::size_t n = file.read(piece.data(), piece.size());
        if (n == 0) break;
        bytes.append(piece.data(), static_cast<unsigned int>(n));
        sha.Input(piece.data(), static_cast<unsigned int>(n));
    }
    ImageRequest request;
    request.contentBytes = bytes.size() - contentAt;
    if (request.contentBytes > maxContentBytes)
        throw ToolError(tooLarge(path, request.contentBytes, maxContentBytes), EXIT_LOCAL_LIMIT);
    request.checksum = sha.Result();
    std::memcpy(bytes.getBuffer() + checksumAt, request.checksum.c_str(), 40);
    patchU32(bytes, lengthAt, static_cast<unsigned int>(request.contentBytes));
    unsigned char taskFbc = 0;
    body.u8(taskFbc, write);
    request.bytes = std::move(bytes);
    return request;
}

#ifndef NK_TOOLS_IMAGE_WRITER_H
#define NK_TOOLS_IMAGE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "SHA1.h"
#include "tString.h"

// One image file on its way into the images directory: written piece by piece to a
// temporary file while it is hashed, each piece while it is still in the cache, and put in
// place only when its content matches its checksum. The disk starts writing each piece back
// at once, so making the file durable at the end waits for little more than the last piece.
// Not thread-safe; one thread at a time may use a writer.
class ImageWriter
{
public:
    // target: the final path; temporary: where the content is written meanwhile.
    ImageWriter(std::string target, std::string temporary);
    // Removes the temporary file unless commit() put it in place.
    ~ImageWriter();
    ImageWriter(ImageWriter const&) = delete;
    ImageWriter& operator=(ImageWriter const&) = delete;

    // False with the reason in error() when the temporary file cannot be created.
    bool open();
    // Hashes and writes length bytes. After the first failure nothing more is written and
    // error() says why; the content is still hashed, so the checksum verdict stays known.
    void append(unsigned char const* data, std::size_t length);
    std::uint64_t written() const { return m_written; }

    // When every byte was written and the SHA-1 text of the content is checksum: makes the
    // file durable, calls beforeRename (which may remove files the new one replaces), renames
    // it into place and makes the rename durable. False with the reason in error(), and the
    // temporary file removed, otherwise.
    template <typename BeforeRename>
    bool commit(tString const& checksum, BeforeRename beforeRename)
    {
        if (!finishContent(checksum)) return false;
        beforeRename();
        return putInPlace();
    }
    // Removes the temporary file; the target is left as it was.
    void abandon();

    // "could not be stored: ..." or "refused: content does not match its checksum".
    std::string const& error() const { return m_error; }
    bool failed() const { return !m_error.empty(); }

private:
    bool finishContent(tString const& checksum);
    bool putInPlace();
    void fail(std::string const& reason);

    std::string m_target;
    std::string m_temporary;
    int m_fd = -1;
    SHA1 m_sha;
    std::uint64_t m_written = 0;
    std::uint64_t m_flushedUpTo = 0;
    std::string m_error;
    bool m_created = false;
    bool m_committed = false;
};

// Makes the entries of a directory durable (after a rename or an unlink in it).
void syncDirectoryOf(std::string const& path);

#endif

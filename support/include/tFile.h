#ifndef NK_TFILE_H
#define NK_TFILE_H

#include "tBlob.h"
#include "tString.h"

// A file on disk. Mode bits: FILE_WRITE opens for writing, FILE_CREATE creates a missing
// file, FILE_TRUNCATE empties it, FILE_READ opens for reading. Mode 49 (write, create,
// truncate) creates or truncates the file and writes from the start.
class NKS_API tFile
{
public:
    enum teMode
    {
        FILE_WRITE = 0x01,
        FILE_READ = 0x02,
        FILE_CREATE = 0x10,
        FILE_TRUNCATE = 0x20,
        FILE_APPEND = 0x40,
        FILE_CREATE_TRUNCATE_WRITE = 0x31,
    };

    tFile() = default;
    tFile(int mode, tString const& path);  // opens at once; see isOpen()
    ~tFile();
    tFile(tFile const&) = delete;
    tFile& operator=(tFile const&) = delete;

    bool open(tString const& path, int mode = FILE_READ);
    bool isOpen() const { return m_fd >= 0; }
    // Writes all bytes at the current position (the end for a file just created).
    bool add(unsigned char const* data, unsigned int length);
    bool add(tBlob const& data) { return add(data.getBuffer(), data.size()); }
    bool sync();  // fsync
    void close();

    static bool renameFile(tString const& from, tString const& to);  // rename(2)
    static bool removeFile(tString const& path);
    static bool exists(tString const& path);
    static bool readAll(tString const& path, tBlob& out);
    // Writes content to path through path + "~", fsync and rename, so that path never
    // holds a partial file; the directory is synced too.
    static bool writeAtomic(tString const& path, tBlob const& content);

private:
    int m_fd = -1;
};

#endif

#ifndef NK_TOOLS_DEVICE_STORE_H
#define NK_TOOLS_DEVICE_STORE_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "image_writer.h"
#include "tBlob.h"
#include "tJson.h"

// The device's data directory. Every file is replaced atomically (temporary file, fsync,
// rename, directory fsync), so a crash leaves either the old or the new content. File names
// are fixed here or built from image ids; nothing received over the link becomes a path.
class DeviceStore
{
public:
    // Creates the directory and its images/ subdirectory if needed and takes an exclusive
    // lock on it, so two devices never share one directory. Throws ToolError.
    explicit DeviceStore(std::string directory);
    ~DeviceStore();
    DeviceStore(DeviceStore const&) = delete;
    DeviceStore& operator=(DeviceStore const&) = delete;

    std::string const& directory() const { return m_dir; }
    std::string path(std::string const& name) const { return m_dir + "/" + name; }
    std::string imagesDirectory() const { return m_dir + "/images"; }

    bool read(std::string const& name, tBlob& out) const;
    // False (and the old content kept) when the file could not be written.
    bool write(std::string const& name, tBlob const& content);
    // A missing or malformed file gives false and leaves out empty.
    bool readJson(std::string const& name, tJson& out) const;
    bool writeJson(std::string const& name, tJson const& content);

    // Image ids of the files in images/ whose names have the form the library gives them
    // (image_id<N>.<extension>), ascending; temporary files are not counted.
    std::vector<unsigned long long> imageIds() const;
    // Removes every stored file of one image id; the number removed.
    unsigned int removeImage(unsigned long long id);
    // Makes a rename inside images/ durable.
    void syncImagesDirectory() const;

    // Stores content as images/name when its SHA-1 text is checksum: written to a temporary
    // file while it is hashed (see ImageWriter), made durable, and renamed only when it
    // matches; an older file of the same id in another type is removed then. The stored path,
    // or empty with the reason in error (nothing changed).
    std::string saveImage(std::string const& name, unsigned long long id, unsigned char const* content,
                          std::size_t length, tString const& checksum, std::string& error);
    // The same in steps, for content that arrives piece by piece: a writer of images/name
    // with a temporary file of its own (name~N), then commitImage once all is written. May be
    // called from any thread.
    std::unique_ptr<ImageWriter> imageWriter(std::string const& name);
    bool commitImage(ImageWriter& writer, std::string const& name, unsigned long long id, tString const& checksum);

private:
    void removeTemporaryImages();

    std::string m_dir;
    int m_lockFd = -1;
    std::atomic<unsigned long long> m_temporaries{0};
};

// The id in a stored image name, or false when name is not one (image_id<digits>.<ext>).
bool parseImageFileName(std::string const& name, unsigned long long& id);

#endif

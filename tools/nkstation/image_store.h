#ifndef NK_STATION_IMAGE_STORE_H
#define NK_STATION_IMAGE_STORE_H

#include <map>
#include <memory>
#include <string>

#include "fleet_store.h"

// The image files of a fleet's desired state, kept in a directory beside the database and named
// by the SHA-1 digest of their content (the content id): the same file uploaded twice is kept
// once, and a name can never point at other bytes. A file is written under a temporary name,
// flushed and renamed before the row that names it is stored, so a kill at any moment leaves
// either no image or a whole one.
class ImageStore
{
public:
    // Creates the directory when missing; throws ToolError when it cannot.
    ImageStore(std::string directory, FleetStore& store);

    struct Added
    {
        ImageRecord record;
        bool isNew = false;  // false: the same content was held already
    };
    // Keeps content under its digest with its mime type and a name for the panel. Throws
    // ToolError when the file cannot be written (nothing is recorded then).
    Added add(std::string const& content, std::string const& type, std::string const& name);
    // The content of a held image; false when its file is missing, unreadable or no longer
    // has the digest it is named by.
    bool read(std::string const& id, std::string& content) const;
    // The same for pushing to many panels: the last files read are kept in memory (a bounded
    // amount), so a fleet-wide change reads and checks each file once. Null when unreadable.
    std::shared_ptr<std::string const> content(std::string const& id);
    std::string const& directory() const { return m_directory; }

    // The content id of bytes: their SHA-1 digest as 40 lower-case hexadecimal digits.
    static std::string digestOf(std::string const& content);
    static bool isContentId(std::string const& text);

private:
    std::string pathOf(std::string const& id) const { return m_directory + "/" + id; }

    std::string m_directory;
    FleetStore& m_store;
    std::map<std::string, std::shared_ptr<std::string const>> m_recent;
    std::size_t m_recentBytes = 0;
};

// The mime type an upload names, checked against the types panels accept and against the
// content's first bytes where the type has a signature (PNG, JPEG, PDF, 7z, XML). Gives the
// empty text when fine, else why not.
std::string imageTypeProblem(std::string const& type, std::string const& content);

#endif

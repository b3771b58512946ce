#ifndef NK_MESSAGEIMAGE_H
#define NK_MESSAGEIMAGE_H

#include <vector>

#include "nk_message.h"
#include "tBlob.h"

// One file carried by the IMAGE message: id, name, mime type, SHA-1 text of the content and
// the content itself. Knows the mime types devices accept and how a device names and saves
// a file.
class NK_API nk_msgFile
{
public:
    enum teMimeType : unsigned char
    {
        MIME_PNG = 0,
        MIME_JPEG = 1,
        MIME_PDF = 2,
        MIME_7Z = 3,
        MIME_XML = 4,
        MIME_UNSUPPORTED = 5,
    };

    // Sender: maps the mime text, copies *content (null: no content) and computes the checksum.
    nk_msgFile(unsigned long long id, tString const& name, tString const& mimeType, tBlob* content);
    // Receiver: stores the values as they arrived; the checksum is not recomputed and the
    // mime number not checked. *content is copied when not null.
    nk_msgFile(unsigned long long id, tString const& name, tString const& checksum, unsigned char mimeType,
               tBlob* content);
    // Receiver taking over the content's storage: no copy of a large file.
    nk_msgFile(unsigned long long id, tString const& name, tString const& checksum, unsigned char mimeType,
               tBlob&& content);
    ~nk_msgFile();

    unsigned long long id() const { return m_id; }
    tString name() const { return m_name; }
    tString checksum() const { return m_checksum; }
    teMimeType mimeType() const { return static_cast<teMimeType>(m_mimeType); }
    tBlob& content() { return m_content; }

    // Exact, case-sensitive match; an unknown text prints "unsupported mime type: <text>"
    // and gives MIME_UNSUPPORTED.
    static teMimeType getMimeType(tString const& mimeType);
    // ".png", ".jpg", ".pdf", ".7z", ".xml"; anything else prints a line and gives ".".
    static tString getFileExtension(teMimeType type);
    // "image_id" + decimal id + extension, e.g. image_id42.png.
    static tString imageNameByMimeType_e(unsigned long long id, teMimeType type);
    // The stored name of a file with the given id and this file's mime type.
    tString imageName(unsigned long long id) const;

    // Writes the content to directory/imageName(id()) (or directory/fileName when fileName is
    // not empty) through the temporary name target + "~" and a rename, so the target never
    // holds a partial file. sync makes both the temporary and the final file durable.
    // Gives the target path, or the empty text when the file could not be written.
    // fileName must come from the caller, never from the wire: a received name is not a
    // safe path.
    tString saveToDir(tString directory, bool sync, tString const& fileName = tString());

private:
    unsigned long long m_id;
    tString m_name;
    tString m_checksum;
    unsigned char m_mimeType;
    tBlob m_content;
    // Kept zero for peers that share the record's layout; unused here.
    [[maybe_unused]] unsigned short m_reserved[4] = {0, 0, 0, 0};
};

// IMAGE (13): a set of files sent to a device, with two task values. The message owns its
// files. The JSON form always says "request"; there is no response class.
class NK_API nk_messageImage : public nk_message
{
public:
    explicit nk_messageImage(teVersion v);
    nk_messageImage(nk_serializer* ser, teVersion v);
    ~nk_messageImage() override;
    nk_messageImage(nk_messageImage const&) = delete;
    nk_messageImage& operator=(nk_messageImage const&) = delete;

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    void clear();
    // Borrowed pointer, null past the end.
    nk_msgFile* get(unsigned int index) const;
    unsigned int count() const { return static_cast<unsigned int>(m_images.size()); }
    bool imageIsPresent(unsigned long long id) const;
    // False for null content; true without adding when the id is already present.
    bool add(unsigned long long id, tString const& name, tString const& mimeType, tBlob* content);
    // Adds a file without content and without the duplicate test (deliberately).
    bool add(unsigned long long id, tString const& name, tString const& mimeType);

    unsigned char taskRemove = 0;
    unsigned char taskFbc = 0;  // in the binary body from version 3 on

private:
    std::vector<nk_msgFile*> m_images;
};

#endif

#ifndef NK_TOOLS_IMAGE_REQUEST_VIEW_H
#define NK_TOOLS_IMAGE_REQUEST_VIEW_H

#include <string>
#include <vector>

#include "nkProtocol.h"

// An IMAGE request read in place: the fields of its files, and where each file's content
// lies in the received bytes, which the view keeps. nk_messageImage copies every content out
// of the received bytes, so a large image would be held twice while the device checks and
// stores it. The fields are read as nk_messageImage reads them.
struct ImageRequestView
{
    struct File
    {
        unsigned long long id = 0;
        tString name;
        tString checksum;
        unsigned char mimeType = 0;
        unsigned int offset = 0;  // of the content in bytes
        unsigned int length = 0;
    };

    tBlob bytes;  // the request as received: header and body
    unsigned int version = 0;  // as received
    unsigned char taskRemove = 0;
    unsigned char taskFbc = 0;
    std::vector<File> files;

    unsigned char const* content(File const& file) const { return bytes.getBuffer() + file.offset; }
};

// Takes the received request out of received (which is left empty) and reads it in its own
// layout revision, or in newest when it is newer than that. False, with the reason, when the body is cut short: a request that would
// change the device is not taken partly. Bytes after the layout (a newer revision) are kept
// unread.
bool readImageRequest(tBlob& received, nk_message::teVersion newest, ImageRequestView& view, std::string& refusal);

#endif

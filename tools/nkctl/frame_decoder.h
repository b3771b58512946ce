#ifndef NK_TOOLS_FRAME_DECODER_H
#define NK_TOOLS_FRAME_DECODER_H

#include <map>
#include <tuple>
#include <vector>

#include "nkProtocol.h"

// Finds telegrams in a captured byte stream and describes each as one JSON object: its
// header, its parts, and the message it carries. Unlike an engine it receives for every
// address, keeps responses, and skips stray bytes ahead of a frame, so a capture from the
// middle of a conversation decodes all the same.
class FrameDecoder
{
public:
    // Adds bytes; gives one object per telegram completed and one per invalid frame.
    std::vector<tJson> feed(tBlob const& bytes);
    // Reports the telegrams still missing parts and the bytes left over.
    std::vector<tJson> finish();

private:
    struct PartInfo
    {
        unsigned int partId;
        bool last;
        unsigned int timestamp;
        tBlob payload;
    };
    struct Pending
    {
        unsigned int src, dst, id;
        nk_basicTelegram::teType type;
        nk_basicTelegram::teCompression compression;
        std::vector<PartInfo> parts;
    };
    using Key = std::tuple<unsigned int, unsigned int, unsigned int>;

    tJson describe(Pending& telegram);

    tBlob m_stream;
    std::map<Key, Pending> m_pending;
    unsigned long long m_skipped = 0;
};

// Input for decode: text made of hexadecimal digit pairs and white space is converted to its
// bytes; anything else is taken as the raw captured bytes.
tBlob bytesFromCapture(tBlob const& input);

#endif

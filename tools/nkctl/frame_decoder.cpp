#include "frame_decoder.h"

#include <algorithm>
#include <cctype>

#include "commands.h"
#include "station.h"

namespace
{
const unsigned int kAbsent = 0xFFFFFFFFu;

tJson messageDescription(tBlob& content)
{
    tJson out;
    std::string error;
    tBlob copy(content);
    std::unique_ptr<nk_message> message = decodeMessage(&copy, error);
    if (!message) {
        out.addString("error", tString(error));
        return out;
    }
    out.addString("name", message->typeName());
    out.addUInt("version", message->version());
    out.addObject("json", messageJson(*message));
    return out;
}
}

tBlob bytesFromCapture(tBlob const& input)
{
    tBlob bytes;
    int high = -1;
    for (unsigned int i = 0; i < input.size(); ++i) {
        const unsigned char c = input.getBuffer()[i];
        if (std::isspace(c)) continue;
        if (!std::isxdigit(c)) return input;
        const int value = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
        if (high < 0) {
            high = value;
        } else {
            bytes.append(static_cast<unsigned char>(high << 4 | value));
            high = -1;
        }
    }
    return high < 0 && bytes.size() > 0 ? bytes : input;
}

std::vector<tJson> FrameDecoder::feed(tBlob const& bytes)
{
    std::vector<tJson> out;
    m_stream.append(bytes);
    for (;;) {
        const unsigned int start = m_stream.getIndexOf(0x01);
        if (start == kAbsent) {
            m_skipped += m_stream.size();
            m_stream.clear();
            break;
        }
        // Bytes ahead of the first start byte can never become a frame.
        if (start > 0) {
            m_skipped += start;
            m_stream.slice(start);
        }
        if (m_stream.getIndexOf(0x02) == kAbsent) break;
        const unsigned int before = m_stream.size();
        nk_telegramPart part;
        if (!part.streamContainsTelegram(&m_stream)) {
            tJson bad;
            bad.addString("error", "invalid frame (bad CRC or truncated body)");
            bad.addUInt("bytes", before - m_stream.size());
            out.push_back(bad);
            continue;
        }
        const Key key(part.telegramId(), part.sourceAddress(), part.destinationAddress());
        Pending& telegram = m_pending[key];
        if (telegram.parts.empty()) {
            telegram.src = part.sourceAddress();
            telegram.dst = part.destinationAddress();
            telegram.id = part.telegramId();
            telegram.type = part.type();
            telegram.compression = part.compression();
        }
        telegram.parts.push_back(PartInfo{part.partId(), part.isLastPart(), part.timestamp(), tBlob(*part.payload())});
        if (part.isLastPart()) {
            out.push_back(describe(telegram));
            m_pending.erase(key);
        }
    }
    return out;
}

tJson FrameDecoder::describe(Pending& telegram)
{
    tJson out;
    tJson header;
    header.addUInt("src", telegram.src);
    header.addUInt("dst", telegram.dst);
    header.addUInt("id", telegram.id);
    header.addString("type", nk_basicTelegram::typeName(telegram.type));
    header.addString("compression", nk_basicTelegram::compressionName(telegram.compression));
    header.addUInt("timestamp", telegram.parts.empty() ? 0 : telegram.parts.front().timestamp);
    out.addObject("telegram", header);

    std::stable_sort(telegram.parts.begin(), telegram.parts.end(),
                     [](PartInfo const& a, PartInfo const& b) { return a.partId < b.partId; });
    tBlob joined;
    bool complete = true;
    for (std::size_t i = 0; i < telegram.parts.size(); ++i) {
        PartInfo& part = telegram.parts[i];
        tJson description;
        description.addUInt("part", part.partId);
        description.addBool("last", part.last);
        description.addUInt("payload", part.payload.size());
        out.addToArray("parts", description);
        if (part.partId != i + 1) complete = false;
        joined.append(part.payload);
    }
    if (!complete) {
        out.addString("error", "parts missing or repeated");
        return out;
    }
    tBlob content;
    bool decoded = true;
    if (telegram.compression == nk_basicTelegram::COMPRESSION_RLE)
        decoded = tCompression::decodeRLE(joined, content);
    else if (telegram.compression == nk_basicTelegram::COMPRESSION_HUFF)
        decoded = tCompression::decodeHuffman(joined, content);
    else
        content = joined;
    if (!decoded) {
        out.addString("error", "compressed content does not decode");
        return out;
    }
    out.addUInt("content", content.size());
    out.addObject("message", messageDescription(content));
    return out;
}

std::vector<tJson> FrameDecoder::finish()
{
    std::vector<tJson> out;
    for (auto& entry : m_pending) {
        tJson incomplete;
        incomplete.addString("error", "telegram incomplete: last part missing");
        incomplete.addUInt("id", entry.second.id);
        incomplete.addUInt("parts", entry.second.parts.size());
        out.push_back(incomplete);
    }
    m_pending.clear();
    if (m_stream.size() > 0 || m_skipped > 0) {
        tJson rest;
        rest.addString("note", "bytes outside frames skipped");
        rest.addUInt("bytes", m_skipped + m_stream.size());
        out.push_back(rest);
    }
    m_stream.clear();
    m_skipped = 0;
    return out;
}

#include "nk_telegram.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "base128.h"
#include "crc8.h"
#include "leBytes.h"

namespace
{
const unsigned char kFrameStart = 0x01;
const unsigned char kFrameEnd = 0x02;
// source, destination, id, part id, time stamp (u32 each), flags (u8), payload length (u32)
const unsigned int kHeaderBytes = 25;
const unsigned int kCrcBytes = 1;
const unsigned int kSmallPayload = 256;
const unsigned int kTypeMask = 0x03;
const unsigned int kPartInfoMask = 0x0C;
const unsigned int kCompressionMask = 0x30;

uint64_t frameBytes(uint64_t payloadLength)
{
    uint64_t body = kHeaderBytes + payloadLength + kCrcBytes;
    return 2 + (8 * body + 6) / 7;
}

// Payload bytes encoded (or decoded) per step while a CRC runs over the same bytes: the CRC
// then reads them from the first-level cache instead of making a second pass of its own.
const unsigned int kCrcPiece = 16384;
const unsigned int kEncodedPiece = kCrcPiece / 7 * 8;  // whole 8-byte groups: 18,720 bytes

// Decodes n encoded bytes to dst and continues crc over what they decode to; with check,
// also whether every one of them was an encoded byte (see base128::decodeChecked).
bool decodeWithCrc(unsigned char* dst, unsigned char const* src, unsigned int n, unsigned char& crc, bool check)
{
    bool allEncoded = true;
    while (n != 0) {
        const unsigned int take = n < kEncodedPiece ? n : kEncodedPiece;
        const unsigned int produced = base128::decodedSize(take);
        if (check)
            allEncoded &= base128::decodeChecked(dst, src, take);
        else
            base128::decode(dst, src, take);
        crc = crc_crc8update(crc, dst, produced);
        dst += produced;
        src += take;
        n -= take;
    }
    return allEncoded;
}

// Base-128 encodes a body given in pieces straight into the frame. Seven input bytes are
// exactly eight output bytes, so encoding in multiples of seven gives the same bytes as
// encoding the joined body at once; only the seams go through a small carry buffer.
class tBase128Writer
{
public:
    explicit tBase128Writer(unsigned char* dst) : m_dst(dst) {}

    void feed(unsigned char const* p, unsigned int n)
    {
        if (m_carried) {
            unsigned int take = 7 - m_carried < n ? 7 - m_carried : n;
            std::memcpy(m_carry + m_carried, p, take);
            m_carried += take;
            p += take;
            n -= take;
            if (m_carried < 7) return;
            m_dst += base128::encode(m_dst, m_carry, 7);
            m_carried = 0;
        }
        unsigned int whole = n / 7 * 7;
        if (whole) m_dst += base128::encode(m_dst, p, whole);
        std::memcpy(m_carry, p + whole, n - whole);
        m_carried = n - whole;
    }

    unsigned char* finish()
    {
        if (m_carried) m_dst += base128::encode(m_dst, m_carry, m_carried);
        m_carried = 0;
        return m_dst;
    }

private:
    unsigned char* m_dst;
    unsigned char m_carry[7];
    unsigned int m_carried = 0;
};
}

nk_telegramPart::nk_telegramPart() : m_u32PartId(0), m_ePartInfo(static_cast<tePartInfo>(0)) {}

nk_telegramPart::nk_telegramPart(nk_telegramPart* other)
    : nk_basicTelegram(other), m_u32PartId(0), m_ePartInfo(static_cast<tePartInfo>(0))
{
    if (!other) return;
    m_u32PartId = other->m_u32PartId;
    m_ePartInfo = other->m_ePartInfo;
    // The copy owns its bytes: it may outlive the telegram that holds other's.
    if (other->m_pHost) ownPayload()->append(other->payloadBytes(), other->hostedReadable());
}

nk_telegramPart::nk_telegramPart(unsigned int id, unsigned int src, unsigned int dest, unsigned int partId,
                                 unsigned int timestamp, bool lastPart, tBlob* payload, teType type,
                                 teCompression compression)
    : nk_basicTelegram(src, dest, id, timestamp, type), m_u32PartId(partId),
      m_ePartInfo(lastPart ? PARTINFO_LAST_PART : PARTINFO_NOT_LAST_PART)
{
    m_eCompression = compression;
    if (payload && payload->size() != 0) ownPayload()->append(*payload);
}

void nk_telegramPart::setHeader(unsigned int id, unsigned int src, unsigned int dest, unsigned int partId,
                                unsigned int timestamp, bool lastPart, teType type, teCompression compression)
{
    setBasicHeader(src, dest, id, timestamp, type, compression);
    m_u32PartId = partId;
    m_ePartInfo = lastPart ? PARTINFO_LAST_PART : PARTINFO_NOT_LAST_PART;
}

tString nk_telegramPart::partInfo(tePartInfo info)
{
    switch (info) {
    case PARTINFO_NOT_LAST_PART: return tString("PARTINFO_NOT_LAST_PART");
    case PARTINFO_LAST_PART: return tString("PARTINFO_LAST_PART");
    }
    return tString("invalid");
}

void nk_telegramPart::host(tBlob* host, unsigned int offset, unsigned int length)
{
    if (m_pPayload) m_pPayload->clear();
    m_pHost = host;
    m_u32HostOffset = offset;
    m_u32HostLength = length;
}

unsigned char const* nk_telegramPart::payloadBytes() const
{
    static const tBlob kEmpty;
    if (!m_pHost) return m_pPayload ? static_cast<tBlob const*>(m_pPayload)->getBuffer() : kEmpty.getBuffer();
    return static_cast<tBlob const*>(m_pHost)->getBuffer() + (hostedReadable() ? m_u32HostOffset : 0);
}

unsigned int nk_telegramPart::payloadLength() const
{
    // A hosted part keeps its length when its host has moved on (a joined content that was
    // decoded or handed to the receive callback): the engine counts parts by it.
    if (m_pHost) return m_u32HostLength;
    return m_pPayload ? m_pPayload->size() : 0;
}

unsigned int nk_telegramPart::hostedReadable() const
{
    // Only as far as the host still reaches: a caller that shrinks a telegram's own payload
    // must not make its parts read beyond the end.
    const unsigned int hostSize = m_pHost->size();
    if (m_u32HostOffset >= hostSize) return 0;
    return hostSize - m_u32HostOffset < m_u32HostLength ? hostSize - m_u32HostOffset : m_u32HostLength;
}

void nk_telegramPart::copyHostedBytes()
{
    if (!m_pHost) return;
    tBlob own(payloadBytes(), hostedReadable());
    m_pHost = nullptr;
    ownPayload()->swap(own);
}

tBlob* nk_telegramPart::payload()
{
    copyHostedBytes();
    return ownPayload();
}

tBlob* nk_telegramPart::isSinglePartTelegram()
{
    tBlob spare;
    return isSinglePartTelegram(spare);
}

tBlob* nk_telegramPart::isSinglePartTelegram(tBlob& spare)
{
    if (!isLastPart() || m_u32PartId != 1) return nullptr;
    copyHostedBytes();
    deCompress(spare);
    return m_pPayload;
}

void nk_telegramPart::moveOnto(tBlob* target)
{
    const unsigned int length = payloadLength();
    const unsigned int at = target->size();
    target->append(payloadBytes(), length);
    host(target, at, length);
}

void nk_telegramPart::settle(std::size_t keepBytes)
{
    m_pHost = nullptr;
    if (m_pPayload && m_pPayload->capacity() > keepBytes) tBlob().swap(*m_pPayload);
}

nk_telegramPart* nk_telegramPart::headerCopy() const
{
    nk_telegramPart* p = new nk_telegramPart();
    p->m_u32Src = m_u32Src;
    p->m_u32Dest = m_u32Dest;
    p->m_u32Id = m_u32Id;
    p->m_u32Timestamp = m_u32Timestamp;
    p->m_eType = m_eType;
    p->m_eCompression = m_eCompression;
    p->m_u32PartId = m_u32PartId;
    p->m_ePartInfo = m_ePartInfo;
    return p;
}

nk_telegramPart* nk_telegramPart::detach()
{
    nk_telegramPart* p = headerCopy();
    // The new part may outlive whatever hosts these bytes: it gets a copy of its own.
    copyHostedBytes();
    std::swap(p->m_pPayload, m_pPayload);
    return p;
}

unsigned int nk_telegramPart::serializedSize() const
{
    uint64_t n = frameBytes(m_pHost ? hostedReadable() : payloadLength());
    return n > 0xFFFFFFFFu ? 0 : static_cast<unsigned int>(n);
}

bool nk_telegramPart::serialize(tBlob* out)
{
    if (!out) return false;
    const unsigned int length = m_pHost ? hostedReadable() : payloadLength();
    const uint64_t total = frameBytes(length);
    if (total + out->size() > 0xFFFFFFFFu) return false;

    unsigned char header[kHeaderBytes];
    nk::writeLE<uint32_t>(header + 0, m_u32Src);
    nk::writeLE<uint32_t>(header + 4, m_u32Dest);
    nk::writeLE<uint32_t>(header + 8, m_u32Id);
    nk::writeLE<uint32_t>(header + 12, m_u32PartId);
    nk::writeLE<uint32_t>(header + 16, m_u32Timestamp);
    // The three fields sit in disjoint bits; '+' and '|' give the same byte.
    header[20] = static_cast<unsigned char>((m_eType & kTypeMask) | (m_ePartInfo & kPartInfoMask) |
                                            (m_eCompression & kCompressionMask));
    nk::writeLE<uint32_t>(header + 21, length);
    unsigned char const* payload = payloadBytes();
    const unsigned int start = out->size();
    unsigned char* frame = out->resize(start + static_cast<unsigned int>(total)) + start;
    frame[0] = kFrameStart;
    if (length <= kSmallPayload) {
        // A small body is put together first and encoded in one call.
        unsigned char body[kHeaderBytes + kSmallPayload + kCrcBytes];
        std::memcpy(body, header, kHeaderBytes);
        std::memcpy(body + kHeaderBytes, payload, length);
        body[kHeaderBytes + length] = crc_crc8init(body, kHeaderBytes + length);
        frame[1 + base128::encode(frame + 1, body, kHeaderBytes + length + kCrcBytes)] = kFrameEnd;
        return true;
    }
    unsigned char crc = crc_crc8init(header, kHeaderBytes);
    tBase128Writer writer(frame + 1);
    writer.feed(header, kHeaderBytes);
    for (unsigned int done = 0; done < length;) {
        const unsigned int take = length - done < kCrcPiece ? length - done : kCrcPiece;
        writer.feed(payload + done, take);
        crc = crc_crc8update(crc, payload + done, take);
        done += take;
    }
    writer.feed(&crc, kCrcBytes);
    *writer.finish() = kFrameEnd;
    return true;
}

bool nk_telegramPart::streamContainsTelegram(tBlob* stream)
{
    if (!stream || stream->size() == 0) return false;
    return streamContainsTelegram(stream, stream->getIndexOf(kFrameStart), stream->getIndexOf(kFrameEnd));
}

bool nk_telegramPart::streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex)
{
    return readFrame(stream, startIndex, endIndex, nullptr, false) == kFrameValid;
}

bool nk_telegramPart::streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex,
                                             tBlob* appendTo)
{
    return readFrame(stream, startIndex, endIndex, appendTo, false) == kFrameValid;
}

bool nk_telegramPart::streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex,
                                             tBlob* appendTo, bool* endUnconfirmed)
{
    const int result = readFrame(stream, startIndex, endIndex, appendTo, endUnconfirmed != nullptr);
    if (endUnconfirmed) *endUnconfirmed = result == kFrameUnconfirmed;
    return result == kFrameValid;
}

unsigned int nk_telegramPart::frameEndFromHeader(tBlob const* stream, unsigned int startIndex)
{
    if (!stream || startIndex >= stream->size() || stream->size() - startIndex - 1 < 32) return 0xFFFFFFFFu;
    unsigned char header[28];
    base128::decode(header, stream->getBuffer() + startIndex + 1, 32);
    const uint64_t end = uint64_t(startIndex) + frameBytes(nk::readLE<uint32_t>(header + 21)) - 1;
    return end >= 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned int>(end);
}

bool nk_telegramPart::peekHeader(tBlob const* stream, unsigned int startIndex, unsigned int endIndex)
{
    if (!stream || startIndex == 0xFFFFFFFFu || endIndex >= stream->size() ||
        static_cast<int32_t>(endIndex) <= static_cast<int32_t>(startIndex))
        return false;
    const unsigned int encodedLength = endIndex - startIndex - 1;
    if (base128::decodedSize(encodedLength) < kHeaderBytes) return false;
    unsigned char header[28];
    const unsigned int take = encodedLength < 32 ? encodedLength : 32;
    base128::decode(header, stream->getBuffer() + startIndex + 1, take);
    unsigned int length = 0;
    return readHeader(header, kHeaderBytes, length);
}

bool nk_telegramPart::readHeader(unsigned char const* b, unsigned int n, unsigned int& payloadLength)
{
    if (n < kHeaderBytes) return false;
    m_u32Src = nk::readLE<uint32_t>(b + 0);
    m_u32Dest = nk::readLE<uint32_t>(b + 4);
    m_u32Id = nk::readLE<uint32_t>(b + 8);
    m_u32PartId = nk::readLE<uint32_t>(b + 12);
    m_u32Timestamp = nk::readLE<uint32_t>(b + 16);
    const unsigned int flags = b[20];
    m_eType = static_cast<teType>(flags & kTypeMask);
    m_ePartInfo = static_cast<tePartInfo>(flags & kPartInfoMask);
    m_eCompression = static_cast<teCompression>(flags & kCompressionMask);
    payloadLength = nk::readLE<uint32_t>(b + 21);
    return true;
}

int nk_telegramPart::readFrame(tBlob* stream, unsigned int startIndex, unsigned int endIndex, tBlob* appendTo,
                               bool checkBetween, tBlob* spare)
{
    if (!stream || stream->size() == 0) return kFrameInvalid;
    // Deliberate: a stray end byte ahead of the next start byte is not skipped, and the
    // stream waits until it is gone. Peers rely on a frame never being cut out of bytes
    // that began before it, so this stays.
    if (startIndex == 0xFFFFFFFFu || endIndex >= stream->size() ||
        static_cast<int32_t>(endIndex) <= static_cast<int32_t>(startIndex))
        return kFrameInvalid;
    const unsigned int encodedLength = endIndex - startIndex - 1;
    unsigned char const* encoded = stream->getBuffer() + startIndex + 1;
    bool valid = false;
    if (encodedLength != 0 && (!appendTo || encodedLength <= 32)) {
        // The decoded body is never longer than the encoded bytes that are present, so this
        // allocation is bounded by the input. It becomes the payload when the frame is good.
        tBlob local;
        tBlob& body = spare && !appendTo ? *spare : local;
        body.clear();  // what the spare held need not be kept, or moved
        const unsigned int bodyLength = base128::decodedSize(encodedLength);
        unsigned char* b = body.resize(bodyLength);
        unsigned char crc = 0;
        if (!decodeWithCrc(b, encoded, encodedLength, crc, checkBetween)) return kFrameUnconfirmed;
        if (crc == 0) valid = readBody(body);
        // Too short to decode in place: the payload is appended and named from there.
        if (valid && appendTo) moveOnto(appendTo);
    } else if (encodedLength != 0) {
        // Whole 8-byte groups decode to whole 7-byte groups on their own, so the first 32
        // encoded bytes give the header and the first three payload bytes, and the rest
        // decodes straight to its place behind them.
        const unsigned int bodyLength = base128::decodedSize(encodedLength);
        unsigned char head[28];
        unsigned char crc = 0;
        bool allEncoded = decodeWithCrc(head, encoded, 32, crc, checkBetween);
        const unsigned int at = appendTo->size();
        if (static_cast<uint64_t>(at) + bodyLength > 0xFFFFFFFFu) {
            if (!allEncoded) return kFrameUnconfirmed;
        } else {
            unsigned char* tail = appendTo->resize(at + bodyLength - kHeaderBytes) + at;
            std::memcpy(tail, head + kHeaderBytes, 28 - kHeaderBytes);
            allEncoded &= decodeWithCrc(tail + 28 - kHeaderBytes, encoded + 32, encodedLength - 32, crc, checkBetween);
            unsigned int length = 0;
            // As readBody: the length must fit the bytes behind the header.
            if (allEncoded && crc == 0 && nk::readLE<uint32_t>(head + 21) <= bodyLength - kHeaderBytes) {
                valid = readHeader(head, kHeaderBytes, length);
                appendTo->resize(at + length);
                host(appendTo, at, length);
            } else {
                appendTo->resize(at);
                if (!allEncoded) return kFrameUnconfirmed;
            }
        }
    }
    stream->slice(endIndex + 1);
    return valid ? kFrameValid : kFrameInvalid;
}

bool nk_telegramPart::readBody(tBlob& body)
{
    // Fields are taken one by one, each checked against the bytes that remain; those read
    // before a short one keep their new values.
    unsigned char const* b = body.getBuffer();
    const unsigned int n = body.size();
    unsigned int at = 0;
    auto u32 = [&](unsigned int& field) {
        if (n - at < 4) return false;
        field = nk::readLE<uint32_t>(b + at);
        at += 4;
        return true;
    };
    unsigned int flags = 0;
    if (!u32(m_u32Src) || !u32(m_u32Dest) || !u32(m_u32Id) || !u32(m_u32PartId) || !u32(m_u32Timestamp))
        return false;
    if (n - at < 1) return false;
    flags = b[at++];
    if (m_pPayload) m_pPayload->clear();
    m_pHost = nullptr;
    unsigned int length = 0;
    if (!u32(length)) return false;
    // Refused before anything is allocated or moved for it.
    if (length > n - at) return false;
    m_eType = static_cast<teType>(flags & kTypeMask);
    m_ePartInfo = static_cast<tePartInfo>(flags & kPartInfoMask);
    m_eCompression = static_cast<teCompression>(flags & kCompressionMask);
    // The decoded body becomes the payload without a copy: drop the header in front and
    // whatever follows the payload (the CRC byte).
    body.slice(at);
    body.resize(length);
    ownPayload()->swap(body);
    return true;
}

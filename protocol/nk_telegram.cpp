#include "nk_telegram.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "tCompression.h"
#include "tTime.h"

namespace
{
const int kErrorTryAgain = 11;        // EAGAIN on the platforms the library runs on
const unsigned int kRetryWait_ms = 500;
const unsigned int kMaxRetries = 4;   // the fifth zero return in a row gives up
const long long kDefaultTimeout_s = 10;
const unsigned int kSendBatch = 1u << 20;  // bytes of frames handed to the link per call

nk_basicTelegram::teType outgoingType(bool isResponse, nk_telegram::tResponseCallback callback)
{
    if (isResponse) return nk_basicTelegram::TYPE_RESPONSE;
    return callback ? nk_basicTelegram::TYPE_REQUEST_FORCE_RESPONSE : nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE;
}

// Hands all of buffer to the link, waiting on EAGAIN; retries counts the zero returns in a row.
bool sendAll(nk_server* server, void* ctx, nk_telegram::tSendFcn sendFn, tBlob& buffer, unsigned char& retries)
{
    unsigned int offset = 0;
    unsigned int remaining = buffer.size();
    int error = 0;
    while (remaining != 0) {
        unsigned int n = sendFn(server, ctx, buffer.getBuffer() + offset, remaining, &error);
        if (n != 0) {
            if (n > remaining) n = remaining;  // a link function that claims too much
            offset += n;
            remaining -= n;
            retries = 0;
        } else if (error == kErrorTryAgain) {
            tTime::sleep(kRetryWait_ms);
            ++retries;
        } else {
            ++retries;
            break;
        }
        if (retries > kMaxRetries) return false;
    }
    return offset == buffer.size();
}
}

unsigned int nk_telegram::s_u32MaxPayloadSize = 0x100000;

void nk_telegram::setMaxPayloadSize(unsigned int size)
{
    // A size of 0 could never cut anything off the content.
    if (size != 0) s_u32MaxPayloadSize = size;
}

nk_telegram::nk_telegram(unsigned int id, unsigned int src, unsigned int dest, tBlob* content,
                         tResponseCallback callback, void* context, bool isResponse, void* userData,
                         bool allowCompression)
    : nk_basicTelegram(src, dest, id, static_cast<unsigned int>(tTime::now()), outgoingType(isResponse, callback)),
      m_bSent(false), m_pCallback(callback), m_pContext(context), m_i64Timeout_s(kDefaultTimeout_s),
      m_pUserData(userData), m_bCompressionAllowed(allowCompression), m_u8SendRetries(0), m_bIncoming(false),
      m_u32HighestPartId(0)
{
    fill(content, nullptr);
}

bool nk_telegram::prepareForReuse(std::size_t keepBytes)
{
    if (m_bIncoming || m_parts.size() > 1 || (m_pPayload && m_pPayload->capacity() > keepBytes)) return false;
    nk_telegramPart* part = m_parts.empty() ? nullptr : m_parts[0];
    if (part && (part->m_pHost || (part->m_pPayload && part->m_pPayload->capacity() > keepBytes))) return false;
    // Nothing of the application's is kept past its telegram.
    m_pCallback = nullptr;
    m_pContext = nullptr;
    m_pUserData = nullptr;
    return true;
}

void nk_telegram::reuse(unsigned int id, unsigned int src, unsigned int dest, tBlob* content,
                        tResponseCallback callback, void* context, bool isResponse, void* userData,
                        bool allowCompression)
{
    setBasicHeader(src, dest, id, static_cast<unsigned int>(tTime::now()), outgoingType(isResponse, callback),
                   COMPRESSION_NONE);
    if (m_pPayload) m_pPayload->clear();
    m_bSent = false;
    m_pCallback = callback;
    m_pContext = context;
    m_i64Timeout_s = kDefaultTimeout_s;
    m_pUserData = userData;
    m_bCompressionAllowed = allowCompression;
    m_u8SendRetries = 0;
    nk_telegramPart* kept = m_parts.empty() ? nullptr : m_parts[0];
    m_parts.clear();
    fill(content, kept);
}

void nk_telegram::fill(tBlob* content, nk_telegramPart* kept)
{
    std::unique_ptr<nk_telegramPart> part(kept);
    tBlob compressed;
    tBlob* form = part ? part->ownPayload() : &compressed;
    form->clear();
    if (checkCompression(content, form))
        split(form, part.release());
    else if (content)
        split(content, part.release());
}

nk_telegram::nk_telegram(nk_telegramPart* first)
    : nk_basicTelegram(first), m_bSent(false), m_pCallback(nullptr), m_pContext(nullptr),
      m_i64Timeout_s(kDefaultTimeout_s), m_pUserData(nullptr), m_bCompressionAllowed(true), m_u8SendRetries(0),
      m_bIncoming(true), m_u32HighestPartId(0)
{
    if (!first) return;
    // The header's copy took the payload a part owns; one that names a range gives its bytes.
    if (first->m_pHost) ownPayload()->append(first->payloadBytes(), first->hostedReadable());
    m_parts.push_back(new nk_telegramPart(first));
    m_u32HighestPartId = first->partId();
}

nk_telegram::nk_telegram(nk_telegramPart* first, bool takePayload)
    : nk_telegram(takePayload ? nullptr : first)
{
    if (!first || !takePayload) return;
    setBasicHeader(first->sourceAddress(), first->destinationAddress(), first->telegramId(), first->timestamp(),
                   first->type(), first->compression());
    if (first->m_pHost && first->partId() == 1) {
        // Decoded straight into a blob of the receiver's: that blob's storage becomes the
        // joined content, and the part names its range in it.
        tBlob* joined = first->m_pHost;
        const unsigned int offset = first->m_u32HostOffset, length = first->m_u32HostLength;
        ownPayload()->swap(*joined);
        joined->clear();
        first->m_pHost = nullptr;
        nk_telegramPart* filedPart = first->headerCopy();
        filedPart->host(m_pPayload, offset, length);
        m_parts.push_back(filedPart);
    } else {
        m_parts.push_back(first->detach());
    }
    m_u32HighestPartId = first->partId();
}

nk_telegram::~nk_telegram()
{
    // Before the payload they may be hosted by goes with the base class.
    for (nk_telegramPart* p : m_parts) delete p;
}

bool nk_telegram::checkCompression(tBlob* content, tBlob* out)
{
    if (!content || content->size() == 0 || !out || !m_bCompressionAllowed) return false;
    if (out->size() != 0) {
        // The form is built in a blob of its own, so out keeps its bytes when nothing pays.
        tBlob form;
        if (!checkCompression(content, &form)) return false;
        out->swap(form);
        return true;
    }
    const unsigned int plain = content->size();
    if (tCompression::minHuffmanSize(plain) >= plain) {
        // Short content never pays with Huffman (its table alone is 128 bytes), so the choice
        // is RLE or nothing: the RLE form is written at once and kept if it is strictly
        // shorter, one pass over the content where sizing it first would take two.
        if (tCompression::encodeRLE(*content, *out) && out->size() < plain) {
            m_eCompression = COMPRESSION_RLE;
            return true;
        }
        out->clear();
        return false;
    }
    // Both sizes come from one cheap pass; only the form that wins is encoded.
    unsigned int rle = 0, huffman = 0;
    tCompression::encodedSizes(content->getBuffer(), plain, rle, huffman);
    teCompression choice = COMPRESSION_NONE;
    if (rle < plain)
        choice = huffman < rle ? COMPRESSION_HUFF : COMPRESSION_RLE;
    else if (huffman < plain)
        choice = COMPRESSION_HUFF;
    if (choice == COMPRESSION_NONE) return false;
    const bool encoded = choice == COMPRESSION_RLE ? tCompression::encodeRLE(*content, *out)
                                                   : tCompression::encodeHuffman(*content, *out);
    if (!encoded) return false;
    m_eCompression = choice;
    return true;
}

void nk_telegram::split(tBlob* work, nk_telegramPart* kept)
{
    std::unique_ptr<nk_telegramPart> reusable(kept);
    const unsigned int total = work->size();
    const unsigned int maxPayload = s_u32MaxPayloadSize;
    if (total == 0) return;
    if (total <= maxPayload) {
        // One part: the bytes move into it without a copy (or were written there).
        std::unique_ptr<nk_telegramPart> only(reusable ? reusable.release() : new nk_telegramPart());
        only->setHeader(m_u32Id, m_u32Src, m_u32Dest, 1, m_u32Timestamp, true, m_eType, m_eCompression);
        tBlob* payload = only->ownPayload();
        if (work != payload) {
            payload->swap(*work);
            work->clear();
        }
        m_parts.push_back(only.get());
        only.release();
        return;
    }
    // Many parts: the telegram keeps the content and each part names its range of it, so
    // cutting copies nothing; the frames are encoded from the content itself.
    ownPayload()->swap(*work);
    work->clear();
    reusable.reset();
    m_parts.reserve(total / maxPayload + 1);
    unsigned int partId = 0;
    for (unsigned int offset = 0; offset < total;) {
        const unsigned int left = total - offset;
        const unsigned int length = left < maxPayload ? left : maxPayload;
        nk_telegramPart* part = new nk_telegramPart(m_u32Id, m_u32Src, m_u32Dest, ++partId, m_u32Timestamp,
                                                    left <= maxPayload, nullptr, m_eType, m_eCompression);
        part->host(m_pPayload, offset, length);
        m_parts.push_back(part);
        offset += length;
    }
}

bool nk_telegram::send(nk_server* server, void* ctx, tSendFcn sendFn)
{
    tBlob buffer;
    return send(server, ctx, sendFn, &buffer);
}

bool nk_telegram::send(nk_server* server, void* ctx, tSendFcn sendFn, tBlob* frameBuffer)
{
    if (!sendFn) return false;
    tBlob local;
    tBlob& buffer = frameBuffer ? *frameBuffer : local;
    buffer.clear();
    if (m_parts.size() == 1 && m_parts[0]) {
        // Most telegrams are one part: one frame, one call.
        if (!m_parts[0]->serialize(&buffer) || !sendAll(server, ctx, sendFn, buffer, m_u8SendRetries)) return false;
        m_bSent = true;
        return true;
    }
    uint64_t frames = 0;
    unsigned int largestFrame = 0;
    for (nk_telegramPart* p : m_parts)
        if (p) {
            frames += p->serializedSize();
            largestFrame = std::max(largestFrame, p->serializedSize());
        }
    if (frames > 0xFFFFFFFFu) return false;
    // The frames go to the link about a MiB at a time, each batch encoded into the same
    // buffer: a large telegram needs no buffer the size of its frames (whose fresh pages
    // were most of the cost of a first large transfer), and a batch is still in the cache
    // when the link copies it. Telegrams up to one batch go in one call, as before; larger
    // ones in calls that end on frame boundaries, the same bytes.
    buffer.reserve(std::max(static_cast<unsigned int>(frames < kSendBatch ? frames : kSendBatch), largestFrame));
    std::size_t next = 0;
    while (next < m_parts.size()) {
        buffer.clear();
        do {
            nk_telegramPart* p = m_parts[next++];
            if (p && !p->serialize(&buffer)) return false;
        } while (next < m_parts.size() && buffer.size() < kSendBatch);
        if (!sendAll(server, ctx, sendFn, buffer, m_u8SendRetries)) return false;
    }
    m_bSent = true;
    return true;
}

bool nk_telegram::timeout() const
{
    // The 64-bit sum wraps like the unsigned addition it is; compared as signed numbers.
    const long long deadline =
        static_cast<long long>(static_cast<uint64_t>(m_u32Timestamp) + static_cast<uint64_t>(m_i64Timeout_s));
    return deadline < tTime::now();
}

void nk_telegram::notifyResponse(unsigned int address, tBlob* content)
{
    if (m_pCallback) m_pCallback(address, content, m_pContext, false, m_pUserData);
}

void nk_telegram::notifyTimeout()
{
    if (m_pCallback) m_pCallback(ADDRESS_NONE, nullptr, m_pContext, true, m_pUserData);
}

namespace
{
std::tuple<unsigned int, unsigned int, unsigned int> partKey(nk_telegramPart const* p)
{
    return std::make_tuple(p->partId(), p->sourceAddress(), p->destinationAddress());
}
}

bool nk_telegram::isDuplicate(nk_telegramPart* part)
{
    if (m_parts.empty() || part->partId() > m_u32HighestPartId) return false;
    if (!m_pFiled) {
        m_pFiled.reset(new std::set<tPartKey>());
        for (nk_telegramPart* p : m_parts)
            if (p) m_pFiled->insert(partKey(p));
    }
    return m_pFiled->count(partKey(part)) != 0;
}

void nk_telegram::filed(nk_telegramPart* part)
{
    if (part->partId() > m_u32HighestPartId || m_parts.size() == 1) m_u32HighestPartId = part->partId();
    if (m_pFiled) m_pFiled->insert(partKey(part));
}

bool nk_telegram::addTelegramPart(nk_telegramPart* part)
{
    if (!part || isDuplicate(part)) return false;
    m_parts.push_back(new nk_telegramPart(part));
    filed(part);
    return true;
}

void nk_telegram::giveBackJoinedBytes(nk_telegramPart* part)
{
    if (!part->m_pHost || part->m_pHost != m_pPayload) return;
    if (part->m_u32HostOffset + part->m_u32HostLength == m_pPayload->size()) m_pPayload->resize(part->m_u32HostOffset);
    part->m_pHost = nullptr;
}

tBlob* nk_telegram::joinedContentFor(unsigned int partId)
{
    if (!m_bIncoming || !m_pPayload || m_parts.empty() || partId != m_u32HighestPartId + 1 || m_u32HighestPartId == 0xFFFFFFFFu)
        return nullptr;
    // Every part so far must lie in the payload, in order and back to back.
    nk_telegramPart* last = m_parts.back();
    if (!last || last->m_pHost != m_pPayload || last->partId() != m_u32HighestPartId ||
        m_parts.size() != m_u32HighestPartId ||
        last->m_u32HostOffset + last->m_u32HostLength != m_pPayload->size())
        return nullptr;
    return m_pPayload;
}

bool nk_telegram::adoptTelegramPart(nk_telegramPart* part)
{
    if (!part) return false;
    if (isDuplicate(part)) {
        giveBackJoinedBytes(part);
        return false;
    }
    if (part->m_pHost && part->m_pHost == m_pPayload) {
        // Joined in place: the filed part names its range; the caller's part lets go of it.
        const unsigned int offset = part->m_u32HostOffset, length = part->m_u32HostLength;
        part->m_pHost = nullptr;
        nk_telegramPart* filedPart = part->headerCopy();
        filedPart->host(m_pPayload, offset, length);
        m_parts.push_back(filedPart);
    } else {
        m_parts.push_back(part->detach());
    }
    filed(m_parts.back());
    return true;
}

bool nk_telegram::lastPartPresent() const
{
    // Deliberate: only the end of the list in arrival order is looked at, so a last part
    // that overtook an earlier one is not seen. The link delivers parts in order.
    return !m_parts.empty() && m_parts.back() && m_parts.back()->isLastPart();
}

bool nk_telegram::sortTelegrams(nk_telegramPart*& a, nk_telegramPart*& b)
{
    if (!a || !b) return false;
    return a->partId() > b->partId();
}

bool nk_telegram::isCorrupt()
{
    // The list never holds null, so this gives exactly the order of the neighbour-exchange
    // sort with sortTelegrams (ascending part ids, equal ids in arrival order), without its
    // quadratic cost when a peer sends many parts in reverse.
    std::stable_sort(m_parts.begin(), m_parts.end(),
                     [](nk_telegramPart* a, nk_telegramPart* b) { return a->partId() < b->partId(); });
    for (std::size_t i = 0; i < m_parts.size(); ++i) {
        nk_telegramPart* p = m_parts[i];
        if (p && p->partId() != i + 1) return true;
    }
    return false;
}

tBlob* nk_telegram::getCompleteContent()
{
    // Parts cut from an outgoing telegram's content keep their bytes: it is rebuilt below.
    if (!m_bIncoming)
        for (nk_telegramPart* p : m_parts)
            if (p && p->m_pHost && p->m_pHost == m_pPayload) p->copyHostedBytes();
    uint64_t total = 0;
    tBlob* content = ownPayload();
    bool joinedInPlace = m_bIncoming;
    for (nk_telegramPart* p : m_parts) {
        if (!p) return nullptr;
        if (p->m_pHost != m_pPayload || p->m_u32HostOffset != total) joinedInPlace = false;
        total += p->payloadLength();
    }
    if (total > 0xFFFFFFFFu) return nullptr;
    if (!joinedInPlace || total != content->size()) {
        // Parts that came out of order, or some with bytes of their own: joined into new
        // storage (reading those that lie in the payload before it is replaced).
        tBlob joined;
        joined.reserve(static_cast<unsigned int>(total));
        for (nk_telegramPart* p : m_parts) joined.append(p->payloadBytes(), p->m_pHost ? p->hostedReadable() : p->payloadLength());
        content->swap(joined);
    }
    deCompress();
    return content;
}

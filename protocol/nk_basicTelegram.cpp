#include "nk_telegram.h"

#include <cstdint>

#include "leBytes.h"
#include "tCompression.h"

nk_basicTelegram::nk_basicTelegram()
    : m_u32Src(ADDRESS_NONE), m_u32Dest(ADDRESS_NONE), m_u32Id(0), m_u32Timestamp(0),
      m_eType(static_cast<teType>(0)), m_eCompression(COMPRESSION_NONE), m_pPayload(nullptr)
{
}

nk_basicTelegram::nk_basicTelegram(unsigned int src, unsigned int dest, unsigned int id, unsigned int timestamp,
                                   teType type)
    : m_u32Src(src), m_u32Dest(dest), m_u32Id(id), m_u32Timestamp(timestamp), m_eType(type),
      m_eCompression(COMPRESSION_NONE), m_pPayload(nullptr)
{
}

nk_basicTelegram::nk_basicTelegram(nk_basicTelegram* other) : nk_basicTelegram()
{
    if (!other) return;
    setBasicHeader(other->m_u32Src, other->m_u32Dest, other->m_u32Id, other->m_u32Timestamp, other->m_eType,
                   other->m_eCompression);
    if (other->m_pPayload && other->m_pPayload->size() != 0) ownPayload()->append(*other->m_pPayload);
}

nk_basicTelegram::~nk_basicTelegram()
{
    delete m_pPayload;
}

tString nk_basicTelegram::typeName(teType type)
{
    switch (type) {
    case TYPE_REQUEST_NO_RESPONSE: return tString("TYPE_REQUEST_NO_RESPONSE");
    case TYPE_REQUEST_FORCE_RESPONSE: return tString("TYPE_REQUEST_FORCE_RESPONSE");
    case TYPE_RESPONSE: return tString("TYPE_RESPONSE");
    }
    return tString("invalid");
}

tString nk_basicTelegram::compressionName(teCompression compression)
{
    switch (compression) {
    case COMPRESSION_NONE: return tString("COMPRESSION_NONE");
    case COMPRESSION_RLE: return tString("COMPRESSION_RLE");
    case COMPRESSION_HUFF: return tString("COMPRESSION_HUFF");
    }
    return tString("invalid");
}

unsigned int nk_basicTelegram::s_u32MaxDecodedSize = 0;

void nk_basicTelegram::setMaxDecodedSize(unsigned int bytes)
{
    __atomic_store_n(&s_u32MaxDecodedSize, bytes, __ATOMIC_RELAXED);
}

unsigned int nk_basicTelegram::maxDecodedSize() { return __atomic_load_n(&s_u32MaxDecodedSize, __ATOMIC_RELAXED); }

void nk_basicTelegram::deCompress()
{
    tBlob spare;
    deCompress(spare);
}

void nk_basicTelegram::deCompress(tBlob& spare)
{
    if (m_eCompression != COMPRESSION_RLE && m_eCompression != COMPRESSION_HUFF) return;
    // Both forms announce the decoded length first: a length over the limit is refused
    // before anything is allocated, like a damaged form.
    const unsigned int limit = maxDecodedSize();
    tBlob* payload = ownPayload();
    if (limit != 0 && payload->size() >= 4 && nk::readLE<uint32_t>(payload->getBuffer()) > limit) {
        payload->clear();
        return;
    }
    // A damaged form decodes to nothing: the content is then empty.
    if (m_eCompression == COMPRESSION_RLE)
        tCompression::decodeRLE(*payload, spare);
    else
        tCompression::decodeHuffman(*payload, spare);
    payload->swap(spare);
}

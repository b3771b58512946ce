#include "nk_telegram.h"

#include "tCompression.h"

nk_basicTelegram::nk_basicTelegram()
    : m_u32Src(ADDRESS_NONE), m_u32Dest(ADDRESS_NONE), m_u32Id(0), m_u32Timestamp(0),
      m_eType(static_cast<teType>(0)), m_eCompression(COMPRESSION_NONE), m_pPayload(new tBlob())
{
}

nk_basicTelegram::nk_basicTelegram(unsigned int src, unsigned int dest, unsigned int id, unsigned int timestamp,
                                   teType type)
    : m_u32Src(src), m_u32Dest(dest), m_u32Id(id), m_u32Timestamp(timestamp), m_eType(type),
      m_eCompression(COMPRESSION_NONE), m_pPayload(new tBlob())
{
}

nk_basicTelegram::nk_basicTelegram(nk_basicTelegram* other) : nk_basicTelegram()
{
    if (!other) return;
    m_u32Src = other->m_u32Src;
    m_u32Dest = other->m_u32Dest;
    m_u32Id = other->m_u32Id;
    m_u32Timestamp = other->m_u32Timestamp;
    m_eType = other->m_eType;
    m_eCompression = other->m_eCompression;
    m_pPayload->append(*other->m_pPayload);
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

void nk_basicTelegram::deCompress()
{
    if (m_eCompression != COMPRESSION_RLE && m_eCompression != COMPRESSION_HUFF) return;
    tBlob decoded;
    // A damaged form decodes to nothing: the content is then empty.
    if (m_eCompression == COMPRESSION_RLE)
        tCompression::decodeRLE(*m_pPayload, decoded);
    else
        tCompression::decodeHuffman(*m_pPayload, decoded);
    m_pPayload->swap(decoded);
}

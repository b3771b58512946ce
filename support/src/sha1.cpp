#include "SHA1.h"

#include "libcrypto.h"

namespace
{
EVP_MD_CTX* ctxOf(void* p) { return static_cast<EVP_MD_CTX*>(p); }
}

// The digest context is made by the first Input or Result, so that a program which only
// declares a SHA1 never loads libcrypto.
SHA1::SHA1() : m_ctx(nullptr) {}

SHA1::~SHA1()
{
    if (m_ctx) nk::libCrypto()->mdCtxFree(ctxOf(m_ctx));
}

void SHA1::Reset()
{
    m_finished = false;
    m_started = false;
}

bool SHA1::start()
{
    if (m_started) return m_ctx != nullptr;
    m_started = true;
    nk::LibCrypto const* crypto = nk::libCrypto();
    if (!crypto) return false;
    if (!m_ctx) m_ctx = crypto->mdCtxNew();
    if (m_ctx && crypto->digestInit(ctxOf(m_ctx), crypto->sha1(), nullptr) != 1) {
        crypto->mdCtxFree(ctxOf(m_ctx));
        m_ctx = nullptr;
    }
    return m_ctx != nullptr;
}

void SHA1::Input(unsigned char const* data, unsigned int length)
{
    if (m_finished) Reset();
    if (!start() || !data || length == 0) return;
    nk::libCrypto()->digestUpdate(ctxOf(m_ctx), data, length);
}

tString SHA1::Result()
{
    if (m_finished) return m_result;
    m_finished = true;
    m_result.clear();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (!start() || nk::libCrypto()->digestFinal(ctxOf(m_ctx), digest, &digestLength) != 1) return m_result;
    m_started = false;
    static char const hex[] = "0123456789abcdef";
    char* text = m_result.setLength(2 * digestLength);
    for (unsigned int i = 0; i < digestLength; ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0x0F];
    }
    return m_result;
}

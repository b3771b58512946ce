#include "SHA1.h"

#include <openssl/evp.h>

namespace
{
EVP_MD_CTX* ctxOf(void* p) { return static_cast<EVP_MD_CTX*>(p); }
}

SHA1::SHA1() : m_ctx(EVP_MD_CTX_new())
{
    Reset();
}

SHA1::~SHA1()
{
    EVP_MD_CTX_free(ctxOf(m_ctx));
}

void SHA1::Reset()
{
    m_finished = false;
    if (m_ctx && EVP_DigestInit_ex(ctxOf(m_ctx), EVP_sha1(), nullptr) != 1) {
        EVP_MD_CTX_free(ctxOf(m_ctx));
        m_ctx = nullptr;
    }
}

void SHA1::Input(unsigned char const* data, unsigned int length)
{
    if (m_finished) Reset();
    if (!m_ctx || !data || length == 0) return;
    EVP_DigestUpdate(ctxOf(m_ctx), data, length);
}

tString SHA1::Result()
{
    if (m_finished) return m_result;
    m_finished = true;
    m_result.clear();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (!m_ctx || EVP_DigestFinal_ex(ctxOf(m_ctx), digest, &digestLength) != 1) return m_result;
    static char const hex[] = "0123456789abcdef";
    char* text = m_result.setLength(2 * digestLength);
    for (unsigned int i = 0; i < digestLength; ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0x0F];
    }
    return m_result;
}

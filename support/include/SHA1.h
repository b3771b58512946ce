#ifndef NK_SHA1_H
#define NK_SHA1_H

#include "tString.h"

// SHA-1 over bytes fed in any number of pieces; Result() is the digest as 40 lower-case
// hexadecimal digits, the text sha1sum prints.
class NKS_API SHA1
{
public:
    SHA1();
    ~SHA1();
    SHA1(SHA1 const&) = delete;
    SHA1& operator=(SHA1 const&) = delete;

    void Reset();
    void Input(unsigned char const* data, unsigned int length);
    void Input(tString const& text) { Input(reinterpret_cast<unsigned char const*>(text.data()), text.length()); }
    // Finishes the digest; further Input starts a new one. Called again without new
    // input it gives the same text.
    tString Result();

private:
    // Starts a digest in m_ctx unless one is under way; false when none can be made.
    bool start();

    void* m_ctx;
    bool m_started = false;  // m_ctx holds a digest under way
    bool m_finished = false;
    tString m_result;
};

#endif

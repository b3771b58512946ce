#ifndef NK_SUPPORT_LIBCRYPTO_H
#define NK_SUPPORT_LIBCRYPTO_H

// OpenSSL's libcrypto, opened when the first digest or base64 text is asked for instead of when
// a program starts. Binding it costs a program more at start-up than all of this library does
// (libcrypto resolves thousands of symbols at once), and most runs of a tool never compute a
// checksum. Only the functions listed here are used; their types come from OpenSSL's own headers,
// so they cannot drift from the library that is opened, whose name those headers give too.
#include <openssl/evp.h>

namespace nk
{
struct LibCrypto
{
    decltype(&::EVP_MD_CTX_new) mdCtxNew;
    decltype(&::EVP_MD_CTX_free) mdCtxFree;
    decltype(&::EVP_sha1) sha1;
    decltype(&::EVP_DigestInit_ex) digestInit;
    decltype(&::EVP_DigestUpdate) digestUpdate;
    decltype(&::EVP_DigestFinal_ex) digestFinal;
    decltype(&::EVP_EncodeBlock) encodeBlock;
    decltype(&::EVP_DecodeBlock) decodeBlock;
};

// The functions, or null when libcrypto cannot be opened (then digests are empty and base64
// fails, as for any other failure of theirs). Thread-safe; opened once per process.
LibCrypto const* libCrypto();
}

#endif

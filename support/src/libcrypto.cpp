#include "libcrypto.h"

#include <dlfcn.h>

#include <cstdio>

#include <openssl/opensslv.h>

#define NK_STRINGIFY2(x) #x
#define NK_STRINGIFY(x) NK_STRINGIFY2(x)
#if defined(OPENSSL_SHLIB_VERSION)
#define NK_LIBCRYPTO_SONAME "libcrypto.so." NK_STRINGIFY(OPENSSL_SHLIB_VERSION)
#else
#define NK_LIBCRYPTO_SONAME "libcrypto.so." SHLIB_VERSION_NUMBER
#endif

namespace nk
{
namespace
{
template <typename F>
bool bind(void* library, char const* name, F& function)
{
    function = reinterpret_cast<F>(dlsym(library, name));
    return function != nullptr;
}

LibCrypto const* open()
{
    static LibCrypto functions;
    // Already loaded by a program that links OpenSSL itself, this takes the same copy.
    void* library = dlopen(NK_LIBCRYPTO_SONAME, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::fprintf(stderr, "nkSupport: cannot load %s (SHA-1 and base64 need it): %s\n", NK_LIBCRYPTO_SONAME,
                     dlerror());
        return nullptr;
    }
    const bool complete = bind(library, "EVP_MD_CTX_new", functions.mdCtxNew) &&
                          bind(library, "EVP_MD_CTX_free", functions.mdCtxFree) &&
                          bind(library, "EVP_sha1", functions.sha1) &&
                          bind(library, "EVP_DigestInit_ex", functions.digestInit) &&
                          bind(library, "EVP_DigestUpdate", functions.digestUpdate) &&
                          bind(library, "EVP_DigestFinal_ex", functions.digestFinal) &&
                          bind(library, "EVP_EncodeBlock", functions.encodeBlock) &&
                          bind(library, "EVP_DecodeBlock", functions.decodeBlock);
    if (!complete) {
        std::fprintf(stderr, "nkSupport: %s lacks a function SHA-1 or base64 needs\n", NK_LIBCRYPTO_SONAME);
        return nullptr;
    }
    // Kept open for the life of the process: digests may be computed until its very end.
    return &functions;
}
}

LibCrypto const* libCrypto()
{
    // Opened once, by the first caller; others wait for it (a static's initialisation).
    static LibCrypto const* const functions = open();
    return functions;
}
}

#ifndef NK_EXPORT_H
#define NK_EXPORT_H

// Symbols of libnkProtocol are hidden by default; the public interface carries this mark.
#if defined(_WIN32)
#define NK_API
#else
#define NK_API __attribute__((visibility("default")))
#endif

// The opaque handle that the engine passes through to the application's link functions.
// The library declares it and never defines it.
struct nk_server;

#endif

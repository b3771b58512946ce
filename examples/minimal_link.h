#ifndef NK_EXAMPLE_MINIMAL_LINK_H
#define NK_EXAMPLE_MINIMAL_LINK_H

// The link functions of the two minimal examples: a non-blocking socket whose descriptor
// travels as the engine's ctx. The library does no I/O of its own; this is all it needs.
#include <cerrno>
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "nkProtocol.h"

inline int socketOf(void* ctx) { return static_cast<int>(reinterpret_cast<intptr_t>(ctx)); }
inline void* ctxOf(int fd) { return reinterpret_cast<void*>(static_cast<intptr_t>(fd)); }

inline unsigned int sendToSocket(nk_server*, void* ctx, unsigned char* data, unsigned int length, int* error)
{
    ssize_t n = ::send(socketOf(ctx), data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) return static_cast<unsigned int>(n);
    if (error) *error = (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) ? 11 : (n < 0 ? errno : EPIPE);
    return 0;
}

inline unsigned int recvFromSocket(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
{
    ssize_t n = ::recv(socketOf(ctx), data, length, MSG_DONTWAIT);
    return n > 0 ? static_cast<unsigned int>(n) : 0;
}

#endif

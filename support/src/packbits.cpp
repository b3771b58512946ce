// PackBits: the packet structure is chosen by one scanner, and the size computation and the
// encoder are two sinks of that scanner.
#include <algorithm>
#include <cstring>

#include "compression_internal.h"

namespace nk
{
namespace packbits
{
namespace
{
constexpr std::size_t kMinRun = 3;  // shorter runs cost no less as literals
constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kHighs = 0x8080808080808080ULL;

// Length of the run of equal bytes at data[i], at most `cap`.
inline std::size_t runLength(unsigned char const* data, std::size_t i, std::size_t length, std::size_t cap)
{
    const std::size_t end = std::min(length, i + cap);
    const unsigned char b = data[i];
    std::size_t j = i + 1;
    const uint64_t pattern = kOnes * b;
    while (j + 8 <= end) {
        const uint64_t diff = readLE<uint64_t>(data + j) ^ pattern;
        if (diff) return j + compression::countTrailingZeros64(diff) / 8 - i;
        j += 8;
    }
    while (j < end && data[j] == b) ++j;
    return j - i;
}

// The first position in [from, limit) where a run of at least kMinRun equal bytes starts
// (judged against the whole data, not only up to limit), or limit.
inline std::size_t findRunStart(unsigned char const* data, std::size_t from, std::size_t limit, std::size_t length)
{
    std::size_t i = from;
    // Eight positions per step: byte k of z is zero when data[i+k] == data[i+k+1] == data[i+k+2];
    // the lowest flagged byte of the zero-byte test is exact.
    while (i + 8 <= limit && i + 10 <= length) {
        const uint64_t a = readLE<uint64_t>(data + i);
        const uint64_t b = readLE<uint64_t>(data + i + 1);
        const uint64_t c = readLE<uint64_t>(data + i + 2);
        const uint64_t z = (a ^ b) | (b ^ c);
        const uint64_t zeroBytes = (z - kOnes) & ~z & kHighs;
        if (zeroBytes) return i + compression::countTrailingZeros64(zeroBytes) / 8;
        i += 8;
    }
    for (; i < limit; ++i)
        if (i + 2 < length && data[i] == data[i + 1] && data[i + 1] == data[i + 2]) return i;
    return limit;
}

// The encoder's greedy rule, which fixes every encoded size: at position i, a run of at
// least 3 equal bytes becomes one repeat packet of min(run, 128) bytes; otherwise a literal
// packet takes the bytes from i up to (not including) the next position where such a run
// starts, at most 128 of them.
template <typename Sink>
void scan(unsigned char const* data, std::size_t length, Sink& sink)
{
    std::size_t i = 0;
    while (i < length) {
        const std::size_t run = runLength(data, i, length, kMaxPacket);
        if (run >= kMinRun) {
            sink.repeat(data[i], run);
            i += run;
            continue;
        }
        const std::size_t end = findRunStart(data, i + 1, std::min(length, i + kMaxPacket), length);
        sink.literal(data + i, end - i);
        i = end;
    }
}

struct SizeSink
{
    uint64_t size = 0;
    void repeat(unsigned char, std::size_t) { size += 2; }
    void literal(unsigned char const*, std::size_t n) { size += 1 + n; }
};

struct WriteSink
{
    unsigned char* out;
    void repeat(unsigned char b, std::size_t n)
    {
        out[0] = static_cast<unsigned char>(257 - n);
        out[1] = b;
        out += 2;
    }
    void literal(unsigned char const* p, std::size_t n)
    {
        *out++ = static_cast<unsigned char>(n - 1);
        std::memcpy(out, p, n);
        out += n;
    }
};
}

uint64_t encodedBodySize(unsigned char const* data, std::size_t length)
{
    SizeSink sink;
    scan(data, length, sink);
    return sink.size;
}

std::size_t encodeBody(unsigned char const* data, std::size_t length, unsigned char* out)
{
    WriteSink sink{out};
    scan(data, length, sink);
    return static_cast<std::size_t>(sink.out - out);
}

bool decodeBody(unsigned char const* in, std::size_t inLength, unsigned char* out, std::size_t outLength)
{
    std::size_t ip = 0;
    std::size_t op = 0;
    while (ip < inLength) {
        const unsigned control = in[ip++];
        if (control < 128) {
            const std::size_t n = control + 1;
            if (n > inLength - ip || n > outLength - op) return false;
            std::memcpy(out + op, in + ip, n);
            ip += n;
            op += n;
        } else if (control > 128) {
            const std::size_t n = 257 - control;
            if (ip == inLength || n > outLength - op) return false;
            std::memset(out + op, in[ip++], n);
            op += n;
        }
        // 128 is a no-op: never written, but skipped like other PackBits readers do.
    }
    return op == outLength;
}
}
}

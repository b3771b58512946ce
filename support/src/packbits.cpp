// PackBits: the packet structure is chosen by one scanner, and the size computation and the
// encoder are two sinks of that scanner.
#include <algorithm>
#include <cstring>

#include "compression_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define NK_PACKBITS_SSE2 1
#endif

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

// Bit k / 8 (the top bit of byte k) flags data[p+k] == data[p+k+1] == data[p+k+2], for k in
// 0..7; bytes above the lowest flagged one may be flagged falsely, the lowest is exact.
inline uint64_t runStarts8(unsigned char const* p)
{
    const uint64_t a = readLE<uint64_t>(p);
    const uint64_t b = readLE<uint64_t>(p + 1);
    const uint64_t c = readLE<uint64_t>(p + 2);
    const uint64_t z = (a ^ b) | (b ^ c);
    return (z - kOnes) & ~z & kHighs;
}

#if NK_PACKBITS_SSE2
// Bit k flags p[k] == p[k+1] == p[k+2], for k in 0..31 (reads 34 bytes), all exact. SSE2 is
// part of every x86-64; other targets take the eight-byte steps of runStarts8 alone.
inline unsigned runStarts32(unsigned char const* p)
{
    const __m128i a0 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
    const __m128i b0 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 1));
    const __m128i c0 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 2));
    const __m128i a1 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 16));
    const __m128i b1 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 17));
    const __m128i c1 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 18));
    const unsigned low = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a0, b0), _mm_cmpeq_epi8(b0, c0))));
    const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a1, b1), _mm_cmpeq_epi8(b1, c1))));
    return low | high << 16;
}
#endif

// The first position at or after `from` where a run of at least kMinRun equal bytes starts,
// or length. Every byte passed over (the literal bytes from `from` up to that position) is
// shown once to the sink's `passed`, so a sink can count them while they are at hand.
template <typename Sink>
inline std::size_t findRunStart(unsigned char const* data, std::size_t from, std::size_t length, Sink& sink)
{
    std::size_t i = from;
#if NK_PACKBITS_SSE2
    // Long stretches without runs (most data that ends up plain) are searched 32 positions a
    // step, a block at a time, and each block that holds no run start is then counted in one
    // tight loop while it is in the cache: the counting, not the search, is the cost.
    constexpr std::size_t kBlock = 1024;
    while (i + kBlock + 2 <= length) {
        for (std::size_t k = 0; k < kBlock; k += 32) {
            const unsigned starts = runStarts32(data + i + k);
            if (starts) {
                const std::size_t at = i + k + compression::countTrailingZeros64(starts);
                sink.passed(data + i, at - i);
                return at;
            }
        }
        sink.passed(data + i, kBlock);
        i += kBlock;
    }
#endif
    // Eight positions per step while the loads stay inside the data.
    while (i + 10 <= length) {
        const uint64_t starts = runStarts8(data + i);
        if (starts) {
            const std::size_t at = i + compression::countTrailingZeros64(starts) / 8;
            sink.passed(data + i, at - i);
            return at;
        }
        sink.passedWord(readLE<uint64_t>(data + i));
        i += 8;
    }
    const std::size_t tail = i;
    while (i + 2 < length && !(data[i] == data[i + 1] && data[i + 1] == data[i + 2])) ++i;
    if (i + 2 >= length) i = length;
    sink.passed(data + tail, i - tail);
    return i;
}

// The encoder's greedy rule, which fixes every encoded size: at position i, a run of at
// least 3 equal bytes becomes one repeat packet of min(run, 128) bytes; otherwise the bytes
// from i up to (not including) the next position where such a run starts are literal,
// written as packets of 128 bytes and one shorter last packet.
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
        // No run starts at i, so searching from i finds the first one after it.
        const std::size_t end = findRunStart(data, i, length, sink);
        for (; end - i > kMaxPacket; i += kMaxPacket) sink.literal(data + i, kMaxPacket);
        sink.literal(data + i, end - i);
        i = end;
    }
}

struct SizeSink
{
    uint64_t size = 0;
    void repeat(unsigned char, std::size_t) { size += 2; }
    void literal(unsigned char const*, std::size_t n) { size += 1 + n; }
    void passedWord(uint64_t) {}
    void passed(unsigned char const*, std::size_t) {}
};

// The size and the byte counts in one pass: the literal bytes are counted as the search for
// the next run passes them, the runs from their length.
struct CountingSizeSink : SizeSink
{
    compression::ByteCounter counter;
    void repeat(unsigned char b, std::size_t n)
    {
        SizeSink::repeat(b, n);
        counter.addRepeat(b, n);
    }
    void passedWord(uint64_t w) { counter.addWord(w); }
    void passed(unsigned char const* p, std::size_t n) { counter.addBytes(p, n); }
};

// A copy of 1..128 bytes in overlapping fixed-size pieces, never past either end. Left to
// memcpy, a copy whose length the compiler knows to be small may become a `rep movs`, which
// costs more to start than these literals take to copy.
inline void copyLiteral(unsigned char* dst, unsigned char const* src, std::size_t n)
{
    if (n >= 16) {
        for (std::size_t k = 0; k + 16 < n; k += 16) std::memcpy(dst + k, src + k, 16);
        std::memcpy(dst + n - 16, src + n - 16, 16);
    } else if (n >= 8) {
        std::memcpy(dst, src, 8);
        std::memcpy(dst + n - 8, src + n - 8, 8);
    } else if (n >= 4) {
        std::memcpy(dst, src, 4);
        std::memcpy(dst + n - 4, src + n - 4, 4);
    } else {
        dst[0] = src[0];
        dst[n / 2] = src[n / 2];
        dst[n - 1] = src[n - 1];
    }
}

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
        copyLiteral(out, p, n);
        out += n;
    }
    void passedWord(uint64_t) {}
    void passed(unsigned char const*, std::size_t) {}
};
}

uint64_t encodedBodySize(unsigned char const* data, std::size_t length)
{
    SizeSink sink;
    scan(data, length, sink);
    return sink.size;
}

uint64_t encodedBodySizeAndCounts(unsigned char const* data, std::size_t length, uint32_t counts[256])
{
    CountingSizeSink sink;
    scan(data, length, sink);
    sink.counter.total(counts);
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

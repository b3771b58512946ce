#include "tCompression.h"

#include <cstring>
#include <limits>
#include <new>

#include "compression_internal.h"

using namespace nk;

namespace
{
constexpr uint64_t kMaxBlob = std::numeric_limits<unsigned int>::max();
// The most an announced length may claim, from the bytes that follow it: a 2-byte repeat
// packet yields at most 128 bytes; a Huffman code is at least one bit long.
uint64_t maxRleLength(std::size_t bodyBytes) { return 64 * static_cast<uint64_t>(bodyBytes); }
uint64_t maxHuffmanLength(std::size_t bodyBytes)
{
    if (bodyBytes < huffman::kLengthTableBytes) return 0;
    return 8 * static_cast<uint64_t>(bodyBytes - huffman::kLengthTableBytes);
}

unsigned int saturate(uint64_t v) { return v > kMaxBlob ? static_cast<unsigned int>(kMaxBlob) : static_cast<unsigned int>(v); }

// Decodes the form in `in` whose body `decodeBody` reads. Decodes into out's own buffer (a
// caller that reuses out allocates nothing), through a local blob when in and out are one.
template <typename DecodeBody>
bool decodeForm(tBlob const& in, tBlob& out, uint64_t (*maxLength)(std::size_t), DecodeBody decodeBody)
{
    try {
        if (in.size() < compression::kHeaderBytes) {
            out.clear();
            return false;
        }
        unsigned char const* p = in.getBuffer();
        const uint32_t length = readLE<uint32_t>(p);
        const std::size_t bodyBytes = in.size() - compression::kHeaderBytes;
        if (length > maxLength(bodyBytes)) {
            out.clear();
            return false;
        }
        tBlob separate;
        tBlob& result = &in == &out ? separate : out;
        result.clear();  // its old bytes need not be kept, or moved
        unsigned char* buffer = result.resize(length);
        const bool ok = decodeBody(p + compression::kHeaderBytes, bodyBytes, buffer, length);
        if (!ok) {
            out.clear();
        } else if (&result != &out) {
            out.swap(result);
        }
        return ok;
    } catch (std::bad_alloc const&) {
        out.clear();
        return false;
    }
}
}

namespace nk
{
namespace compression
{
void histogram(unsigned char const* data, std::size_t length, uint32_t counts[256])
{
    ByteCounter counter;
    counter.addBytes(data, length);
    counter.total(counts);
}
}
}

bool tCompression::encodeRLE(tBlob const& in, tBlob& out)
{
    // Through a separate blob when in and out are one: the encoder reads what it writes over.
    tBlob separate;
    tBlob& result = &in == &out ? separate : out;
    try {
        unsigned char const* data = in.getBuffer();
        const std::size_t length = in.size();
        uint64_t room = compression::kHeaderBytes + packbits::worstCaseBodySize(length);
        if (room > kMaxBlob) room = compression::kHeaderBytes + packbits::encodedBodySize(data, length);
        if (room > kMaxBlob) {
            out.clear();
            return false;
        }
        result.clear();  // its old bytes need not be kept, or moved
        unsigned char* buffer = result.resize(static_cast<unsigned int>(room));
        writeLE<uint32_t>(buffer, static_cast<uint32_t>(length));
        const std::size_t body = packbits::encodeBody(data, length, buffer + compression::kHeaderBytes);
        result.resize(static_cast<unsigned int>(compression::kHeaderBytes + body));
    } catch (std::bad_alloc const&) {
        out.clear();
        return false;
    }
    if (&result != &out) out.swap(result);
    return true;
}

bool tCompression::encodeHuffman(tBlob const& in, tBlob& out)
{
    tBlob separate;
    tBlob& result = &in == &out ? separate : out;
    try {
        unsigned char const* data = in.getBuffer();
        const std::size_t length = in.size();
        uint32_t counts[256];
        uint8_t lengths[256];
        compression::histogram(data, length, counts);
        huffman::buildCodeLengths(counts, lengths);
        const uint64_t size = huffman::encodedSize(length, counts, lengths);
        if (size > kMaxBlob) {
            out.clear();
            return false;
        }
        // The bit writer stores 8 bytes at a time, so it gets 8 bytes of room past the end.
        result.clear();  // its old bytes need not be kept, or moved
        unsigned char* buffer = result.resize(static_cast<unsigned int>(size + (length ? 8 : 0)));
        writeLE<uint32_t>(buffer, static_cast<uint32_t>(length));
        if (length) huffman::encodeBody(data, length, lengths, buffer + compression::kHeaderBytes);
        result.resize(static_cast<unsigned int>(size));
    } catch (std::bad_alloc const&) {
        out.clear();
        return false;
    }
    if (&result != &out) out.swap(result);
    return true;
}

tBlob tCompression::encodeRLE(tBlob const& in)
{
    tBlob out;
    encodeRLE(in, out);
    return out;
}

tBlob tCompression::encodeHuffman(tBlob const& in)
{
    tBlob out;
    encodeHuffman(in, out);
    return out;
}

bool tCompression::decodeRLE(tBlob const& in, tBlob& out)
{
    return decodeForm(in, out, maxRleLength, packbits::decodeBody);
}

bool tCompression::decodeHuffman(tBlob const& in, tBlob& out)
{
    return decodeForm(in, out, maxHuffmanLength,
                      [](unsigned char const* body, std::size_t bodyBytes, unsigned char* o, std::size_t length) {
                          // The empty input is the bare header: no table follows it.
                          if (length == 0) return bodyBytes == 0;
                          return huffman::decodeBody(body, bodyBytes, o, length);
                      });
}

tBlob tCompression::decodeRLE(tBlob const& in)
{
    tBlob out;
    decodeRLE(in, out);
    return out;
}

tBlob tCompression::decodeHuffman(tBlob const& in)
{
    tBlob out;
    decodeHuffman(in, out);
    return out;
}

void tCompression::encodedSizes(unsigned char const* data, unsigned int length, unsigned int& rleSize,
                                unsigned int& huffmanSize)
{
    uint32_t counts[256];
    uint8_t lengths[256];
    rleSize = saturate(compression::kHeaderBytes + packbits::encodedBodySizeAndCounts(data, length, counts));
    huffman::buildCodeLengths(counts, lengths);
    huffmanSize = saturate(huffman::encodedSize(length, counts, lengths));
}

unsigned int tCompression::encodedSizeRLE(unsigned char const* data, unsigned int length)
{
    return saturate(compression::kHeaderBytes + packbits::encodedBodySize(data, length));
}

unsigned int tCompression::minHuffmanSize(unsigned int length)
{
    if (length == 0) return compression::kHeaderBytes;
    return saturate(compression::kHeaderBytes + huffman::kLengthTableBytes + (uint64_t(length) + 7) / 8);
}

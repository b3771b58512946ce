#ifndef NK_SERIALIZER_H
#define NK_SERIALIZER_H

#include "nkExport.h"
#include "tBlob.h"
#include "tString.h"

// The binary codec of the message layer: a byte buffer with a read position. Each field
// call either appends the value (SER_WRITE) or reads it at the read position (SER_READ).
// Integers are little-endian; strings and blobs are a u32 byte count and the bytes.
class NK_API nk_serializer : public tBlob
{
public:
    enum teSerDirection
    {
        SER_READ = 0,
        SER_WRITE = 1,
    };

    nk_serializer() = default;
    // Parses a copy of blob's bytes; the caller's blob is not changed. Null gives an empty one.
    explicit nk_serializer(tBlob* blob) : tBlob(blob) {}
    // Reads length bytes at data in place, without a copy: the bytes must stay valid and
    // unchanged while this serializer reads. Writing still appends to its own buffer.
    nk_serializer(unsigned char const* data, unsigned int length) : m_view(data), m_viewSize(length) {}
    ~nk_serializer() override = default;

    // Every direction other than SER_READ writes.
    bool u8(unsigned char& v, teSerDirection d);
    bool i8(signed char& v, teSerDirection d);
    bool u16(unsigned short& v, teSerDirection d);
    bool i16(short& v, teSerDirection d);
    bool u32(unsigned int& v, teSerDirection d);
    bool u64(unsigned long long& v, teSerDirection d);
    bool string(tString& s, teSerDirection d);
    bool blob(tBlob& b, teSerDirection d);

    // Empties the buffer and rewinds, for building a new message in the same object.
    void clearSer();

    unsigned int readPosition() const { return m_readPos; }
    // 0 when the buffer was cut below the read position with a plain tBlob operation.
    unsigned int remaining() const { return m_readPos < readSize() ? readSize() - m_readPos : 0; }

private:
    template <typename T> bool fixed(T& v, teSerDirection d);
    // Reads the u32 count of a string or blob and checks the bytes are there.
    bool lengthPrefix(unsigned int& n);
    unsigned char const* readData() const { return m_view ? m_view : getBuffer(); }
    unsigned int readSize() const { return m_view ? m_viewSize : size(); }

    unsigned int m_readPos = 0;
    unsigned char const* m_view = nullptr;
    unsigned int m_viewSize = 0;
};

#endif

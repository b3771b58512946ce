#include "nk_serializer.h"

#include "leBytes.h"

template <typename T>
bool nk_serializer::fixed(T& v, teSerDirection d)
{
    if (d != SER_READ) {
        unsigned char bytes[sizeof(T)];
        nk::writeLE(bytes, v);
        append(bytes, sizeof(T));
        return true;
    }
    // Compared without forming readPos + width, which could wrap.
    if (sizeof(T) > remaining()) return false;
    v = nk::readLE<T>(readData() + m_readPos);
    m_readPos += sizeof(T);
    return true;
}

bool nk_serializer::u8(unsigned char& v, teSerDirection d) { return fixed(v, d); }
bool nk_serializer::i8(signed char& v, teSerDirection d) { return u8(reinterpret_cast<unsigned char&>(v), d); }
bool nk_serializer::u16(unsigned short& v, teSerDirection d) { return fixed(v, d); }
bool nk_serializer::i16(short& v, teSerDirection d) { return u16(reinterpret_cast<unsigned short&>(v), d); }
bool nk_serializer::u32(unsigned int& v, teSerDirection d) { return fixed(v, d); }
bool nk_serializer::u64(unsigned long long& v, teSerDirection d) { return fixed(v, d); }

bool nk_serializer::lengthPrefix(unsigned int& n)
{
    if (!u32(n, SER_READ)) return false;
    // A count that runs past the buffer fails before anything is allocated. The four
    // count bytes stay consumed: callers stop at the first failed field anyway.
    return n <= remaining();
}

bool nk_serializer::string(tString& s, teSerDirection d)
{
    if (d != SER_READ) {
        unsigned int n = s.length();
        u32(n, d);
        append(reinterpret_cast<unsigned char const*>(s.data()), n);
        return true;
    }
    s.clear();
    unsigned int n = 0;
    if (!lengthPrefix(n)) return false;
    s.assign(reinterpret_cast<char const*>(readData() + m_readPos), n);
    m_readPos += n;
    return true;
}

bool nk_serializer::blob(tBlob& b, teSerDirection d)
{
    if (d != SER_READ) {
        unsigned int n = b.size();
        u32(n, d);
        append(b);
        return true;
    }
    b.clear();
    unsigned int n = 0;
    if (!lengthPrefix(n)) return false;
    b.append(readData() + m_readPos, n);
    m_readPos += n;
    return true;
}

void nk_serializer::clearSer()
{
    clear();
    m_readPos = 0;
    m_view = nullptr;
    m_viewSize = 0;
}

#include "tBlob.h"

#include <cstdint>
#include <cstring>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

void nk_adviseLargeBuffer(void* p, std::size_t bytes)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    const std::uintptr_t huge = std::uintptr_t(2) << 20;
    const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(p) + huge - 1) & ~(huge - 1);
    const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(p) + bytes) & ~(huge - 1);
    // Advice only: a kernel without huge pages refuses it and the buffer works as before.
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

tBlob::tBlob(tBlob const* other)
{
    if (other) append(other->getBuffer(), other->size());
}

tBlob::tBlob(unsigned char const* data, unsigned int length)
{
    append(data, length);
}

tBlob::tBlob(tBlob const& other)
{
    append(other.getBuffer(), other.size());
}

tBlob::tBlob(tBlob&& other) noexcept : m_data(std::move(other.m_data)), m_offset(other.m_offset)
{
    other.m_data.clear();
    other.m_offset = 0;
}

tBlob& tBlob::operator=(tBlob const& other)
{
    if (this != &other) {
        m_data.clear();
        m_offset = 0;
        append(other.getBuffer(), other.size());
    }
    return *this;
}

tBlob& tBlob::operator=(tBlob&& other) noexcept
{
    if (this != &other) {
        m_data = std::move(other.m_data);
        m_offset = other.m_offset;
        other.m_data.clear();
        other.m_offset = 0;
    }
    return *this;
}

void tBlob::compact()
{
    if (m_offset == 0) return;
    std::size_t live = m_data.size() - m_offset;
    if (live) std::memmove(m_data.data(), m_data.data() + m_offset, live);
    m_data.resize(live);
    m_offset = 0;
}

unsigned char* tBlob::resize(unsigned int n)
{
    if (m_offset && m_offset + n > m_data.capacity() && n <= m_data.capacity()) compact();
    if (m_offset + n > m_data.capacity()) {
        // Grown here rather than by the vector, which moves bytes one by one through the
        // allocator: the live bytes that stay move once, with memcpy, into storage at least
        // twice as large, so a blob grown part by part is moved O(1) times per byte.
        const std::size_t live = size();
        const std::size_t keep = live < n ? live : n;
        const std::size_t grown = m_data.capacity() * 2;
        std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> fresh;
        fresh.reserve(grown > n ? grown : n);
        fresh.resize(n);
        if (keep) std::memcpy(fresh.data(), getBuffer(), keep);
        m_data.swap(fresh);
        m_offset = 0;
        return getBuffer();
    }
    m_data.resize(m_offset + n);
    return getBuffer();
}

void tBlob::reserve(unsigned int n)
{
    compact();
    if (n <= m_data.capacity()) return;
    // As in resize: the bytes move once, with memcpy.
    const std::size_t live = m_data.size();
    std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> fresh;
    fresh.reserve(n);
    fresh.resize(live);
    if (live) std::memcpy(fresh.data(), m_data.data(), live);
    m_data.swap(fresh);
}

void tBlob::append(unsigned char const* data, unsigned int length)
{
    if (!data || length == 0) return;
    unsigned char const* begin = m_data.data();
    if (begin && data >= begin && data < begin + m_data.size()) {
        // The source lies inside this blob, and growing or compacting moves the storage.
        std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> copy(data, data + length);
        append(copy.data(), length);
        return;
    }
    if (m_data.size() + length > m_data.capacity()) {
        const std::size_t live = size();
        if (live + length <= m_data.capacity() / 2) {
            // The dead prefix is most of the storage: reuse it.
            compact();
        } else {
            // Grow geometrically ourselves (resize alone may allocate exactly what is asked
            // for), moving only the live bytes, once.
            std::size_t want = live + length;
            std::size_t grown = m_data.capacity() * 2;
            std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> fresh;
            fresh.reserve(grown > want ? grown : want);
            fresh.resize(live);
            if (live) std::memcpy(fresh.data(), getBuffer(), live);
            m_data.swap(fresh);
            m_offset = 0;
        }
    }
    std::size_t oldEnd = m_data.size();
    m_data.resize(oldEnd + length);
    std::memcpy(m_data.data() + oldEnd, data, length);
}

void tBlob::append(tBlob const& other)
{
    append(other.getBuffer(), other.size());
}

void tBlob::append(unsigned char byte)
{
    append(&byte, 1);
}

void tBlob::prepend(unsigned char const* data, unsigned int length)
{
    if (!data || length == 0) return;
    unsigned char const* begin = m_data.data();
    bool inside = begin && data >= begin && data < begin + m_data.size();
    if (inside) {
        std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> copy(data, data + length);
        prepend(copy.data(), length);
        return;
    }
    if (m_offset >= length) {
        // Room left by earlier slices: step the read offset back.
        m_offset -= length;
        std::memcpy(m_data.data() + m_offset, data, length);
        return;
    }
    std::size_t live = size();
    std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> fresh;
    fresh.reserve(live + length);
    fresh.resize(live + length);
    std::memcpy(fresh.data(), data, length);
    if (live) std::memcpy(fresh.data() + length, getBuffer(), live);
    m_data.swap(fresh);
    m_offset = 0;
}

void tBlob::prepend(tBlob const& other)
{
    prepend(other.getBuffer(), other.size());
}

void tBlob::clear()
{
    m_data.clear();
    m_offset = 0;
}

void tBlob::slice(unsigned int n)
{
    if (n >= size()) {
        clear();
        return;
    }
    // The dead prefix is reclaimed only when the blob has to grow (append, resize,
    // reserve): a stream cut frame by frame is then never moved while it drains.
    m_offset += n;
}

unsigned int tBlob::getIndexOf(unsigned char b) const
{
    unsigned int n = size();
    if (n == 0) return 0xFFFFFFFFu;
    void const* hit = std::memchr(getBuffer(), b, n);
    if (!hit) return 0xFFFFFFFFu;
    return static_cast<unsigned int>(static_cast<unsigned char const*>(hit) - getBuffer());
}

void tBlob::swap(tBlob& other) noexcept
{
    m_data.swap(other.m_data);
    std::swap(m_offset, other.m_offset);
}

bool tBlob::operator==(tBlob const& o) const
{
    unsigned int n = size();
    if (n != o.size()) return false;
    return n == 0 || std::memcmp(getBuffer(), o.getBuffer(), n) == 0;
}

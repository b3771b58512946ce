#include "tBlob.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#define NK_TBLOB_MAPPED 1
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

namespace
{
// A blob that grows past this size (a stream that frames arrive into, a content that parts
// are joined onto) moves into mapped pages of its own, which grow by remapping them instead
// of copying the bytes. Storage allocated at its size in one go stays with malloc, which
// reuses freed memory without new page faults.
const std::size_t kMappedFrom = std::size_t(1) << 20;
// Mapped storage from this size on is advised as huge pages: a fresh 64 MiB buffer then
// costs 32 page faults instead of 16,384, which on a virtual machine is most of the time of
// a first large transfer.
const std::size_t kHugeFrom = std::size_t(4) << 20;

// The whole mapping is advised, not only its whole huge pages: advice on part of a mapping
// splits it in two, and a split mapping can no longer be grown in one piece.
void adviseHuge(void* p, std::size_t capacity)
{
#if defined(NK_TBLOB_MAPPED) && defined(MADV_HUGEPAGE)
    if (capacity >= kHugeFrom) madvise(p, capacity, MADV_HUGEPAGE);
#else
    (void)p;
    (void)capacity;
#endif
}

std::size_t pageRounded(std::size_t n)
{
#ifdef NK_TBLOB_MAPPED
    static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
#else
    return n;
#endif
}

// Storage of capacity bytes, mapped if asked (and the system has it); capacity is rounded
// up to whole pages for a mapping. Throws std::bad_alloc as new does.
unsigned char* allocateStorage(std::size_t& capacity, bool& mapped)
{
#ifdef NK_TBLOB_MAPPED
    if (mapped) {
        capacity = pageRounded(capacity);
        void* p = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        adviseHuge(p, capacity);
        return static_cast<unsigned char*>(p);
    }
#endif
    mapped = false;
    void* p = std::malloc(capacity);
    if (!p) throw std::bad_alloc();
    // Only its whole huge pages: the allocator's own mapping is not this blob's to reshape.
    if (capacity >= kHugeFrom) nk_adviseLargeBuffer(p, capacity);
    return static_cast<unsigned char*>(p);
}

void freeStorage(unsigned char* p, std::size_t capacity, bool mapped)
{
    if (!p) return;
#ifdef NK_TBLOB_MAPPED
    if (mapped) {
        munmap(p, capacity);
        return;
    }
#endif
    (void)capacity;
    std::free(p);
}
}

tBlob::~tBlob()
{
    freeStorage(m_data, m_capacity, m_bMapped);
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

tBlob::tBlob(tBlob&& other) noexcept
    : m_data(other.m_data), m_end(other.m_end), m_capacity(other.m_capacity), m_offset(other.m_offset),
      m_bMapped(other.m_bMapped)
{
    other.m_data = nullptr;
    other.m_end = other.m_capacity = other.m_offset = 0;
    other.m_bMapped = false;
}

tBlob& tBlob::operator=(tBlob const& other)
{
    if (this != &other) {
        m_end = m_offset = 0;
        append(other.getBuffer(), other.size());
    }
    return *this;
}

tBlob& tBlob::operator=(tBlob&& other) noexcept
{
    if (this != &other) {
        tBlob taken(std::move(other));
        swap(taken);
    }
    return *this;
}

void tBlob::compact()
{
    if (m_offset == 0) return;
    const std::size_t live = m_end - m_offset;
    if (live) std::memmove(m_data, m_data + m_offset, live);
    m_end = live;
    m_offset = 0;
}

void tBlob::grow(std::size_t n)
{
    if (m_offset + n <= m_capacity) return;
    const std::size_t live = m_end - m_offset;
    if (n <= m_capacity && m_offset && live <= m_capacity / 2) {
        // The dead prefix is most of the storage: reuse it.
        compact();
        return;
    }
    // At least twice as large, so a blob grown piece by piece moves O(1) times per byte.
    moveTo(m_capacity * 2 > n ? m_capacity * 2 : n);
}

void tBlob::moveTo(std::size_t capacity)
{
    const std::size_t live = m_end - m_offset;
    bool mapped = m_capacity != 0 && capacity >= kMappedFrom;
#if defined(NK_TBLOB_MAPPED) && defined(MREMAP_MAYMOVE)
    if (mapped && m_bMapped) {
        // The pages move, not the bytes; the live bytes are moved to the front first only if
        // the dead prefix is large.
        if (m_offset >= kMappedFrom) compact();
        const std::size_t want = pageRounded(capacity);
        void* p = mremap(m_data, m_capacity, want, MREMAP_MAYMOVE);
        if (p != MAP_FAILED) {
            m_data = static_cast<unsigned char*>(p);
            adviseHuge(p, want);
            m_capacity = want;
            return;
        }
        // Otherwise copied, as any other storage.
    }
#endif
    unsigned char* fresh = allocateStorage(capacity, mapped);
    if (live) std::memcpy(fresh, m_data + m_offset, live);
    freeStorage(m_data, m_capacity, m_bMapped);
    m_data = fresh;
    m_capacity = capacity;
    m_bMapped = mapped;
    m_end = live;
    m_offset = 0;
}

unsigned char* tBlob::resize(unsigned int n)
{
    grow(n);
    m_end = m_offset + n;
    return getBuffer();
}

void tBlob::reserve(unsigned int n)
{
    compact();
    if (n > m_capacity) moveTo(n);
}

void tBlob::append(unsigned char const* data, unsigned int length)
{
    if (!data || length == 0) return;
    if (m_data && data >= m_data && data < m_data + m_end) {
        // The source lies inside this blob, and growing or compacting moves the storage.
        tBlob copy(data, length);
        append(copy.getBuffer(), length);
        return;
    }
    const std::size_t oldSize = m_end - m_offset;
    grow(oldSize + length);
    std::memcpy(m_data + m_end, data, length);
    m_end += length;
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
    if (m_data && data >= m_data && data < m_data + m_end) {
        tBlob copy(data, length);
        prepend(copy.getBuffer(), length);
        return;
    }
    if (m_offset >= length) {
        // Room left by earlier slices: step the read offset back.
        m_offset -= length;
        std::memcpy(m_data + m_offset, data, length);
        return;
    }
    const std::size_t live = m_end - m_offset;
    std::size_t capacity = live + length;
    bool mapped = false;
    unsigned char* fresh = allocateStorage(capacity, mapped);
    std::memcpy(fresh, data, length);
    if (live) std::memcpy(fresh + length, m_data + m_offset, live);
    freeStorage(m_data, m_capacity, m_bMapped);
    m_data = fresh;
    m_capacity = capacity;
    m_bMapped = false;
    m_end = live + length;
    m_offset = 0;
}

void tBlob::prepend(tBlob const& other)
{
    prepend(other.getBuffer(), other.size());
}

void tBlob::clear()
{
    // The storage stays: a cleared blob is usually filled again.
    m_end = 0;
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
    std::swap(m_data, other.m_data);
    std::swap(m_end, other.m_end);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_offset, other.m_offset);
    std::swap(m_bMapped, other.m_bMapped);
}

bool tBlob::operator==(tBlob const& o) const
{
    unsigned int n = size();
    if (n != o.size()) return false;
    return n == 0 || std::memcmp(getBuffer(), o.getBuffer(), n) == 0;
}

#ifndef NK_TBLOB_H
#define NK_TBLOB_H

#include <cstddef>
#include <memory>
#include <vector>

#include "nkSupportExport.h"

// Asks the system to back the whole 2 MiB pages inside [p, p + bytes) with huge pages
// where it can (Linux transparent huge pages in "madvise" mode); nothing elsewhere.
NKS_API void nk_adviseLargeBuffer(void* p, std::size_t bytes);

// Leaves new bytes uninitialised on resize: buffers are sized once and then filled, so
// zeroing them first would be a wasted pass over every large payload. Large buffers are
// advised as huge pages: a fresh 64 MiB buffer then costs 32 page faults instead of 16,384,
// which on a virtual machine is most of the time of a first large transfer.
template <typename T>
struct tDefaultInitAllocator : std::allocator<T>
{
    template <typename U> struct rebind { using other = tDefaultInitAllocator<U>; };
    using std::allocator<T>::allocator;
    static const std::size_t kLargeBytes = std::size_t(4) << 20;
    T* allocate(std::size_t n)
    {
        T* p = std::allocator<T>::allocate(n);
        if (n * sizeof(T) >= kLargeBytes) nk_adviseLargeBuffer(p, n * sizeof(T));
        return p;
    }
    template <typename U> void construct(U* p) { ::new (static_cast<void*>(p)) U; }
    template <typename U, typename... A> void construct(U* p, A&&... a)
    {
        ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
    }
};

// A byte buffer. Cutting bytes off the front (slice) is O(1) amortised: the buffer keeps
// a read offset and compacts lazily, because stream parsers cut every frame off the front.
class NKS_API tBlob
{
public:
    tBlob() = default;
    explicit tBlob(tBlob const* other);  // copy; null gives an empty blob
    tBlob(unsigned char const* data, unsigned int length);
    tBlob(tBlob const& other);
    tBlob(tBlob&& other) noexcept;
    tBlob& operator=(tBlob const& other);
    tBlob& operator=(tBlob&& other) noexcept;
    virtual ~tBlob() = default;

    unsigned int size() const { return static_cast<unsigned int>(m_data.size() - m_offset); }
    bool isEmpty() const { return size() == 0; }
    // Never null, also for a blob that never held a byte, so that callers may hand it to
    // memcpy and the like with a size of 0.
    unsigned char* getBuffer() { return m_data.data() ? m_data.data() + m_offset : &s_noBytes; }
    unsigned char const* getBuffer() const { return m_data.data() ? m_data.data() + m_offset : &s_noBytes; }

    void append(unsigned char const* data, unsigned int length);
    void append(tBlob const& other);
    void append(unsigned char byte);
    void prepend(unsigned char const* data, unsigned int length);
    void prepend(tBlob const& other);
    void clear();
    // Removes the first n bytes (all when n is at least the size).
    void slice(unsigned int n);
    // Index of the first byte equal to b, or 0xFFFFFFFF when absent.
    unsigned int getIndexOf(unsigned char b) const;
    // Sets the size; new bytes are unspecified. Gives the writable buffer.
    unsigned char* resize(unsigned int n);
    void reserve(unsigned int n);
    void swap(tBlob& other) noexcept;

    bool operator==(tBlob const& o) const;
    bool operator!=(tBlob const& o) const { return !(*this == o); }

private:
    void compact();

    inline static unsigned char s_noBytes = 0;

    std::vector<unsigned char, tDefaultInitAllocator<unsigned char>> m_data;
    std::size_t m_offset = 0;
};

#endif

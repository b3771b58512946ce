#ifndef NK_TBLOB_H
#define NK_TBLOB_H

#include <cstddef>
#include <memory>
#include <vector>

#include "nkSupportExport.h"

// Asks the system to back the whole 2 MiB pages inside [p, p + bytes) with huge pages
// where it can (Linux transparent huge pages in "madvise" mode); nothing elsewhere.
NKS_API void nk_adviseLargeBuffer(void* p, std::size_t bytes);

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
    virtual ~tBlob();

    unsigned int size() const { return static_cast<unsigned int>(m_end - m_offset); }
    bool isEmpty() const { return size() == 0; }
    // Bytes of storage held, for owners that keep a blob for reuse and give large storage back.
    std::size_t capacity() const { return m_capacity; }
    // Never null, also for a blob that never held a byte, so that callers may hand it to
    // memcpy and the like with a size of 0.
    unsigned char* getBuffer() { return m_data ? m_data + m_offset : &s_noBytes; }
    unsigned char const* getBuffer() const { return m_data ? m_data + m_offset : &s_noBytes; }

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
    // Makes room for at least n bytes behind the offset, keeping the live bytes.
    void grow(std::size_t n);
    // Moves the live bytes to the front of storage of (at least) this capacity.
    void moveTo(std::size_t capacity);

    inline static unsigned char s_noBytes = 0;

    // Bytes [m_offset, m_end) of m_data are the content; new bytes are left uninitialised,
    // since buffers are sized once and then filled. A blob that grows past a MiB moves into
    // mapped pages of its own (m_bMapped), so that growing it further moves page mappings
    // instead of bytes.
    unsigned char* m_data = nullptr;
    std::size_t m_end = 0;
    std::size_t m_capacity = 0;
    std::size_t m_offset = 0;
    bool m_bMapped = false;
};

#endif

#ifndef NK_TVECTOR_H
#define NK_TVECTOR_H

#include <utility>
#include <vector>

#include "tCriticalSection.h"

namespace nk_detail
{
// Bubble sort that remembers where the last swap happened. The comparator answers whether
// the left neighbour belongs after the right one; neighbours for which it is false stay in
// order, so the sort is stable. It works in place and allocates nothing.
template <typename T, typename Cmp>
void lastSwapBubbleSort(std::vector<T>& v, Cmp cmp)
{
    std::size_t n = v.size();
    while (n > 1) {
        std::size_t last = 1;
        for (std::size_t i = 0; i + 1 < n; ++i) {
            if (cmp(v[i], v[i + 1])) {
                std::swap(v[i], v[i + 1]);
                last = i + 1;
            }
        }
        n = last;
    }
}
}

// A vector with a registered comparator and a stable sort. Not synchronised.
template <typename T>
class tVector : public std::vector<T>
{
public:
    typedef bool (*tComparator)(T&, T&);

    tVector() = default;

    // The element, or a zero value of T when index is past the end.
    T get(unsigned int index) const { return index < this->size() ? (*this)[index] : T(); }
    void registerComparator(tComparator cmp) { m_cmp = cmp; }
    void sort(tComparator cmp)
    {
        registerComparator(cmp);
        sort();
    }
    void sort()
    {
        if (m_cmp == nullptr || this->size() < 2) return;
        nk_detail::lastSwapBubbleSort(*this, m_cmp);
    }

private:
    tComparator m_cmp = nullptr;
};

// The thread-safe variant for pointer elements: sort and clearVector take its own
// re-entrant lock, and with ownsElements it deletes its elements. The plain vector
// operations are not locked; owners that share the list lock around them.
template <typename T>
class tVector_TS : public std::vector<T>
{
public:
    typedef bool (*tComparator)(T&, T&);

    explicit tVector_TS(bool ownsElements) : m_lock(true), m_owns(ownsElements) {}
    ~tVector_TS() { clearVector(); }
    tVector_TS(tVector_TS const&) = delete;
    tVector_TS& operator=(tVector_TS const&) = delete;

    // The comparator is stored under the lock too: sort() reads it there, and two threads
    // that sort one list with sort(cmp) would otherwise race on it.
    void registerComparator(tComparator cmp)
    {
        tCriticalSectionLock lock(m_lock);
        m_cmp = cmp;
    }
    void sort(tComparator cmp)
    {
        tCriticalSectionLock lock(m_lock);
        registerComparator(cmp);
        sort();
    }
    void sort()
    {
        tCriticalSectionLock lock(m_lock);
        if (m_cmp == nullptr) return;
        nk_detail::lastSwapBubbleSort(*this, m_cmp);
    }
    void clearVector()
    {
        tCriticalSectionLock lock(m_lock);
        if (m_owns)
            for (T& e : *this) delete e;  // delete of null does nothing
        this->clear();
    }

private:
    tComparator m_cmp = nullptr;
    tCriticalSection m_lock;
    bool m_owns;
};

#endif

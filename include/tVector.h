#ifndef NK_TVECTOR_H
#define NK_TVECTOR_H

#include <algorithm>
#include <utility>
#include <vector>

#include "tCriticalSection.h"

namespace nk_detail
{
// The order of a stable bubble sort that exchanges neighbours while the comparator says the
// left one belongs after the right one, in O(n log n): for a comparator that is a strict weak
// order ("a belongs after b"), that bubble sort never exchanges two equivalent elements and
// stops only when no neighbours are out of order, so its result is the one stable ascending
// order, which std::stable_sort gives with the arguments of the comparator exchanged.
template <typename T, typename Cmp>
void stableSortAfter(std::vector<T>& v, Cmp cmp)
{
    // The registered comparators take non-const references (a fixed interface); the sort
    // passes some elements as const ones, which the comparators only read.
    std::stable_sort(v.begin(), v.end(),
                     [cmp](T const& a, T const& b) { return cmp(const_cast<T&>(b), const_cast<T&>(a)); });
}
}

// A vector with a registered comparator and a stable sort. The comparator answers whether its
// first argument belongs after its second and must be a strict weak order. Not synchronised.
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
        nk_detail::stableSortAfter(*this, m_cmp);
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
        nk_detail::stableSortAfter(*this, m_cmp);
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

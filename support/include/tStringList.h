#ifndef NK_TSTRINGLIST_H
#define NK_TSTRINGLIST_H

#include <vector>

#include "tString.h"

class NKS_API tStringList
{
public:
    void add(tString const& s) { m_items.push_back(s); }
    // Appends every entry of other.
    void add(tStringList const& other);
    unsigned int count() const { return static_cast<unsigned int>(m_items.size()); }
    // The entry, or the empty text past the end.
    tString get(unsigned int index) const;
    void clear() { m_items.clear(); }
    bool operator==(tStringList const& o) const { return m_items == o.m_items; }
    bool operator!=(tStringList const& o) const { return !(*this == o); }

private:
    std::vector<tString> m_items;
};

// A list of unsigned 64-bit ids (image uids and the like).
using tUidList = std::vector<unsigned long long>;

#endif

#include "tStringList.h"

void tStringList::add(tStringList const& other)
{
    if (&other == this) {
        std::vector<tString> copy(m_items);
        m_items.insert(m_items.end(), copy.begin(), copy.end());
        return;
    }
    m_items.insert(m_items.end(), other.m_items.begin(), other.m_items.end());
}

tString tStringList::get(unsigned int index) const
{
    if (index >= m_items.size()) return tString();
    return m_items[index];
}

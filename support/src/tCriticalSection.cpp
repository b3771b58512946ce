#include "tCriticalSection.h"

#include <mutex>

tCriticalSection::tCriticalSection(bool recursive) : m_recursive(recursive)
{
    if (m_recursive)
        m_mutex = new std::recursive_mutex;
    else
        m_mutex = new std::mutex;
}

tCriticalSection::~tCriticalSection()
{
    if (m_recursive)
        delete static_cast<std::recursive_mutex*>(m_mutex);
    else
        delete static_cast<std::mutex*>(m_mutex);
}

void tCriticalSection::enter(char const* /*name*/)
{
    if (m_recursive)
        static_cast<std::recursive_mutex*>(m_mutex)->lock();
    else
        static_cast<std::mutex*>(m_mutex)->lock();
}

bool tCriticalSection::tryEnter()
{
    if (m_recursive) return static_cast<std::recursive_mutex*>(m_mutex)->try_lock();
    return static_cast<std::mutex*>(m_mutex)->try_lock();
}

void tCriticalSection::leave()
{
    if (m_recursive)
        static_cast<std::recursive_mutex*>(m_mutex)->unlock();
    else
        static_cast<std::mutex*>(m_mutex)->unlock();
}

#ifndef NK_TCRITICALSECTION_H
#define NK_TCRITICALSECTION_H

#include "nkSupportExport.h"

// A lock; built with true it is re-entrant for the thread that holds it.
class NKS_API tCriticalSection
{
public:
    explicit tCriticalSection(bool recursive = true);
    ~tCriticalSection();
    tCriticalSection(tCriticalSection const&) = delete;
    tCriticalSection& operator=(tCriticalSection const&) = delete;

    // name is a diagnostic label and may be null.
    void enter(char const* name = nullptr);
    bool tryEnter();
    void leave();

private:
    void* m_mutex;
    bool m_recursive;
};

// Holds a tCriticalSection for the lifetime of a scope.
class tCriticalSectionLock
{
public:
    explicit tCriticalSectionLock(tCriticalSection& cs) : m_cs(cs) { m_cs.enter(nullptr); }
    ~tCriticalSectionLock() { m_cs.leave(); }
    tCriticalSectionLock(tCriticalSectionLock const&) = delete;
    tCriticalSectionLock& operator=(tCriticalSectionLock const&) = delete;

private:
    tCriticalSection& m_cs;
};

#endif

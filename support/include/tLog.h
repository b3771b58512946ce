#ifndef NK_TLOG_H
#define NK_TLOG_H

#include <cstdarg>

#include "nkSupportExport.h"

// Log base: formats printf-style text and hands each line to an output function together
// with the context given at construction. Without an output function nothing is formatted.
class NKS_API tLog
{
public:
    typedef void (*tOutputFcn)(void* context, char const* text);

    tLog(void* context, tOutputFcn output) : m_context(context), m_output(output) {}
    virtual void log(char const* format, ...) __attribute__((format(printf, 2, 3)));
    virtual ~tLog() = default;

    void vlog(char const* format, va_list args);
    bool logEnabled() const { return m_output != nullptr; }

private:
    void* m_context;
    tOutputFcn m_output;
};

#endif

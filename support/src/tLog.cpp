#include "tLog.h"

#include <cstdio>
#include <string>

void tLog::log(char const* format, ...)
{
    if (!m_output) return;
    va_list args;
    va_start(args, format);
    vlog(format, args);
    va_end(args);
}

void tLog::vlog(char const* format, va_list args)
{
    if (!m_output || !format) return;
    char small[512];
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    if (n < 0) {
        va_end(again);
        return;
    }
    if (static_cast<std::size_t>(n) < sizeof small) {
        va_end(again);
        m_output(m_context, small);
        return;
    }
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    std::vsnprintf(&big[0], big.size(), format, again);
    va_end(again);
    m_output(m_context, big.c_str());
}

#include "tString.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>

tString::tString(char const* text)
{
    if (text) m_s.assign(text);
}

tString::tString(char const* data, unsigned int length)
{
    if (data) m_s.assign(data, length);
}

char* tString::setLength(unsigned int length)
{
    m_s.resize(length, '\0');
    return &m_s[0];
}

bool tString::operator==(char const* o) const
{
    if (!o) return m_s.empty();
    return m_s.compare(o) == 0;
}

tString tString::operator+(char const* o) const
{
    tString r(*this);
    r += o;
    return r;
}

tString& tString::operator+=(char const* o)
{
    if (o) m_s += o;
    return *this;
}

tString tString::strBefor(tString const& sep) const
{
    std::size_t pos = m_s.find(sep.m_s);
    if (pos == std::string::npos) return *this;
    return tString(m_s.substr(0, pos));
}

tString tString::strAfter(tString const& sep) const
{
    std::size_t pos = m_s.find(sep.m_s);
    if (pos == std::string::npos) return tString();
    return tString(m_s.substr(pos + sep.m_s.size()));
}

long long tString::toIntDef(long long def) const
{
    std::size_t i = 0;
    bool negative = false;
    if (i < m_s.size() && (m_s[i] == '+' || m_s[i] == '-')) {
        negative = m_s[i] == '-';
        ++i;
    }
    if (i == m_s.size()) return def;
    // Accumulate the magnitude as unsigned so that the most negative value fits too.
    unsigned long long magnitude = 0;
    const unsigned long long limit = negative
        ? static_cast<unsigned long long>(std::numeric_limits<long long>::max()) + 1ULL
        : static_cast<unsigned long long>(std::numeric_limits<long long>::max());
    for (; i < m_s.size(); ++i) {
        char c = m_s[i];
        if (c < '0' || c > '9') return def;
        unsigned digit = static_cast<unsigned>(c - '0');
        if (magnitude > (limit - digit) / 10) return def;
        magnitude = magnitude * 10 + digit;
    }
    if (!negative) return static_cast<long long>(magnitude);
    if (magnitude == 0) return 0;
    return -static_cast<long long>(magnitude - 1) - 1;
}

tString& tString::completePath()
{
    if (!m_s.empty() && m_s.back() != '/') m_s += '/';
    return *this;
}

bool tString::startsWith(tString const& prefix) const
{
    return m_s.size() >= prefix.m_s.size() && m_s.compare(0, prefix.m_s.size(), prefix.m_s) == 0;
}

bool tString::endsWith(tString const& suffix) const
{
    return m_s.size() >= suffix.m_s.size() &&
           m_s.compare(m_s.size() - suffix.m_s.size(), suffix.m_s.size(), suffix.m_s) == 0;
}

tString tString::fromUInt64(unsigned long long v)
{
    return tString(std::to_string(v));
}

tString tString::fromInt64(long long v)
{
    return tString(std::to_string(v));
}

tString tString::format(char const* fmt, ...)
{
    if (!fmt) return tString();
    char small[256];
    va_list args;
    va_start(args, fmt);
    int n = std::vsnprintf(small, sizeof small, fmt, args);
    va_end(args);
    if (n < 0) return tString();
    if (static_cast<std::size_t>(n) < sizeof small) return tString(small, static_cast<unsigned int>(n));
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    va_start(args, fmt);
    std::vsnprintf(&big[0], big.size(), fmt, args);
    va_end(args);
    big.resize(static_cast<std::size_t>(n));
    return tString(std::move(big));
}

tString operator+(char const* a, tString const& b)
{
    tString r(a);
    r += b;
    return r;
}

#ifndef NK_TSTRING_H
#define NK_TSTRING_H

#include <string>

#include "nkSupportExport.h"

// A byte string. Bytes pass through unchanged (NUL bytes included); text is UTF-8 by
// convention only.
class NKS_API tString
{
public:
    tString() = default;
    tString(char const* text);  // null gives the empty string
    tString(char const* data, unsigned int length);
    tString(std::string s) : m_s(std::move(s)) {}

    char const* c_str() const { return m_s.c_str(); }
    char const* data() const { return m_s.data(); }
    unsigned int length() const { return static_cast<unsigned int>(m_s.size()); }
    bool isEmpty() const { return m_s.empty(); }
    std::string const& str() const { return m_s; }

    void clear() { m_s.clear(); }
    void assign(char const* data, unsigned int length) { m_s.assign(data, length); }
    // Sets the length; new bytes are zero. Gives the writable buffer.
    char* setLength(unsigned int length);

    bool operator==(tString const& o) const { return m_s == o.m_s; }
    bool operator!=(tString const& o) const { return m_s != o.m_s; }
    bool operator==(char const* o) const;
    bool operator!=(char const* o) const { return !(*this == o); }
    bool operator<(tString const& o) const { return m_s < o.m_s; }
    tString operator+(tString const& o) const { return tString(m_s + o.m_s); }
    tString operator+(char const* o) const;
    tString& operator+=(tString const& o) { m_s += o.m_s; return *this; }
    tString& operator+=(char const* o);
    tString& operator+=(char c) { m_s += c; return *this; }

    // Text before the first sep, or the whole text when sep is absent.
    tString strBefor(tString const& sep) const;
    // Text after the first sep, or the empty text when sep is absent.
    tString strAfter(tString const& sep) const;
    // Optional sign and decimal digits filling the whole text, otherwise def.
    long long toIntDef(long long def) const;
    // Appends "/" unless the text is empty or already ends in "/".
    tString& completePath();
    bool startsWith(tString const& prefix) const;
    bool endsWith(tString const& suffix) const;

    static tString fromUInt64(unsigned long long v);
    static tString fromInt64(long long v);
    // printf-style formatting.
    static tString format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

private:
    std::string m_s;
};

NKS_API tString operator+(char const* a, tString const& b);
inline bool operator==(char const* a, tString const& b) { return b == a; }
inline bool operator!=(char const* a, tString const& b) { return !(b == a); }

#endif

#ifndef NK_TTIME_H
#define NK_TTIME_H

#include "nkSupportExport.h"

// A point in time in whole Unix seconds. The calendar setters and getters work in UTC.
class NKS_API tTime
{
public:
    tTime(long long secondsSinceEpoch = 0) : m_sec(secondsSinceEpoch) {}

    static long long now();
    // Sleeps for ms milliseconds.
    static void sleep(unsigned int ms);

    long long timeSec() const { return m_sec; }
    void setTimeSec(long long s) { m_sec = s; }
    // Seconds since the day's midnight (0 to 86399).
    unsigned int dayTimeSeconds() const;

    // Each setter replaces one calendar field and keeps the others; values out of range
    // carry over as in timegm (month 13 is January of the next year).
    void year(unsigned short y);
    void month(unsigned char m);
    void mDay(unsigned char d);
    void hour(unsigned char h);
    void minute(unsigned char m);
    void second(unsigned char s);

    int getYear() const;
    int getMonth() const;  // 1 to 12
    int getMDay() const;   // 1 to 31
    int getHour() const;
    int getMinute() const;
    int getSecond() const;

private:
    struct Civil { long long y; int mo, d, h, mi, s; };
    Civil civil() const;
    void setCivil(Civil const& c);

    long long m_sec;
};

#endif

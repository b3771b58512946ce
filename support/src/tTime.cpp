#include "tTime.h"

#include <chrono>
#include <thread>

// Calendar arithmetic is done here in 64 bits rather than with time_t and gmtime: 32-bit
// ARM builds may have a 32-bit time_t, and the proleptic Gregorian calendar is simple.
namespace
{
constexpr long long kSecondsPerDay = 86400;

long long floorDiv(long long a, long long b)
{
    long long q = a / b;
    return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

// For b > 0. Not a - floorDiv(a, b) * b: near the lowest 64-bit value that product is below
// the range, and the remainder alone is always defined.
long long floorMod(long long a, long long b)
{
    const long long r = a % b;
    return r < 0 ? r + b : r;
}

// Days since 1970-01-01 of a date whose month is 1 to 12 (the day may be out of range).
long long daysFromCivil(long long y, int m, long long d)
{
    y -= m <= 2;
    const long long era = floorDiv(y, 400);
    const long long yearOfEra = y - era * 400;
    const long long dayOfYear = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

void civilFromDays(long long z, long long& y, int& m, int& d)
{
    z += 719468;
    const long long era = floorDiv(z, 146097);
    const long long dayOfEra = z - era * 146097;
    const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long mp = (5 * dayOfYear + 2) / 153;
    d = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = yearOfEra + era * 400 + (m <= 2);
}
}

long long tTime::now()
{
    using namespace std::chrono;
    return floor<seconds>(system_clock::now()).time_since_epoch().count();
}

void tTime::sleep(unsigned int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

unsigned int tTime::dayTimeSeconds() const
{
    return static_cast<unsigned int>(floorMod(m_sec, kSecondsPerDay));
}

tTime::Civil tTime::civil() const
{
    Civil c{};
    const long long days = floorDiv(m_sec, kSecondsPerDay);
    const long long rest = floorMod(m_sec, kSecondsPerDay);
    civilFromDays(days, c.y, c.mo, c.d);
    c.h = static_cast<int>(rest / 3600);
    c.mi = static_cast<int>(rest / 60 % 60);
    c.s = static_cast<int>(rest % 60);
    return c;
}

void tTime::setCivil(Civil const& c)
{
    // Month, day and time fields out of range carry over into the next larger field.
    const long long monthIndex = static_cast<long long>(c.mo) - 1;
    const long long y = c.y + floorDiv(monthIndex, 12);
    const int m = static_cast<int>(floorMod(monthIndex, 12)) + 1;
    const long long days = daysFromCivil(y, m, 1) + c.d - 1;
    // Unsigned arithmetic: a result beyond the 64-bit range wraps (modulo 2^64) instead of
    // being undefined, and a time at either end that is set to its own fields comes back
    // unchanged, as the sum wraps back into the range.
    unsigned long long s = static_cast<unsigned long long>(days) * kSecondsPerDay;
    s += static_cast<unsigned long long>(static_cast<long long>(c.h) * 3600 + static_cast<long long>(c.mi) * 60 + c.s);
    m_sec = static_cast<long long>(s);
}

void tTime::year(unsigned short y)
{
    Civil c = civil();
    c.y = y;
    setCivil(c);
}

void tTime::month(unsigned char m)
{
    Civil c = civil();
    c.mo = m;
    setCivil(c);
}

void tTime::mDay(unsigned char d)
{
    Civil c = civil();
    c.d = d;
    setCivil(c);
}

void tTime::hour(unsigned char h)
{
    Civil c = civil();
    c.h = h;
    setCivil(c);
}

void tTime::minute(unsigned char m)
{
    Civil c = civil();
    c.mi = m;
    setCivil(c);
}

void tTime::second(unsigned char s)
{
    Civil c = civil();
    c.s = s;
    setCivil(c);
}

int tTime::getYear() const { return static_cast<int>(civil().y); }
int tTime::getMonth() const { return civil().mo; }
int tTime::getMDay() const { return civil().d; }
int tTime::getHour() const { return civil().h; }
int tTime::getMinute() const { return civil().mi; }
int tTime::getSecond() const { return civil().s; }

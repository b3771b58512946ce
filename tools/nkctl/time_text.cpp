#include "time_text.h"

#include <cctype>

#include "tTime.h"

namespace
{
bool digitsAt(std::string const& text, std::size_t at, std::size_t count, int& value)
{
    if (at + count > text.size()) return false;
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

bool leapYear(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month)
{
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : days[month - 1];
}

// "Z", "+hh", "+hhmm", "+hh:mm" (or "-"), as seconds east of UTC; false when malformed.
bool parseZone(std::string const& zone, long long& offset)
{
    offset = 0;
    if (zone.empty() || zone == "Z" || zone == "z") return true;
    if (zone[0] != '+' && zone[0] != '-') return false;
    int hours = 0, minutes = 0;
    if (!digitsAt(zone, 1, 2, hours)) return false;
    if (zone.size() == 3) {
    } else if (zone.size() == 5 && digitsAt(zone, 3, 2, minutes)) {
    } else if (zone.size() == 6 && zone[3] == ':' && digitsAt(zone, 4, 2, minutes)) {
    } else {
        return false;
    }
    if (hours > 23 || minutes > 59) return false;
    offset = (hours * 3600LL + minutes * 60LL) * (zone[0] == '-' ? -1 : 1);
    return true;
}
}

char const* timeTextForms()
{
    return "seconds, or \"YYYY-MM-DD hh:mm:ss\" (UTC), \"YYYY-MM-DDThh:mm:ssZ\" or with an offset such as +02:00";
}

bool parseTimeText(std::string const& text, long long& seconds, std::string& error)
{
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    const bool shape = text.size() >= 19 && digitsAt(text, 0, 4, year) && text[4] == '-' &&
                       digitsAt(text, 5, 2, month) && text[7] == '-' && digitsAt(text, 8, 2, day) &&
                       (text[10] == ' ' || text[10] == 'T' || text[10] == 't') && digitsAt(text, 11, 2, hour) &&
                       text[13] == ':' && digitsAt(text, 14, 2, minute) && text[16] == ':' &&
                       digitsAt(text, 17, 2, second);
    if (!shape) {
        error = "not a time";
        return false;
    }
    std::size_t at = 19;
    if (at < text.size() && text[at] == '.') {
        const std::size_t digits = at + 1;
        at = digits;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
        if (at == digits) {
            error = "a fraction of a second needs digits after the point";
            return false;
        }
    }
    long long offset = 0;
    if (!parseZone(text.substr(at), offset)) {
        error = "\"" + text.substr(at) + "\" is not a time zone (Z, +hh:mm or -hh:mm)";
        return false;
    }
    if (month < 1 || month > 12) {
        error = "month " + std::to_string(month) + " does not exist";
        return false;
    }
    if (day < 1 || day > daysInMonth(year, month)) {
        error = "day " + std::to_string(day) + " does not exist in " + text.substr(0, 7);
        return false;
    }
    if (hour > 23 || minute > 59 || second > 59) {
        error = "time of day " + text.substr(11, 8) + " does not exist";
        return false;
    }
    // The same calendar the device uses to read the text (UTC, proleptic Gregorian).
    tTime t(0);
    t.year(static_cast<unsigned short>(year));
    t.month(static_cast<unsigned char>(month));
    t.mDay(static_cast<unsigned char>(day));
    t.hour(static_cast<unsigned char>(hour));
    t.minute(static_cast<unsigned char>(minute));
    t.second(static_cast<unsigned char>(second));
    seconds = t.timeSec() - offset;
    if (seconds < 0 || seconds > 0xFFFFFFFFLL) {
        error = "outside the times a schedule carries (1970-01-01 to 2106-02-07 06:28:15 UTC)";
        return false;
    }
    return true;
}

#ifndef NK_TOOLS_TIME_TEXT_H
#define NK_TOOLS_TIME_TEXT_H

#include <string>

// Reads a point in time written as text into seconds since 1970-01-01 00:00:00 UTC.
// Accepted: "YYYY-MM-DD hh:mm:ss" and "YYYY-MM-DDThh:mm:ss", each with an optional fraction
// of a second (ignored, as the device ignores it), then optionally "Z" or an offset from UTC
// ("+02:00", "-0530", "+02"). Without a zone the text is read as UTC, the zone the device
// reads it in. A date or time that does not exist ("2024-02-30", "25:30:00") is refused
// instead of being moved to another day: false, with the reason in error.
// Times the schedules carry fit in 32 bits: earlier than 1970 or after 2106-02-07 06:28:15
// UTC is refused as well.
bool parseTimeText(std::string const& text, long long& seconds, std::string& error);

// The forms parseTimeText accepts, for error messages.
char const* timeTextForms();

#endif

#ifndef NK_TOOLS_OUTPUT_H
#define NK_TOOLS_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string>

#include "tJson.h"

// Where a command's results go: one compact JSON object per line (for jq and scripts) or,
// when standard output is a terminal, a readable form of the same content.
class Output
{
public:
    enum Mode { AUTO, JSON, HUMAN };
    explicit Output(Mode mode = AUTO);
    bool human() const { return m_human; }

    // headline is shown above the object in the human form only. In the JSON form every
    // "uid"/"imageUid" number also comes as decimal text (see addIdTexts).
    void emit(tJson const& object, std::string const& headline = std::string()) const;

private:
    bool m_human;
};

// The readable form of a compact JSON text: one "key: value" per line, keys the library
// abbreviates named in words, times of events as dates, nested objects and arrays indented,
// long strings (base64 contents) shortened and control characters escaped.
std::string renderHuman(std::string const& compactJson);

// Text from a device made safe for a terminal: control characters (C0, DEL, C1) become
// visible escapes, so a name cannot retitle the terminal, move the cursor or fake lines.
std::string escapeControl(std::string const& text);

// Seconds since 1970 as "YYYY-MM-DD hh:mm:ss UTC".
std::string utcText(long long seconds);

// A --verbose log line on standard error: "2026-11-23 14:05:09.123 UTC info nkdevice:
// connection from ...". level is one of "debug" (the engine's own messages), "info",
// "warning", "error".
void logLine(char const* level, std::string const& source, std::string const& text);

// "<program>: <message>" on standard error.
void reportError(char const* program, std::string const& message);

// A progress line on standard error for long transfers, silent unless stderr is a terminal:
// the bytes of the file or message done and in all, the rate, and the time left.
class Progress
{
public:
    Progress(std::string label, std::uint64_t total);
    ~Progress() { finish(); }
    void update(std::uint64_t done);
    void finish();

private:
    std::string m_label;
    std::uint64_t m_total;
    bool m_active;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_lastShown{};
    bool m_shown = false;
    bool m_complete = false;
};

// One line on a terminal's standard error while a long preparation runs (reading and
// encoding a large file; bytes 0: not yet known); nothing when stderr is not a terminal. The
// next progress line replaces it, Progress::finish wipes it.
void showPreparing(std::string const& label, std::uint64_t bytes);

#endif

#ifndef NK_TOOLS_OUTPUT_H
#define NK_TOOLS_OUTPUT_H

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

    // headline is shown above the object in the human form only.
    void emit(tJson const& object, std::string const& headline = std::string()) const;

private:
    bool m_human;
};

// The readable form of a compact JSON text: one "key: value" per line, nested objects and
// arrays indented, long strings (base64 contents) shortened.
std::string renderHuman(std::string const& compactJson);

// "<program>: <message>" on standard error.
void reportError(char const* program, std::string const& message);

// A progress line on standard error for long transfers; silent unless stderr is a terminal.
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
    int m_lastPercent = -1;
};

#endif

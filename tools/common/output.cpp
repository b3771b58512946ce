#include "output.h"

#include <cstdio>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace
{
using Json = nlohmann::ordered_json;

std::string scalarText(Json const& v)
{
    if (v.is_string()) {
        const std::string& s = v.get_ref<std::string const&>();
        if (s.size() > 72) return s.substr(0, 40) + "... (" + std::to_string(s.size()) + " characters)";
        return s.empty() ? "\"\"" : s;
    }
    return v.dump();
}

void render(Json const& v, int indent, std::string& out)
{
    const std::string pad(static_cast<std::size_t>(indent), ' ');
    if (v.is_object()) {
        for (auto it = v.begin(); it != v.end(); ++it) {
            if (it->is_structured() && !it->empty()) {
                out += pad + it.key() + ":\n";
                render(*it, indent + 2, out);
            } else {
                out += pad + it.key() + ": " + (it->is_structured() ? it->dump() : scalarText(*it)) + "\n";
            }
        }
    } else if (v.is_array()) {
        for (auto const& element : v) {
            if (element.is_object() && !element.empty()) {
                std::string inner;
                render(element, indent + 2, inner);
                inner.replace(static_cast<std::size_t>(indent), 2, "- ");
                out += inner;
            } else {
                out += pad + "- " + scalarText(element) + "\n";
            }
        }
    } else {
        out += pad + scalarText(v) + "\n";
    }
}
}

Output::Output(Mode mode) : m_human(mode == HUMAN || (mode == AUTO && ::isatty(STDOUT_FILENO) == 1)) {}

void Output::emit(tJson const& object, std::string const& headline) const
{
    const tString text = object.getJson(false);
    if (!m_human) {
        std::fwrite(text.data(), 1, text.length(), stdout);
        std::fputc('\n', stdout);
    } else {
        if (!headline.empty()) std::printf("%s\n", headline.c_str());
        std::string body = renderHuman(text.str());
        std::fwrite(body.data(), 1, body.size(), stdout);
    }
    std::fflush(stdout);
}

std::string renderHuman(std::string const& compactJson)
{
    Json parsed = Json::parse(compactJson, nullptr, false);
    if (parsed.is_discarded()) return compactJson + "\n";
    std::string out;
    render(parsed, 2, out);
    return out;
}

void reportError(char const* program, std::string const& message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", program, message.c_str());
}

Progress::Progress(std::string label, std::uint64_t total)
    : m_label(std::move(label)), m_total(total), m_active(total > 0 && ::isatty(STDERR_FILENO) == 1)
{
}

void Progress::update(std::uint64_t done)
{
    if (!m_active) return;
    const int percent = static_cast<int>(done >= m_total ? 100 : done * 100 / m_total);
    if (percent == m_lastPercent) return;
    m_lastPercent = percent;
    std::fprintf(stderr, "\r%s: %3d%% (%llu of %llu bytes)", m_label.c_str(), percent,
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(m_total));
    std::fflush(stderr);
}

void Progress::finish()
{
    if (!m_active) return;
    if (m_lastPercent >= 0) std::fputc('\n', stderr);
    m_active = false;
}

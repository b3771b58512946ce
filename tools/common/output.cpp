#include "output.h"

#include <cstdio>
#include <map>
#include <unistd.h>

#include "json_bridge.h"
#include "tTime.h"

namespace
{
using Json = ToolJson;

// The library's short JSON keys, named for a reader.
std::string keyInWords(std::string const& key)
{
    static const std::map<std::string, std::string> words = {
        {"serial", "serial number"},
        {"ci", "device kind"},
        {"csCfg", "configuration checksum"},
        {"csSched", "schedules checksum"},
        {"cs", "checksum"},
        {"vc", "software version"},
        {"va", "protocol address"},
        {"omc", "requests handled"},
        {"evc", "events held"},
        {"devName", "name"},
        {"devCus", "customer name"},
        {"extState", "extended state"},
        {"tv", "JSON form version"},
        {"timeFirst", "first seen"},
        {"timeLast", "last seen"},
        {"cat", "category"},
        {"occ", "occurrences"},
        {"refImage", "image"},
        {"subEvents", "details"},
        {"imgUpdateCount", "image updates"},
        {"energy_Wh", "energy (Wh)"},
        {"energy_mWh", "energy (mWh part)"},
        {"tempCaseMin", "lowest case temperature"},
        {"tempCaseMinTime", "lowest case temperature at"},
        {"tempCaseMax", "highest case temperature"},
        {"tempCaseMaxTime", "highest case temperature at"},
        {"dispConfigs", "display configurations"},
        {"logDisps", "logical displays"},
        {"rot", "rotation"},
        {"w", "width"},
        {"h", "height"},
        {"l", "left"},
        {"t", "top"},
        {"imageUid", "image id"},
        {"uid", "id"},
    };
    auto found = words.find(key);
    return found == words.end() ? escapeControl(key) : found->second;
}

bool isTimeKey(std::string const& key)
{
    return key == "timeFirst" || key == "timeLast" || key == "tempCaseMinTime" || key == "tempCaseMaxTime";
}

std::string scalarText(Json const& v)
{
    if (v.is_string()) {
        std::string s = escapeControl(v.get_ref<std::string const&>());
        if (s.size() > 72) return s.substr(0, 40) + "... (" + std::to_string(s.size()) + " characters)";
        return s.empty() ? "\"\"" : s;
    }
    return v.dump();
}

std::string memberText(std::string const& key, Json const& v)
{
    if (isTimeKey(key) && v.is_number_integer() && v.get<long long>() > 0) return utcText(v.get<long long>());
    if (key == "cat" && v.is_number_integer()) {
        static const char* const names[] = {"error", "notice", "info"};
        const long long c = v.get<long long>();
        if (c >= 0 && c <= 2) return names[c];
    }
    return v.is_structured() ? v.dump() : scalarText(v);
}

void render(Json const& v, int indent, std::string& out)
{
    const std::string pad(static_cast<std::size_t>(indent), ' ');
    if (v.is_object()) {
        for (auto it = v.begin(); it != v.end(); ++it) {
            if (it.key() == "uidText" || it.key() == "imageUidText") continue;  // the JSON form's copy
            if (it->is_structured() && !it->empty()) {
                out += pad + keyInWords(it.key()) + ":\n";
                render(*it, indent + 2, out);
            } else {
                out += pad + keyInWords(it.key()) + ": " + memberText(it.key(), *it) + "\n";
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

namespace
{
// A status line (preparing, progress) stands on the terminal without its newline; a message
// on standard error first wipes it.
bool g_statusLineOpen = false;

void wipeStatusLine()
{
    if (!g_statusLineOpen) return;
    std::fputs("\r\x1b[K", stderr);
    g_statusLineOpen = false;
}
}

bool stderrIsTerminal()
{
    return ::isatty(STDERR_FILENO) == 1;
}

std::string bytesText(double bytes)
{
    char text[32];
    if (bytes >= 1024.0 * 1024.0) std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
    else if (bytes >= 1024.0) std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else std::snprintf(text, sizeof text, "%.0f bytes", bytes);
    return text;
}
}

std::string escapeControl(std::string const& text)
{
    std::string out;
    out.reserve(text.size());
    char escape[8];
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            out += escape;
        } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            // The C1 controls (U+0080 to U+009F) in UTF-8; CSI (U+009B) works like ESC [.
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
            out += escape;
            ++i;
        } else if (c == '\\') {
            out += "\\\\";
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string utcText(long long seconds)
{
    tTime t(seconds);
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d UTC", t.getYear(), t.getMonth(), t.getMDay(),
                  t.getHour(), t.getMinute(), t.getSecond());
    return text;
}

Output::Output(Mode mode) : m_human(mode == HUMAN || (mode == AUTO && ::isatty(STDOUT_FILENO) == 1)) {}

void Output::emit(tJson const& object, std::string const& headline) const
{
    if (!m_human) {
        Json json = toToolJson(object);
        addIdTexts(json);
        const std::string text = json.is_discarded() ? object.getJson(false).str() : json.dump();
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fputc('\n', stdout);
    } else {
        if (!headline.empty()) std::printf("%s\n", escapeControl(headline).c_str());
        std::string body = renderHuman(object.getJson(false).str());
        std::fwrite(body.data(), 1, body.size(), stdout);
    }
    std::fflush(stdout);
}

std::string renderHuman(std::string const& compactJson)
{
    Json parsed = Json::parse(compactJson, nullptr, false);
    if (parsed.is_discarded()) return escapeControl(compactJson) + "\n";
    std::string out;
    render(parsed, 2, out);
    return out;
}

void logLine(char const* level, std::string const& source, std::string const& text)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    std::string stamp = utcText(ms / 1000);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03lld", ms % 1000);
    stamp.insert(19, fraction);
    wipeStatusLine();
    std::fprintf(stderr, "%s %s %s: %s\n", stamp.c_str(), level, source.c_str(), escapeControl(text).c_str());
}

void reportError(char const* program, std::string const& message)
{
    std::fflush(stdout);
    wipeStatusLine();
    std::fprintf(stderr, "%s: %s\n", program, escapeControl(message).c_str());
}

Progress::Progress(std::string label, std::uint64_t total)
    : m_label(std::move(label)), m_total(total), m_active(total > 0 && stderrIsTerminal())
{
}

void Progress::update(std::uint64_t done)
{
    if (!m_active) return;
    const auto now = std::chrono::steady_clock::now();
    if (m_shown && done < m_total && now - m_lastShown < std::chrono::milliseconds(200)) return;
    if (m_shown && done >= m_total && m_complete) return;
    m_lastShown = now;
    m_shown = true;
    m_complete = done >= m_total;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = seconds > 0.05 ? static_cast<double>(done) / seconds : 0.0;
    const unsigned int percent = static_cast<unsigned int>(done >= m_total ? 100 : done * 100 / m_total);
    std::string left = "--";
    if (rate > 0.0) left = std::to_string(static_cast<unsigned long long>((m_total - std::min(done, m_total)) / rate)) + " s";
    // Once every byte is out, the device still checks and stores what it got.
    std::fprintf(stderr, "\r\x1b[K%s: %3u%% %s of %s, %s/s, %s left%s", m_label.c_str(), percent,
                 bytesText(static_cast<double>(done)).c_str(), bytesText(static_cast<double>(m_total)).c_str(),
                 bytesText(rate).c_str(), left.c_str(), m_complete ? "; waiting for the device" : "");
    std::fflush(stderr);
    g_statusLineOpen = true;
}

void Progress::finish()
{
    m_active = false;
    if (!g_statusLineOpen) return;
    // The last progress stays on its own line; a lone "preparing" is wiped.
    std::fputs(m_shown ? "\n" : "\r\x1b[K", stderr);
    std::fflush(stderr);
    g_statusLineOpen = false;
}

void showPreparing(std::string const& label, std::uint64_t bytes)
{
    if (label.empty() || !stderrIsTerminal()) return;
    if (bytes > 0)
        std::fprintf(stderr, "\r\x1b[K%s: preparing %s", label.c_str(), bytesText(static_cast<double>(bytes)).c_str());
    else
        std::fprintf(stderr, "\r\x1b[K%s: preparing", label.c_str());
    std::fflush(stderr);
    g_statusLineOpen = true;
}

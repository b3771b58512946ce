#include "schedules_json.h"

#include <cctype>
#include <initializer_list>

#include <nlohmann/json.hpp>

#include "tool_error.h"

namespace
{
using Json = nlohmann::ordered_json;

enum Kind { ID, U32, U16, TEXT, TIME, LIST };
struct Rule
{
    char const* name;
    Kind kind;
};

// "YYYY-MM-DD hh:mm:ss" with an optional fraction; the library's reader takes anything and
// would turn a typo into some other time.
bool isTimeText(std::string const& text)
{
    static const char pattern[] = "dddd-dd-dd dd:dd:dd";
    if (text.size() < sizeof pattern - 1) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char expected = i < sizeof pattern - 1 ? pattern[i] : (i == sizeof pattern - 1 ? '.' : 'd');
        if (expected == 'd' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != expected) return false;
    }
    return text.size() != sizeof pattern;  // a fraction point needs digits
}

// Refuses members the reader would not take as written: of another type, out of range or
// unknown (a misspelt member would silently be left out).
void checkMembers(Json const& object, std::string const& where, std::initializer_list<Rule> rules)
{
    for (auto it = object.begin(); it != object.end(); ++it) {
        Rule const* rule = nullptr;
        for (Rule const& candidate : rules)
            if (it.key() == candidate.name) rule = &candidate;
        const std::string member = where + ": \"" + it.key() + "\"";
        if (!rule) throw ToolError(member + " is not a member of this object");
        Json const& v = *it;
        const bool whole = v.is_number_unsigned() || (v.is_number_integer() && v.get<long long>() >= 0);
        bool ok = true;
        switch (rule->kind) {
        case ID: ok = whole; break;
        case U32: ok = whole && v.get<unsigned long long>() <= 0xFFFFFFFFull; break;
        case U16: ok = whole && v.get<unsigned long long>() <= 0xFFFFull; break;
        case TEXT: ok = v.is_string(); break;
        case TIME: ok = v.is_number_integer() || (v.is_string() && isTimeText(v.get<std::string>())); break;
        case LIST: ok = v.is_array(); break;
        }
        if (!ok) {
            std::string shown = v.dump();
            if (shown.size() > 40) shown = shown.substr(0, 37) + "...";
            throw ToolError(member + ": " + shown + " is not a valid value" +
                            (rule->kind == TIME ? " (seconds, or \"YYYY-MM-DD hh:mm:ss\")" : ""));
        }
    }
}

void checkEntries(Json const& holder, std::string const& where)
{
    auto entries = holder.find("entries");
    if (entries == holder.end()) return;
    for (std::size_t k = 0; k < entries->size(); ++k) {
        const std::string at = where + "entry " + std::to_string(k);
        if (!(*entries)[k].is_object()) throw ToolError(at + ": not an object");
        checkMembers((*entries)[k], at, {{"uid", ID}, {"name", TEXT}, {"duration", U32}, {"imageUid", ID}});
    }
}

void checkSchedules(tJson const& json, std::string const& source)
{
    const Json root = Json::parse(json.getJson(false).str(), nullptr, false);
    if (!root.is_object()) return;
    checkMembers(root, source, {{"action", TEXT}, {"type", TEXT}, {"tv", ID}, {"schedules", LIST}, {"entries", LIST}});
    checkEntries(root, source + ": ");
    auto schedules = root.find("schedules");
    if (schedules == root.end()) return;
    for (std::size_t i = 0; i < schedules->size(); ++i) {
        const std::string at = source + ": schedule " + std::to_string(i);
        if (!(*schedules)[i].is_object()) throw ToolError(at + ": not an object");
        checkMembers((*schedules)[i], at,
                     {{"uid", ID}, {"name", TEXT}, {"startTime", TIME}, {"stopTime", TIME}, {"flags", U32},
                      {"frame", U16}, {"entries", LIST}});
        checkEntries((*schedules)[i], at + ": ");
    }
}

long long timeMember(tJson const& schedule, char const* key)
{
    const tString text = schedule.getString(key);
    if (!text.isEmpty()) return static_cast<long long>(nk_messageSetSchedulesReq::getStartTimeFromString(text));
    return schedule.getInt(key, 0);
}

// Members were checked by checkSchedules.
void addEntries(nk_messageSchedule& schedule, tJson const& holder)
{
    tJson entry;
    for (unsigned int k = 0; holder.getArrayObject("entries", k, entry); ++k)
        schedule.addScheduleEntry(entry.getUInt("uid", 0), entry.getString("name"),
                                  static_cast<unsigned int>(entry.getUInt("duration", 0)), entry.getUInt("imageUid", 0),
                                  false);
}
}

std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJson(tJson const& json, std::string const& source,
                                                              nk_message::teVersion version)
{
    if (json.getString("action") != "schedules" || json.getString("type") != "request" || json.getInt("tv", 0) < 1)
        throw ToolError(source + ": not a schedule set (needs \"action\": \"schedules\", \"type\": \"request\", "
                                 "\"tv\": 1)");
    checkSchedules(json, source);
    std::unique_ptr<nk_messageSetSchedulesReq> set(new nk_messageSetSchedulesReq(version));
    tJson element;
    for (unsigned int i = 0; json.getArrayObject("schedules", i, element); ++i) {
        nk_messageSchedule* schedule = set->addSchedule_(
            element.getUInt("uid", 0), element.getString("name"), timeMember(element, "startTime"),
            timeMember(element, "stopTime"), static_cast<unsigned int>(element.getUInt("flags", 0)),
            static_cast<unsigned short>(element.getUInt("frame", 0)));
        addEntries(*schedule, element.has("entries") ? element : json);
    }
    if (json.has("schedules") && json.getArraySize("schedules") != set->count())
        throw ToolError(source + ": \"schedules\" must be an array of objects");
    return set;
}

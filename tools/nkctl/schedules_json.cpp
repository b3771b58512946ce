#include "schedules_json.h"

#include <initializer_list>

#include "json_bridge.h"
#include "time_text.h"
#include "tool_error.h"

namespace
{
using Json = ToolJson;

// ID: a number or its decimal text (ids above 2^53 do not survive jq or JavaScript as
// numbers); ID_TEXT: the decimal-text copy that nkctl prints beside an id.
enum Kind { ID, ID_TEXT, U32, U16, TEXT, TIME, LIST };
struct Rule
{
    char const* name;
    Kind kind;
};

std::string shown(Json const& v)
{
    std::string text = v.dump();
    return text.size() > 40 ? text.substr(0, 37) + "..." : text;
}

bool decimalText(Json const& v, unsigned long long& value)
{
    if (!v.is_string()) return false;
    std::string const& text = v.get_ref<std::string const&>();
    if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    value = 0;
    for (char c : text) {
        const unsigned long long digit = static_cast<unsigned long long>(c - '0');
        if (value > (0xFFFFFFFFFFFFFFFFull - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

bool idValue(Json const& v, unsigned long long& value)
{
    if (v.is_number_unsigned()) {
        value = v.get<unsigned long long>();
        return true;
    }
    if (v.is_number_integer() && v.get<long long>() >= 0) {
        value = static_cast<unsigned long long>(v.get<long long>());
        return true;
    }
    return decimalText(v, value);
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
        unsigned long long id = 0;
        std::string reason;
        bool ok = true;
        switch (rule->kind) {
        case ID: ok = idValue(v, id); break;
        case ID_TEXT: ok = decimalText(v, id); break;
        case U32: ok = whole && v.get<unsigned long long>() <= 0xFFFFFFFFull; break;
        case U16: ok = whole && v.get<unsigned long long>() <= 0xFFFFull; break;
        case TEXT: ok = v.is_string(); break;
        case TIME: {
            long long seconds = 0;
            ok = v.is_number_integer() || (v.is_string() && parseTimeText(v.get<std::string>(), seconds, reason));
            break;
        }
        case LIST: ok = v.is_array(); break;
        }
        if (!ok)
            throw ToolError(member + ": " + shown(v) + " is not a valid value" +
                            (rule->kind == TIME ? (reason.empty() ? "" : ": " + reason) + " (" + timeTextForms() + ")"
                                                : std::string()));
    }
    // A number and its text copy must agree: an edited number with a stale copy is ambiguous.
    // Above 2^53 the number may have been rounded by a tool on the way (jq, JavaScript), and
    // the text copy is the exact one.
    for (char const* key : {"uid", "imageUid"}) {
        auto number = object.find(key);
        auto text = object.find(std::string(key) + "Text");
        unsigned long long a = 0, b = 0;
        if (number != object.end() && text != object.end() && idValue(*number, a) && decimalText(*text, b) && a != b &&
            a < (1ull << 53))
            throw ToolError(where + ": \"" + key + "\" " + shown(*number) + " and \"" + key + "Text\" " + shown(*text) +
                            " disagree");
    }
}

unsigned long long idMember(Json const& object, char const* key)
{
    unsigned long long value = 0;
    auto text = object.find(std::string(key) + "Text");
    if (text != object.end() && decimalText(*text, value)) return value;
    auto number = object.find(key);
    if (number != object.end()) idValue(*number, value);
    return value;
}

unsigned long long uintMember(Json const& object, char const* key)
{
    auto found = object.find(key);
    return found == object.end() ? 0 : found->get<unsigned long long>();
}

std::string textMember(Json const& object, char const* key)
{
    auto found = object.find(key);
    return found == object.end() ? std::string() : found->get<std::string>();
}

long long timeMember(Json const& object, char const* key)
{
    auto found = object.find(key);
    if (found == object.end()) return 0;
    if (found->is_string()) {
        long long seconds = 0;
        std::string ignored;
        parseTimeText(found->get<std::string>(), seconds, ignored);  // checked by checkMembers
        return seconds;
    }
    return found->get<long long>();
}

void checkEntries(Json const& holder, std::string const& where)
{
    auto entries = holder.find("entries");
    if (entries == holder.end()) return;
    for (std::size_t k = 0; k < entries->size(); ++k) {
        const std::string at = where + "entry " + std::to_string(k);
        if (!(*entries)[k].is_object()) throw ToolError(at + ": not an object");
        checkMembers((*entries)[k], at,
                     {{"uid", ID}, {"uidText", ID_TEXT}, {"name", TEXT}, {"duration", U32}, {"imageUid", ID},
                      {"imageUidText", ID_TEXT}});
    }
}

void addEntries(nk_messageSchedule& schedule, Json const& holder)
{
    auto entries = holder.find("entries");
    if (entries == holder.end()) return;
    for (Json const& entry : *entries)
        schedule.addScheduleEntry(idMember(entry, "uid"), tString(textMember(entry, "name")),
                                  static_cast<unsigned int>(uintMember(entry, "duration")), idMember(entry, "imageUid"),
                                  false);
}
}

std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJson(tJson const& json, std::string const& source,
                                                              nk_message::teVersion version)
{
    const Json root = toToolJson(json);
    auto tv = root.is_object() ? root.find("tv") : root.end();
    if (!root.is_object() || root.value("action", "") != "schedules" || root.value("type", "") != "request" ||
        tv == root.end() || !tv->is_number_integer() || tv->get<long long>() < 1)
        throw ToolError(source + ": not a schedule set (needs \"action\": \"schedules\", \"type\": \"request\", "
                                 "\"tv\": 1)");
    checkMembers(root, source, {{"action", TEXT}, {"type", TEXT}, {"tv", U32}, {"schedules", LIST}, {"entries", LIST}});
    checkEntries(root, source + ": ");
    std::unique_ptr<nk_messageSetSchedulesReq> set(new nk_messageSetSchedulesReq(version));
    auto schedules = root.find("schedules");
    if (schedules == root.end()) return set;
    for (std::size_t i = 0; i < schedules->size(); ++i) {
        Json const& element = (*schedules)[i];
        const std::string at = source + ": schedule " + std::to_string(i);
        if (!element.is_object()) throw ToolError(at + ": not an object");
        checkMembers(element, at,
                     {{"uid", ID}, {"uidText", ID_TEXT}, {"name", TEXT}, {"startTime", TIME}, {"stopTime", TIME},
                      {"flags", U32}, {"frame", U16}, {"entries", LIST}});
        checkEntries(element, at + ": ");
        nk_messageSchedule* schedule = set->addSchedule_(
            idMember(element, "uid"), tString(textMember(element, "name")), timeMember(element, "startTime"),
            timeMember(element, "stopTime"), static_cast<unsigned int>(uintMember(element, "flags")),
            static_cast<unsigned short>(uintMember(element, "frame")));
        addEntries(*schedule, element.contains("entries") ? element : root);
    }
    return set;
}

void printableSchedules(nk_messageSetSchedulesReq& set, tJson& json)
{
    Json document = toToolJson(json);
    auto schedules = document.find("schedules");
    if (schedules == document.end() || !schedules->is_array()) return;
    for (std::size_t i = 0; i < schedules->size(); ++i) {
        nk_messageSchedule* schedule = set.getSchedule(static_cast<unsigned int>(i));
        if (schedule) (*schedules)[i]["frame"] = schedule->showOnLogicalDisplay();
    }
    json = toLibraryJson(document);
}

#include "schedules_json.h"

#include "tool_error.h"

namespace
{
long long timeMember(tJson const& schedule, char const* key)
{
    const tString text = schedule.getString(key);
    if (!text.isEmpty()) return static_cast<long long>(nk_messageSetSchedulesReq::getStartTimeFromString(text));
    return schedule.getInt(key, 0);
}

void addEntries(nk_messageSchedule& schedule, tJson const& holder, std::string const& where)
{
    tJson entry;
    for (unsigned int k = 0; holder.getArrayObject("entries", k, entry); ++k) {
        const unsigned long long duration = entry.getUInt("duration", 0);
        if (duration > 0xFFFFFFFFull)
            throw ToolError(where + ": entry " + std::to_string(k) + ": duration out of range (0 to 4294967295)");
        schedule.addScheduleEntry(entry.getUInt("uid", 0), entry.getString("name"),
                                  static_cast<unsigned int>(duration), entry.getUInt("imageUid", 0), false);
    }
}
}

std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJson(tJson const& json, std::string const& source,
                                                              nk_message::teVersion version)
{
    if (json.getString("action") != "schedules" || json.getString("type") != "request" || json.getInt("tv", 0) < 1)
        throw ToolError(source + ": not a schedule set (needs \"action\": \"schedules\", \"type\": \"request\", "
                                 "\"tv\": 1)");
    std::unique_ptr<nk_messageSetSchedulesReq> set(new nk_messageSetSchedulesReq(version));
    tJson element;
    for (unsigned int i = 0; json.getArrayObject("schedules", i, element); ++i) {
        const std::string where = source + ": schedule " + std::to_string(i);
        const unsigned long long flags = element.getUInt("flags", 0);
        if (flags > 0xFFFFFFFFull) throw ToolError(where + ": flags out of range (0 to 4294967295)");
        nk_messageSchedule* schedule =
            set->addSchedule_(element.getUInt("uid", 0), element.getString("name"), timeMember(element, "startTime"),
                              timeMember(element, "stopTime"), static_cast<unsigned int>(flags),
                              static_cast<unsigned short>(element.getUInt("frame", 0) & 0xFFFF));
        addEntries(*schedule, element.has("entries") ? element : json, where);
    }
    if (json.has("schedules") && json.getArraySize("schedules") != set->count())
        throw ToolError(source + ": \"schedules\" must be an array of objects");
    return set;
}

// The read-only requests: events, statistics, display configuration.
#include <cstdio>
#include <map>

#include "commands.h"
#include "tool_error.h"

namespace
{
nk_messageEventsRsp::teSortCriteria sortCriterion(std::string const& name)
{
    static const std::map<std::string, nk_messageEventsRsp::teSortCriteria> criteria = {
        {"time-first-desc", nk_messageEventsRsp::SORT_TIME_FIRST_DESC},
        {"time-first-asc", nk_messageEventsRsp::SORT_TIME_FIRST_ASC},
        {"time-last-desc", nk_messageEventsRsp::SORT_TIME_LAST_DESC},
        {"time-last-asc", nk_messageEventsRsp::SORT_TIME_LAST_ASC},
        {"id-desc", nk_messageEventsRsp::SORT_ID_DESC},
        {"id-asc", nk_messageEventsRsp::SORT_ID_ASC},
    };
    auto found = criteria.find(name);
    if (found != criteria.end()) return found->second;
    std::string known;
    for (auto const& c : criteria) known += (known.empty() ? "" : ", ") + c.first;
    throw ToolError("unknown sort criterion '" + name + "' (known: " + known + ")");
}
}

int cmdEvents(CtlContext& ctx, std::string const& sort, unsigned int task)
{
    const bool sorted = !sort.empty();
    const nk_messageEventsRsp::teSortCriteria criterion = sorted ? sortCriterion(sort)
                                                                 : nk_messageEventsRsp::SORT_ID_ASC;
    nk_messageEventsReq request(nk_message::VERSION_0);
    request.task = static_cast<unsigned char>(task);
    return requestEach(ctx, request, nk_message::EVENTS_RSP,
                       [&](nk_message& answer, tJson& out, std::string& headline, std::string&) {
                           auto& events = static_cast<nk_messageEventsRsp&>(answer);
                           // The sort criterion is process-wide; nkctl sorts on this thread only.
                           if (sorted) {
                               events.sort(criterion);
                               out = messageJson(events);
                           }
                           headline = std::to_string(events.eventCount()) + " event(s)";
                       });
}

int cmdStatistics(CtlContext& ctx)
{
    nk_messageStatisticsReq request(nk_message::VERSION_0);
    return requestEach(ctx, request, nk_message::STATISTICS_RSP,
                       [](nk_message& answer, tJson&, std::string& headline, std::string&) {
                           auto& stats = static_cast<nk_messageStatisticsRsp&>(answer);
                           char energy[32];
                           std::snprintf(energy, sizeof energy, "%.3f", stats.energyConsumption_Wh());
                           headline = std::to_string(stats.imgUpdateCount()) + " image update(s), " + energy + " Wh";
                       });
}

int cmdDisplayConfig(CtlContext& ctx)
{
    nk_messageGetDisplayConfigurationReq request(nk_message::VERSION_1);
    return requestEach(ctx, request, nk_message::GET_DISPLAY_CONFIGURATION_RSP,
                       [](nk_message& answer, tJson&, std::string& headline, std::string&) {
                           auto& display = static_cast<nk_messageGetDisplayConfigurationRsp&>(answer);
                           headline = "display \"" + display.name().str() + "\", " +
                                      std::to_string(display.displayConfigurationCount()) + " configuration(s)";
                       });
}

// The read-only requests: events, statistics, display configuration.
#include <cstdio>
#include <map>

#include "commands.h"
#include "endpoint.h"
#include "json_bridge.h"
#include "time_text.h"
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
    throw ToolError("unknown sort criterion '" + name + "' (known: " + known + ")", EXIT_USAGE);
}
}

int cmdEvents(CtlContext& ctx, EventsOptions const& options)
{
    const bool sorted = !options.sort.empty();
    const nk_messageEventsRsp::teSortCriteria criterion = sorted ? sortCriterion(options.sort)
                                                                 : nk_messageEventsRsp::SORT_ID_ASC;
    long long since = -1;
    if (!options.since.empty()) {
        std::string reason;
        if (options.since.find_first_not_of("0123456789") == std::string::npos)
            since = static_cast<long long>(parseUnsigned(options.since, "--since", 0, 0xFFFFFFFFull));
        else if (!parseTimeText(options.since, since, reason))
            throw ToolError("--since '" + options.since + "': " + reason + " (" + timeTextForms() + ")", EXIT_USAGE);
    }
    nk_messageEventsReq request(nk_message::VERSION_0);
    request.task = static_cast<unsigned char>(options.task);
    return requestEach(ctx, request, nk_message::EVENTS_RSP, [&](nk_message& answer, tJson& out, Verdict& verdict) {
        auto& events = static_cast<nk_messageEventsRsp&>(answer);
        // The sort criterion is process-wide; nkctl sorts on this thread only.
        if (sorted) events.sort(criterion);
        ToolJson document = toToolJson(messageJson(events));
        ToolJson kept = ToolJson::array();
        auto all = document.find("events");
        if (all != document.end() && all->is_array()) {
            for (ToolJson const& event : *all) {
                if (options.limit >= 0 && static_cast<long long>(kept.size()) >= options.limit) break;
                if (since >= 0 && event.value("timeLast", 0LL) < since) continue;
                kept.push_back(event);
            }
            *all = kept;
        }
        out = toLibraryJson(document);
        verdict.splitLines = true;
        for (ToolJson const& event : kept) {
            ToolJson line = event;
            line["task"] = document.value("task", 0);
            verdict.lines.push_back(toLibraryJson(line));
        }
        verdict.headline = std::to_string(kept.size()) + " of " + std::to_string(events.eventCount()) + " event(s)";
    });
}

int cmdStatistics(CtlContext& ctx)
{
    nk_messageStatisticsReq request(nk_message::VERSION_0);
    return requestEach(ctx, request, nk_message::STATISTICS_RSP,
                       [](nk_message& answer, tJson&, Verdict& verdict) {
                           auto& stats = static_cast<nk_messageStatisticsRsp&>(answer);
                           char energy[32];
                           std::snprintf(energy, sizeof energy, "%.3f", stats.energyConsumption_Wh());
                           verdict.headline = std::to_string(stats.imgUpdateCount()) + " image update(s), " + energy + " Wh";
                       });
}

int cmdDisplayConfig(CtlContext& ctx)
{
    nk_messageGetDisplayConfigurationReq request(nk_message::VERSION_1);
    return requestEach(ctx, request, nk_message::GET_DISPLAY_CONFIGURATION_RSP,
                       [](nk_message& answer, tJson&, Verdict& verdict) {
                           auto& display = static_cast<nk_messageGetDisplayConfigurationRsp&>(answer);
                           verdict.headline = "display \"" + display.name().str() + "\", " +
                                      std::to_string(display.displayConfigurationCount()) + " configuration(s)";
                       });
}

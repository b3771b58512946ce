#ifndef NK_TOOLS_SCHEDULES_JSON_H
#define NK_TOOLS_SCHEDULES_JSON_H

#include <memory>
#include <string>

#include "nk_messageSetSchedules.h"

// Builds a schedule set from JSON through the message's API. Accepts the form the library
// writes (each schedule with its own "entries" array), so what getJson prints can be pushed
// back, and the form its reader takes (one root "entries" array given to every schedule that
// has none). Times are seconds or "YYYY-MM-DD hh:mm:ss" text. "frame" is the logical display,
// as the library's reader takes it. Throws ToolError naming source and the offending member.
std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJson(tJson const& json, std::string const& source,
                                                              nk_message::teVersion version);

#endif

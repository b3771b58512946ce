#ifndef NK_TOOLS_SCHEDULES_JSON_H
#define NK_TOOLS_SCHEDULES_JSON_H

#include <memory>
#include <string>

#include "nk_messageSetSchedules.h"

// Builds a schedule set from JSON through the message's API. Accepts the form nkctl prints
// (each schedule with its own "entries" array, "frame" the logical display), so what it
// prints can be pushed back with the same checksum, and the form the library's reader takes
// (one root "entries" array given to every schedule that has none). Times are seconds or
// time text (see parseTimeText); ids are numbers or decimal text, and the "uidText" /
// "imageUidText" copies nkctl prints are taken too. Throws ToolError naming source and the
// offending member.
std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJson(tJson const& json, std::string const& source,
                                                              nk_message::teVersion version);

// The library's JSON form writes a schedule's flags word under "frame" as well, so what it
// prints would be read back with the flags as logical display: a different set and
// checksum. Rewrites each schedule's "frame" in json (the set's own JSON form) to its
// logical display.
void printableSchedules(nk_messageSetSchedulesReq& set, tJson& json);

#endif

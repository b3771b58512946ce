#ifndef NK_TOOLS_MESSAGE_JSON_H
#define NK_TOOLS_MESSAGE_JSON_H

#include <memory>
#include <string>

#include "nkProtocol.h"

// The message that a JSON object describes, chosen by its "action" and "type" words and
// filled through the class's own JSON reader (schedule sets through schedulesFromJson).
// version -1 takes the newest layout of the message. Throws ToolError naming source.
std::unique_ptr<nk_message> messageFromJson(tJson& json, std::string const& source, int version);

#endif

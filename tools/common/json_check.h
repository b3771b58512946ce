#ifndef NK_TOOLS_JSON_CHECK_H
#define NK_TOOLS_JSON_CHECK_H

#include <string>

#include "tJson.h"

// A message's JSON reader takes what it can and gives defaults for the rest, so a member of
// the wrong type, out of range or misspelt would silently become a default. Compares the
// object a user gave with the message's own JSON form after reading it, and throws ToolError
// naming source and the first member that was not read as given.
void checkReadAsGiven(tJson const& given, tJson const& readBack, std::string const& source);

#endif

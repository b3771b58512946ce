#ifndef NK_TOOLS_FILE_INPUT_H
#define NK_TOOLS_FILE_INPUT_H

#include <string>

#include "tBlob.h"
#include "tJson.h"

// Reads a whole file ("-" is standard input). Throws ToolError "cannot read PATH: <cause>".
tBlob readFileBytes(std::string const& path);

// Parses text as one JSON object. Throws ToolError naming source, line and column of the
// first syntax error, or saying that the top-level value is not an object.
tJson parseJsonObject(std::string const& text, std::string const& source);

// readFileBytes, then parseJsonObject.
tJson readJsonFile(std::string const& path);

#endif

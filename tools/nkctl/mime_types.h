#ifndef NK_TOOLS_MIME_TYPES_H
#define NK_TOOLS_MIME_TYPES_H

#include <string>

// The mime type to send for a file: the given one when the library accepts it, otherwise
// the one its extension names. Throws ToolError "unknown mime type ..." listing the accepted
// ones. Checked here because the library reports an unknown type only on standard output.
std::string mimeTypeFor(std::string const& file, std::string const& given);

#endif

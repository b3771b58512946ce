#include "mime_types.h"

#include <algorithm>
#include <cctype>

#include "tool_error.h"

namespace
{
const char* const kAccepted[] = {"image/png",       "image/jpeg",      "application/pdf",
                                 "application/x-7z-compressed",      "application/octet-stream",
                                 "application/xml", "text/xml"};

struct ExtensionType
{
    const char* extension;
    const char* mime;
};
const ExtensionType kByExtension[] = {{"png", "image/png"},       {"jpg", "image/jpeg"},
                                      {"jpeg", "image/jpeg"},     {"pdf", "application/pdf"},
                                      {"7z", "application/x-7z-compressed"}, {"xml", "application/xml"}};

std::string acceptedList()
{
    std::string list;
    for (const char* mime : kAccepted) list += (list.empty() ? "" : ", ") + std::string(mime);
    return list;
}
}

std::string mimeTypeFor(std::string const& file, std::string const& given)
{
    if (!given.empty()) {
        for (const char* mime : kAccepted)
            if (given == mime) return given;
        throw ToolError("unknown mime type '" + given + "' (accepted: " + acceptedList() + ")");
    }
    const std::size_t slash = file.rfind('/');
    const std::size_t dot = file.rfind('.');
    std::string extension = dot == std::string::npos || (slash != std::string::npos && dot < slash)
                                ? std::string()
                                : file.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (ExtensionType const& known : kByExtension)
        if (extension == known.extension) return known.mime;
    throw ToolError("unknown mime type for " + file + ": give --mime (accepted: " + acceptedList() + ")");
}

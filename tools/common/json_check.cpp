#include "json_check.h"

#include <nlohmann/json.hpp>

#include "tool_error.h"

namespace
{
using Json = nlohmann::ordered_json;

std::string shown(Json const& value)
{
    std::string text = value.dump();
    return text.size() > 40 ? text.substr(0, 37) + "..." : text;
}

// The path of the first difference, with what was given and what was read; empty when none.
std::string firstDifference(Json const& given, Json const& read, std::string const& path)
{
    if (given.is_object() && read.is_object()) {
        for (auto it = given.begin(); it != given.end(); ++it) {
            const std::string member = path.empty() ? it.key() : path + "." + it.key();
            auto found = read.find(it.key());
            if (found == read.end()) return "unknown member \"" + member + "\"";
            std::string difference = firstDifference(*it, *found, member);
            if (!difference.empty()) return difference;
        }
        return std::string();
    }
    if (given.is_array() && read.is_array() && given.size() == read.size()) {
        for (std::size_t i = 0; i < given.size(); ++i) {
            std::string difference = firstDifference(given[i], read[i], path + "[" + std::to_string(i) + "]");
            if (!difference.empty()) return difference;
        }
        return std::string();
    }
    if (given == read) return std::string();
    return "\"" + path + "\": " + shown(given) + " is not a valid value (it would be read as " + shown(read) + ")";
}
}

void checkReadAsGiven(tJson const& given, tJson const& readBack, std::string const& source)
{
    const Json original = Json::parse(given.getJson(false).str(), nullptr, false);
    const Json read = Json::parse(readBack.getJson(false).str(), nullptr, false);
    if (original.is_discarded() || read.is_discarded()) return;
    const std::string difference = firstDifference(original, read, std::string());
    if (!difference.empty()) throw ToolError(source + ": " + difference);
}

#include "json_bridge.h"

#include <string>
#include <vector>

ToolJson toToolJson(tJson const& json)
{
    return ToolJson::parse(json.getJson(false).str(), nullptr, false);
}

tJson toLibraryJson(ToolJson const& json)
{
    tJson out;
    out.parse(tString(json.dump()));
    return out;
}

void addIdTexts(ToolJson& json)
{
    if (json.is_array()) {
        for (ToolJson& element : json) addIdTexts(element);
        return;
    }
    if (!json.is_object()) return;
    std::vector<std::string> idKeys;
    for (auto it = json.begin(); it != json.end(); ++it) {
        if ((it.key() == "uid" || it.key() == "imageUid") && it->is_number_unsigned()) idKeys.push_back(it.key());
        else addIdTexts(*it);
    }
    for (std::string const& key : idKeys) json[key + "Text"] = std::to_string(json[key].get<unsigned long long>());
}

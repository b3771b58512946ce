#include "desired_state.h"

#include <algorithm>
#include <functional>

#include <nlohmann/json.hpp>

#include "json_check.h"
#include "schedules_json.h"
#include "tool_error.h"

namespace
{
tJson parseJson(std::string const& text, char const* member)
{
    tJson json;
    if (!json.parse(tString(text))) throw ToolError(std::string(member) + ": not valid JSON");
    return json;
}

// Checksums depend only on the texts, and a fleet shares a few of them: each is computed once.
std::string cachedChecksum(std::map<std::string, std::string>& cache, std::string const& key,
                           std::function<std::string()> const& compute)
{
    auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    if (cache.size() > 4096) cache.clear();
    return cache[key] = compute();
}
}

std::unique_ptr<nk_messageSetConfigReq> configFromJson(std::string const& text, std::optional<std::string> const& name)
{
    tJson json = parseJson(text, "config");
    std::unique_ptr<nk_messageSetConfigReq> config(new nk_messageSetConfigReq(kConfigVersion));
    if (!config->serializeFromJson(&json))
        throw ToolError("config: not a configuration (needs \"action\": \"config\", \"type\": \"request\", \"tv\": 1)");
    tJson readBack;
    config->serializeToJson(&readBack);
    checkReadAsGiven(json, readBack, "config");
    if (name) config->device_setName(tString(*name));
    return config;
}

std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJsonText(std::string const& text)
{
    return schedulesFromJson(parseJson(text, "schedules"), "schedules", kSchedulesVersion);
}

std::vector<DesiredImage> imageSetFromJsonText(std::string const& text)
{
    const nlohmann::json set = nlohmann::json::parse(text, nullptr, false);
    if (!set.is_array()) throw ToolError("images: not an image set");
    std::vector<DesiredImage> out;
    for (auto const& member : set) {
        if (!member.is_object() || !member.contains("uid") || !member["uid"].is_string() || !member.contains("image") ||
            !member["image"].is_string())
            throw ToolError("images: not an image set");
        out.push_back(DesiredImage{std::stoull(member["uid"].get<std::string>()), member["image"].get<std::string>()});
    }
    return out;
}

std::string imageSetToJsonText(std::vector<DesiredImage> const& images)
{
    nlohmann::json set = nlohmann::json::array();
    for (DesiredImage const& image : images) set.push_back({{"uid", std::to_string(image.uid)}, {"image", image.image}});
    return set.dump();
}

EffectiveDesired resolveDesired(std::optional<DesiredState> const& group, std::optional<DesiredState> const& device)
{
    static std::map<std::string, std::string> configChecksums;
    static std::map<std::string, std::string> scheduleChecksums;
    EffectiveDesired out;
    auto pick = [&](std::optional<std::string> DesiredState::*member) -> std::optional<std::string> {
        if (device && (*device).*member) return (*device).*member;
        if (group && (*group).*member) return (*group).*member;
        return std::nullopt;
    };
    out.config = pick(&DesiredState::config);
    out.schedules = pick(&DesiredState::schedules);
    out.name = pick(&DesiredState::name);
    if (auto images = pick(&DesiredState::images)) out.images = imageSetFromJsonText(*images);
    if (out.config) {
        const std::string key = (out.name ? "1" + *out.name : "0") + '\0' + *out.config;
        out.csCfg = cachedChecksum(configChecksums, key, [&] {
            return configFromJson(*out.config, out.name)->checksum(kConfigVersion).str();
        });
    }
    if (out.schedules)
        out.csSched = cachedChecksum(scheduleChecksums, *out.schedules, [&] {
            return schedulesFromJsonText(*out.schedules)->checksum(kSchedulesVersion).str();
        });
    return out;
}

std::string describeDifference(DeviceRecord const& device, EffectiveDesired const& desired)
{
    if (!device.reported) return "state not yet reported";
    std::string out;
    auto add = [&out](std::string const& what) { out += (out.empty() ? "" : ", ") + what; };
    if (desired.config && device.csCfg != desired.csCfg) add("configuration");
    if (desired.schedules && device.csSched != desired.csSched) add("schedules");
    if (desired.name && !desired.config && device.name != *desired.name) add("name");
    if (!imagesToPush(device, desired).empty()) add("images");
    if (!imagesToRemove(device, desired).empty()) add("images to remove");
    return out;
}

std::vector<DesiredImage> imagesToPush(DeviceRecord const& device, EffectiveDesired const& desired)
{
    std::vector<DesiredImage> out;
    if (!desired.images) return out;
    for (DesiredImage const& image : *desired.images) {
        const bool reported = std::find(device.images.begin(), device.images.end(), image.uid) != device.images.end();
        auto pushed = device.pushedImages.find(image.uid);
        if (!reported || pushed == device.pushedImages.end() || pushed->second != image.image) out.push_back(image);
    }
    return out;
}

std::vector<std::uint64_t> imagesToRemove(DeviceRecord const& device, EffectiveDesired const& desired)
{
    std::vector<std::uint64_t> out;
    if (!desired.images) return out;
    for (std::uint64_t uid : device.images) {
        const bool wanted = std::any_of(desired.images->begin(), desired.images->end(),
                                        [uid](DesiredImage const& image) { return image.uid == uid; });
        if (!wanted && std::find(out.begin(), out.end(), uid) == out.end()) out.push_back(uid);
    }
    return out;
}

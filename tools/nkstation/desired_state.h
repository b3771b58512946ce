#ifndef NK_STATION_DESIRED_STATE_H
#define NK_STATION_DESIRED_STATE_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet_store.h"
#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"

// The versions the station pushes and whose checksums it compares: the panel reports each
// checksum in the version of the message it was sent.
constexpr nk_message::teVersion kConfigVersion = nk_message::VERSION_3;
constexpr nk_message::teVersion kSchedulesVersion = nk_message::VERSION_2;

// Desired state read through the library. A text that the library would read as something
// else (a member of the wrong type, out of range, misspelt) is refused with a ToolError that
// names the member, before anything is stored.
std::unique_ptr<nk_messageSetConfigReq> configFromJson(std::string const& text, std::optional<std::string> const& name);
std::unique_ptr<nk_messageSetSchedulesReq> schedulesFromJsonText(std::string const& text);

// One member of a desired image set: the uid the panel keeps the image under (schedule entries
// show images by it) and the content id of the file in the station's image store.
struct DesiredImage
{
    std::uint64_t uid = 0;
    std::string image;
};

// Reads a stored image set ([{"uid": "DECIMAL", "image": "CONTENT ID"}, ...]); throws ToolError.
std::vector<DesiredImage> imageSetFromJsonText(std::string const& text);
// The stored form of an image set.
std::string imageSetToJsonText(std::vector<DesiredImage> const& images);

// What one device should hold: its group's desired state with the device's overrides on top,
// and the checksums the library computes for it. A desired name is written into the
// configuration, whose checksum covers it.
struct EffectiveDesired
{
    std::optional<std::string> config;
    std::string csCfg;
    std::optional<std::string> schedules;
    std::string csSched;
    std::optional<std::string> name;
    // The whole set of images the panel should hold: a uid it holds that is not in the set is
    // removed. Without a set the station leaves the panel's images alone.
    std::optional<std::vector<DesiredImage>> images;

    bool anything() const { return config || schedules || name || images; }
};

EffectiveDesired resolveDesired(std::optional<DesiredState> const& group, std::optional<DesiredState> const& device);

// What differs between the state a device reported and what it should hold; empty when in sync.
std::string describeDifference(DeviceRecord const& device, EffectiveDesired const& desired);

// The images to push: those of the set the panel does not report, or holds with content this
// station did not push (the state lists uids, not contents).
std::vector<DesiredImage> imagesToPush(DeviceRecord const& device, EffectiveDesired const& desired);
// The uids the panel reports that are not in the set.
std::vector<std::uint64_t> imagesToRemove(DeviceRecord const& device, EffectiveDesired const& desired);

#endif

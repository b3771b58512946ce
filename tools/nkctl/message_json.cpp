#include "message_json.h"

#include <functional>
#include <map>

#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"
#include "schedules_json.h"
#include "tool_error.h"

namespace
{
using V = nk_message::teVersion;
struct Kind
{
    V newest;
    std::function<nk_message*(V)> make;
};

std::map<std::string, Kind> const& kinds()
{
    static const std::map<std::string, Kind> table = {
        {"state/request", {nk_message::VERSION_2, [](V v) { return new nk_messageStateReq(v); }}},
        {"state/response", {nk_message::VERSION_2, [](V v) { return new nk_messageStateRsp(v); }}},
        {"events/request", {nk_message::VERSION_0, [](V v) { return new nk_messageEventsReq(v); }}},
        {"events/response",
         {nk_message::VERSION_0, [](V v) { return new nk_messageEventsRsp(v, nullptr, nullptr); }}},
        {"config/request", {nk_message::VERSION_3, [](V v) { return new nk_messageSetConfigReq(v); }}},
        {"config/response", {nk_message::VERSION_0, [](V v) { return new nk_messageSetConfigRsp(v); }}},
        {"displayConfig/request",
         {nk_message::VERSION_1, [](V v) { return new nk_messageGetDisplayConfigurationReq(v); }}},
        {"displayConfig/response",
         {nk_message::VERSION_1, [](V v) { return new nk_messageGetDisplayConfigurationRsp(v); }}},
        {"schedules/response", {nk_message::VERSION_2, [](V v) { return new nk_messageSetSchedulesRsp(v); }}},
        {"time/request", {nk_message::VERSION_0, [](V v) { return new nk_messageTime(v); }}},
        {"shutdown/request", {nk_message::VERSION_0, [](V v) { return new nk_messageShutdown(v); }}},
        {"images/request", {nk_message::VERSION_3, [](V v) { return new nk_messageImage(v); }}},
        {"statistics/request", {nk_message::VERSION_0, [](V v) { return new nk_messageStatisticsReq(v); }}},
        {"statistics/response", {nk_message::VERSION_0, [](V v) { return new nk_messageStatisticsRsp(v); }}},
    };
    return table;
}
}

std::unique_ptr<nk_message> messageFromJson(tJson& json, std::string const& source, int version)
{
    if (version > 0xFFFF) throw ToolError("message version out of range: " + std::to_string(version));
    const std::string action = json.getString("action").str();
    const std::string type = json.getString("type").str();
    const std::string key = action + "/" + type;
    if (key == "schedules/request")
        return schedulesFromJson(json, source, version < 0 ? nk_message::VERSION_2 : static_cast<V>(version));
    auto found = kinds().find(key);
    if (found == kinds().end())
        throw ToolError(source + ": no message has \"action\": \"" + action + "\" with \"type\": \"" + type + "\"");
    std::unique_ptr<nk_message> message(found->second.make(version < 0 ? found->second.newest : static_cast<V>(version)));
    if (!message->serializeFromJson(&json))
        throw ToolError(source + ": the " + std::string(message->typeName().c_str()) +
                        " message does not accept this object (is \"tv\" at least 1?)");
    return message;
}

#include "request_reader.h"

#include <algorithm>

#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"

namespace
{
using V = nk_message::teVersion;

// The request as its class's sending constructor builds it, for reading its body with the
// class's own serialize, whose result the receiving constructor does not report.
nk_message* blankRequest(nk_message::teType type, V version)
{
    switch (type) {
    case nk_message::STATE_REQ: return new nk_messageStateReq(version);
    case nk_message::EVENTS_REQ: return new nk_messageEventsReq(version);
    case nk_message::SET_CONFIG_REQ: return new nk_messageSetConfigReq(version);
    case nk_message::GET_DISPLAY_CONFIGURATION_REQ: return new nk_messageGetDisplayConfigurationReq(version);
    case nk_message::SET_SCHEDULES_REQ: return new nk_messageSetSchedulesReq(version);
    case nk_message::TIME: return new nk_messageTime(version);
    case nk_message::SHUTDOWN: return new nk_messageShutdown(version);
    case nk_message::IMAGE: return new nk_messageImage(version);
    case nk_message::STATISTICS_REQ: return new nk_messageStatisticsReq(version);
    case nk_message::GENERIC_REQ: return new nk_messageGenericReq(version, tString(), tString());
    default: return nullptr;
    }
}

// Requests that only read the device's state: defaults for fields a short body lacks are
// harmless there.
bool changesNothing(nk_message::teType type)
{
    return type == nk_message::STATE_REQ || type == nk_message::EVENTS_REQ ||
           type == nk_message::GET_DISPLAY_CONFIGURATION_REQ || type == nk_message::STATISTICS_REQ ||
           type == nk_message::SHUTDOWN || type == nk_message::GENERIC_REQ;
}
}

nk_message::teVersion newestLayout(nk_message::teType type)
{
    switch (type) {
    case nk_message::STATE_REQ:
    case nk_message::STATE_RSP:
    case nk_message::SET_SCHEDULES_REQ:
    case nk_message::SET_SCHEDULES_RSP: return nk_message::VERSION_2;
    case nk_message::GET_DISPLAY_CONFIGURATION_REQ:
    case nk_message::GET_DISPLAY_CONFIGURATION_RSP: return nk_message::VERSION_1;
    // The other families read the same bytes in every revision; 3 is the newest revision
    // the library names.
    default: return nk_message::VERSION_3;
    }
}

ReadRequest readRequest(tBlob const& content)
{
    ReadRequest read;
    nk_serializer body(content.getBuffer(), content.size());
    unsigned short type = 0, version = 0;
    if (!body.u16(type, nk_serializer::SER_READ) || !body.u16(version, nk_serializer::SER_READ)) {
        read.refusal = "shorter than a message header";
        return read;
    }
    read.type = type;
    read.version = version;
    const auto kind = static_cast<nk_message::teType>(type);
    const V layout = std::min(static_cast<V>(version), newestLayout(kind));
    std::unique_ptr<nk_message> message(blankRequest(kind, layout));
    if (!message) {
        read.refusal = (type >= 1 && type <= 29 ? nk_message::typeName(kind).str() + " (type " + std::to_string(type) + ")"
                                                : "type " + std::to_string(type)) +
                       " is not a request this device serves";
        return read;
    }
    if (!message->serialize(&body, nk_serializer::SER_READ)) {
        if (!changesNothing(kind)) {
            read.refusal = nk_message::typeName(kind).str() + " body cut short: " + std::to_string(content.size()) +
                           " bytes do not hold the whole layout; nothing changed";
            return read;
        }
        // A state request cut inside its task must not rename the device to a partial name.
        if (kind == nk_message::STATE_REQ) message.reset(new nk_messageStateReq(layout));
    }
    read.message = std::move(message);
    return read;
}

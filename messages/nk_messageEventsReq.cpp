#include "nk_messageEvents.h"

nk_messageEventsReq::nk_messageEventsReq(teVersion v) : nk_message(EVENTS_REQ, v) {}

nk_messageEventsReq::nk_messageEventsReq(nk_serializer* ser, teVersion v) : nk_message(EVENTS_REQ, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

nk_messageEventsReq::~nk_messageEventsReq() = default;

bool nk_messageEventsReq::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->u8(task, dir);
}

bool nk_messageEventsReq::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "events", false);
    json->addInt("task", task);
    return true;
}

bool nk_messageEventsReq::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "events", false)) return false;
    task = static_cast<unsigned char>(json->getInt("task", task));
    return true;
}

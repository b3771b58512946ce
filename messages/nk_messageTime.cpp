#include "nk_messageTime.h"

#include "tTime.h"

nk_messageTime::nk_messageTime(teVersion v)
    : nk_message(TIME, v), currentTime(static_cast<unsigned int>(tTime::now()))
{
}

// A body cut short leaves 0, never the receiver's own clock: what a received message holds
// depends on its bytes alone. Applications that apply a TIME check that the body was whole.
nk_messageTime::nk_messageTime(nk_serializer* ser, teVersion v) : nk_message(TIME, v), currentTime(0)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageTime::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->u32(currentTime, dir);
}

bool nk_messageTime::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "time", false);
    json->addInt("currentTime", currentTime);
    return true;
}

bool nk_messageTime::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "time", false)) return false;
    currentTime = static_cast<unsigned int>(json->getInt("currentTime", currentTime));
    return true;
}

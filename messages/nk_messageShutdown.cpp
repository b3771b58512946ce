#include "nk_messageShutdown.h"

nk_messageShutdown::nk_messageShutdown(teVersion v) : nk_message(SHUTDOWN, v) {}

nk_messageShutdown::nk_messageShutdown(nk_serializer* ser, teVersion v) : nk_message(SHUTDOWN, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageShutdown::serialize(nk_serializer* ser, nk_serializer::teSerDirection)
{
    return ser != nullptr;
}

bool nk_messageShutdown::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "shutdown", false);
    return true;
}

bool nk_messageShutdown::serializeFromJson(tJson* json)
{
    return jsonEnvelopeMatches(json, "shutdown", false);
}

#include "nk_messageDisplayConfiguration.h"

nk_messageGetDisplayConfigurationReq::nk_messageGetDisplayConfigurationReq(teVersion v)
    : nk_message(GET_DISPLAY_CONFIGURATION_REQ, v)
{
}

nk_messageGetDisplayConfigurationReq::nk_messageGetDisplayConfigurationReq(nk_serializer* ser, teVersion v)
    : nk_message(GET_DISPLAY_CONFIGURATION_REQ, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageGetDisplayConfigurationReq::serialize(nk_serializer* ser, nk_serializer::teSerDirection)
{
    return ser != nullptr;
}

bool nk_messageGetDisplayConfigurationReq::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "displayConfig", false);
    return true;
}

bool nk_messageGetDisplayConfigurationReq::serializeFromJson(tJson* json)
{
    return jsonEnvelopeMatches(json, "displayConfig", false);
}

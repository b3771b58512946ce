#include "nk_messageSetConfig.h"

nk_messageSetConfigRsp::nk_messageSetConfigRsp(teVersion v) : nk_message(SET_CONFIG_RSP, v) {}

nk_messageSetConfigRsp::nk_messageSetConfigRsp(nk_serializer* ser, teVersion v) : nk_message(SET_CONFIG_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageSetConfigRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->string(m_checksum, dir);
}

bool nk_messageSetConfigRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "config", true);
    json->addString("cs", m_checksum);
    return true;
}

bool nk_messageSetConfigRsp::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "config", true)) return false;
    m_checksum = json->getString("cs");
    return true;
}

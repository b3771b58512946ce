#include "nk_messageSetSchedules.h"

nk_messageSetSchedulesRsp::nk_messageSetSchedulesRsp(teVersion v) : nk_message(SET_SCHEDULES_RSP, v) {}

nk_messageSetSchedulesRsp::nk_messageSetSchedulesRsp(nk_serializer* ser, teVersion v)
    : nk_message(SET_SCHEDULES_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageSetSchedulesRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->string(m_checksum, dir);
}

bool nk_messageSetSchedulesRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "schedules", true);
    json->addString("cs", m_checksum);
    return true;
}

bool nk_messageSetSchedulesRsp::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "schedules", true)) return false;
    m_checksum = json->getString("cs");
    return true;
}

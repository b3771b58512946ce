#include "nk_messageState.h"

nk_messageStateReq::nk_messageStateReq(teVersion v) : nk_message(STATE_REQ, v) {}

nk_messageStateReq::nk_messageStateReq(nk_serializer* ser, teVersion v) : nk_message(STATE_REQ, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

void nk_messageStateReq::setTaskNewName(tString const& name)
{
    m_task = TASK_NEW_NAME;
    m_newName = name;
}

bool nk_messageStateReq::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->u8(m_task, dir) && ser->string(m_newName, dir);
}

bool nk_messageStateReq::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "state", false);
    json->addString("name", m_newName);
    json->addInt("task", m_task);
    return true;
}

bool nk_messageStateReq::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "state", false)) return false;
    m_newName = json->getString("name");
    m_task = static_cast<unsigned char>(json->getInt("task", m_task));
    return true;
}

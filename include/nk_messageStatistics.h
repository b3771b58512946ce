#ifndef NK_MESSAGESTATISTICS_H
#define NK_MESSAGESTATISTICS_H

#include "nk_message.h"

// STATISTICS_REQ (14): asks a device for its running statistics. Empty body.
class NK_API nk_messageStatisticsReq : public nk_message
{
public:
    explicit nk_messageStatisticsReq(teVersion v);
    nk_messageStatisticsReq(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;
};

// STATISTICS_RSP (15): image update count, energy used (whole Wh plus a mWh remainder, so it
// travels as integers) and the lowest and highest case temperature with their times. The
// body is the same in every version.
class NK_API nk_messageStatisticsRsp : public nk_message
{
public:
    explicit nk_messageStatisticsRsp(teVersion v);
    nk_messageStatisticsRsp(nk_serializer* ser, teVersion v);

    // energy in Wh; split with saturation into energy_Wh and energy_mWh (below 1 mWh dropped).
    void set(unsigned int imgUpdateCount, double energy, short tempCaseMin, unsigned int tempCaseMinTime,
             short tempCaseMax, unsigned int tempCaseMaxTime);
    double energyConsumption_Wh() const;

    unsigned int imgUpdateCount() const { return m_imgUpdateCount; }
    unsigned int energy_Wh() const { return m_energy_Wh; }
    unsigned int energy_mWh() const { return m_energy_mWh; }
    short tempCaseMin() const { return m_tempCaseMin; }
    unsigned int tempCaseMinTime() const { return m_tempCaseMinTime; }
    short tempCaseMax() const { return m_tempCaseMax; }
    unsigned int tempCaseMaxTime() const { return m_tempCaseMaxTime; }

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

private:
    unsigned int m_imgUpdateCount = 0;
    unsigned int m_energy_Wh = 0;
    unsigned int m_energy_mWh = 0;
    short m_tempCaseMin = 0;
    unsigned int m_tempCaseMinTime = 0;
    short m_tempCaseMax = 0;
    unsigned int m_tempCaseMaxTime = 0;
};

#endif

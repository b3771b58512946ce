#include "nk_messageStatistics.h"

nk_messageStatisticsReq::nk_messageStatisticsReq(teVersion v) : nk_message(STATISTICS_REQ, v) {}

nk_messageStatisticsReq::nk_messageStatisticsReq(nk_serializer* ser, teVersion v) : nk_message(STATISTICS_REQ, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

// Nothing travels, so there is nothing to fail; even a null serializer succeeds.
bool nk_messageStatisticsReq::serialize(nk_serializer*, nk_serializer::teSerDirection) { return true; }

bool nk_messageStatisticsReq::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "statistics", false);
    return true;
}

bool nk_messageStatisticsReq::serializeFromJson(tJson* json)
{
    return jsonEnvelopeMatches(json, "statistics", false);
}

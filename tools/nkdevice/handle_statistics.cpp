#include "handlers.h"

Reply handleStatistics(Device& device, nk_messageStatisticsReq& request)
{
    std::unique_ptr<nk_messageStatisticsRsp> reply(new nk_messageStatisticsRsp(request.version()));
    // The reference device has no energy meter and no case sensor: those values stay 0.
    reply->set(device.counters().imgUpdateCount, 0.0, 0, 0, 0, 0);
    return reply;
}

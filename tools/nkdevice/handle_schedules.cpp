#include "handlers.h"

Reply handleSchedules(Device& device, nk_messageSetSchedulesReq& request)
{
    // Unchanged schedules keep their run-time marks; changed ones are replaced and those the
    // station no longer sends are dropped.
    device.schedules().setSchedulesFromWithoutClear(&request);
    ++device.counters().scheduleUpdates;
    if (!device.saveSchedules(request.version())) {
        // No answer: a checksum would confirm what a restart would lose.
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "schedules could not be stored");
        return nullptr;
    }
    Reply reply(new nk_messageSetSchedulesRsp(request.version()));
    static_cast<nk_messageSetSchedulesRsp*>(reply.get())->setChecksum(device.schedules().checksum(request.version()));
    return reply;
}

#include "handlers.h"

Reply handleConfig(Device& device, nk_messageSetConfigReq& request)
{
    device.config().setConfigFrom(&request);
    ++device.counters().configUpdates;
    if (!device.saveConfig()) {
        // No answer: a checksum would confirm what a restart would lose.
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "configuration could not be stored");
        return nullptr;
    }
    Reply reply(new nk_messageSetConfigRsp(request.version()));
    auto* response = static_cast<nk_messageSetConfigRsp*>(reply.get());
    // The checksum of what the device now holds, not of what it was sent: the station
    // compares the two.
    response->setChecksum(device.reportedConfigChecksum(request.version()));
    return reply;
}

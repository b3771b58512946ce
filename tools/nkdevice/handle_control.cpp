#include "handlers.h"

Reply handleTime(Device& device, nk_messageTime& request)
{
    const long long offset = static_cast<long long>(request.currentTime) - tTime::now();
    if (!device.setClockOffset(offset))
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "clock offset could not be stored");
    device.recordEvent(Device::EVENT_TIME_SET, Device::CATEGORY_NOTICE,
                       tString::format("time set to %u (offset %lld s)", request.currentTime, offset));
    // TIME is one-way; a station that asks for an answer gets the device's clock back.
    std::unique_ptr<nk_messageTime> reply(new nk_messageTime(request.version()));
    reply->currentTime = static_cast<unsigned int>(device.clock());
    return reply;
}

Reply handleShutdown(Device& device, nk_messageShutdown& request)
{
    device.recordEvent(Device::EVENT_STOPPED, Device::CATEGORY_NOTICE, "shutdown requested");
    device.requestShutdown();
    // Acknowledged with the same message; the device stops once the answer is on the link.
    return Reply(new nk_messageShutdown(request.version()));
}

Reply handleGeneric(Device&, nk_messageGenericReq& request)
{
    // The library does not interpret generic requests; the reference device echoes them.
    return Reply(new nk_messageGenericRsp(request.version(), request.text1, request.text2));
}

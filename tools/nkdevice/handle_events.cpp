#include "handlers.h"

Reply handleEvents(Device& device, nk_messageEventsReq& request)
{
    std::unique_ptr<nk_messageEventsRsp> reply(new nk_messageEventsRsp(request.version(), nullptr, nullptr));
    reply->setFrom(device.events());
    reply->task = request.task;
    return reply;
}

#include "handlers.h"

Reply handleState(Device& device, nk_messageStateReq& request)
{
    if (request.task() == nk_messageStateReq::TASK_NEW_NAME && device.config().device_setName(request.newName()) &&
        !device.saveConfig())
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "new device name could not be stored");
    return device.stateResponse(request.version());
}

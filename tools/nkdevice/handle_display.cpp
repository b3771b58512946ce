#include "handlers.h"

std::unique_ptr<nk_messageGetDisplayConfigurationRsp> defaultDisplayConfiguration(nk_message::teVersion version)
{
    std::unique_ptr<nk_messageGetDisplayConfigurationRsp> rsp(new nk_messageGetDisplayConfigurationRsp(version));
    rsp->set("nkdevice", 0);
    auto* whole = rsp->addDisplayConfiguration("single", 1, true);
    whole->addLogicalDisplay("full", 1, 1920, 1080, true, 0, 0);
    auto* split = rsp->addDisplayConfiguration("split", 2, false);
    split->addLogicalDisplay("left", 2, 960, 1080, false, 0, 0);
    split->addLogicalDisplay("right", 3, 960, 1080, false, 960, 0);
    return rsp;
}

Reply handleDisplayConfiguration(Device& device, nk_messageGetDisplayConfigurationReq& request)
{
    std::unique_ptr<nk_messageGetDisplayConfigurationRsp> reply(
        new nk_messageGetDisplayConfigurationRsp(request.version()));
    tJson json;
    if (device.store().readJson("display-config.json", json)) {
        if (reply->serializeFromJson(&json)) return reply;
        device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR,
                           "display-config.json is not a display configuration response; default reported");
    }
    return defaultDisplayConfiguration(request.version());
}

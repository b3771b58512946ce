#ifndef NK_TOOLS_HANDLERS_H
#define NK_TOOLS_HANDLERS_H

#include <memory>

#include "device.h"
#include "device_job.h"
#include "image_request_view.h"
#include "image_stream.h"

// One handler per message family. Each acts on the device and gives the answer to send
// back, or null when there is none.
using Reply = std::unique_ptr<nk_message>;

Reply handleConfig(Device& device, nk_messageSetConfigReq& request);
Reply handleState(Device& device, nk_messageStateReq& request);
Reply handleEvents(Device& device, nk_messageEventsReq& request);
Reply handleStatistics(Device& device, nk_messageStatisticsReq& request);
Reply handleDisplayConfiguration(Device& device, nk_messageGetDisplayConfigurationReq& request);
Reply handleTime(Device& device, nk_messageTime& request);
Reply handleShutdown(Device& device, nk_messageShutdown& request);
Reply handleGeneric(Device& device, nk_messageGenericReq& request);

// The heavy requests, as jobs (see DeviceJob).
std::unique_ptr<DeviceJob> schedulesJob(std::unique_ptr<nk_messageSetSchedulesReq> request);
std::unique_ptr<DeviceJob> imageJob(std::unique_ptr<ImageRequestView> request);
std::unique_ptr<DeviceJob> streamedImageJob(ImageRequestView::File const& file,
                                            std::shared_ptr<StreamedImageFile> content);

// The display configuration the device reports when its data directory has none.
std::unique_ptr<nk_messageGetDisplayConfigurationRsp> defaultDisplayConfiguration(nk_message::teVersion version);

#endif

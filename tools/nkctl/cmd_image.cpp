#include <algorithm>

#include "commands.h"
#include "endpoint.h"
#include "file_input.h"
#include "image_request.h"
#include "mime_types.h"
#include "output.h"
#include "station.h"
#include "tool_error.h"

namespace
{
unsigned long long imageId(std::string const& text)
{
    return parseUnsigned(text, "image id", 0, 0xFFFFFFFFFFFFFFFFull);
}

std::string baseName(std::string const& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

tJson imageSummary(unsigned long long id)
{
    tJson summary;
    summary.addString("action", "images");
    summary.addUInt("uid", id);
    return summary;
}
}

int cmdImagePush(CtlContext& ctx, std::string const& file, std::string const& idText, std::string const& mimeGiven)
{
    const unsigned long long id = imageId(idText);
    const std::string mime = mimeTypeFor(file, mimeGiven);
    const std::string label = "image " + std::to_string(id);
    showPreparing(label, 0);
    ImageRequest image = imageRequestFromFile(file, id, baseName(file), mime, Station::kMaxRequestBytes - 256);
    const std::uint64_t bytes = image.contentBytes;
    const tString checksum = image.checksum;
    Station::Outgoing request;
    request.bytes = std::move(image.bytes);
    request.what = "IMAGE";
    request.progressLabel = label;
    request.shownBytes = bytes;
    // IMAGE has no response message; the device answers with its state, which lists the
    // images it now holds.
    return requestEach(ctx, std::move(request), nk_message::STATE_RSP,
                       [&](nk_message& answer, tJson& out, Verdict& verdict) {
                           const bool held = static_cast<nk_messageStateRsp&>(answer).imageUidPresent(id);
                           out = imageSummary(id);
                           out.addString("mime", tString(mime));
                           out.addUInt("bytes", bytes);
                           out.addString("cs", checksum);
                           out.addBool("present", held);
                           if (held)
                               verdict.headline = label + " (" + std::to_string(bytes) + " bytes) stored";
                           else
                               verdict.error = label + " was not stored by the device (see its events)";
                       });
}

int cmdImageRemove(CtlContext& ctx, std::string const& idText)
{
    const unsigned long long id = imageId(idText);
    // The device answers a removal with its state whether or not it held the image, so the
    // state alone cannot tell "removed" from "was never there": ask first.
    std::vector<std::string> holding;
    std::vector<std::string> notHolding;
    {
        nk_messageStateReq state(nk_message::VERSION_2);
        Station station(ctx.station);
        station.connect();
        for (Station::Reply& reply : station.request(state)) {
            if (reply.message && reply.message->type() == nk_message::STATE_RSP &&
                !static_cast<nk_messageStateRsp&>(*reply.message).imageUidPresent(id))
                notHolding.push_back(reply.target);
        }
    }
    int status = EXIT_OK;
    for (std::string const& device : notHolding) {
        if (!ctx.output.human()) {
            tJson out = imageSummary(id);
            out.addBool("removed", false);
            out.addString("device", tString(device));
            out.addString("error", tString("image " + std::to_string(id) + " is not held by the device"));
            out.addInt("exitCode", EXIT_REFUSED);
            ctx.output.emit(out);
        }
        reportError("nkctl", device + ": image " + std::to_string(id) + " is not held by the device; nothing removed");
        status = EXIT_REFUSED;
    }
    // The removal goes only to the devices that hold the image (or did not answer).
    auto holds = [&notHolding](std::string const& name) {
        return std::find(notHolding.begin(), notHolding.end(), name) == notHolding.end();
    };
    CtlContext others = ctx;
    if (ctx.station.serialPath.empty()) {
        others.station.devices.clear();
        for (std::string const& device : ctx.station.devices)
            if (holds(parseDeviceLocation(device, ctx.station.deviceAddress).name())) others.station.devices.push_back(device);
        if (others.station.devices.empty()) return status;
    } else {
        std::vector<unsigned int> addresses = ctx.station.serialAddresses;
        if (addresses.empty()) addresses.push_back(ctx.station.deviceAddress);
        others.station.serialAddresses.clear();
        for (unsigned int address : addresses)
            if (holds(DeviceLocation{ctx.station.serialPath, address, !ctx.station.serialAddresses.empty()}.name()))
                others.station.serialAddresses.push_back(address);
        if (others.station.serialAddresses.empty()) return status;
    }

    nk_messageImage request(nk_message::VERSION_3);
    request.taskRemove = 1;
    request.add(id, tString(), tString("image/png"));
    const int removal = requestEach(others, request, nk_message::STATE_RSP,
                                    [&](nk_message& answer, tJson& out, Verdict& verdict) {
                                        const bool held = static_cast<nk_messageStateRsp&>(answer).imageUidPresent(id);
                                        out = imageSummary(id);
                                        out.addBool("removed", !held);
                                        if (!held)
                                            verdict.headline = "image " + std::to_string(id) + " removed";
                                        else
                                            verdict.error = "image " + std::to_string(id) + " is still held by the device";
                                    });
    return std::max(status, removal);
}

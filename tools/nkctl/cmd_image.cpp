#include "commands.h"
#include "endpoint.h"
#include "file_input.h"
#include "mime_types.h"
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
}

int cmdImagePush(CtlContext& ctx, std::string const& file, std::string const& idText, std::string const& mimeGiven)
{
    const unsigned long long id = imageId(idText);
    const std::string mime = mimeTypeFor(file, mimeGiven);
    tBlob content = readFileBytes(file);
    nk_messageImage request(nk_message::VERSION_3);
    request.add(id, tString(baseName(file)), tString(mime), &content);
    const tString checksum = request.get(0)->checksum();
    // IMAGE has no response message; the device answers with its state, which lists the
    // images it now holds.
    return requestEach(
        ctx, request, nk_message::STATE_RSP,
        [&](nk_message& answer, tJson& out, std::string& headline, std::string& error) {
            const bool held = static_cast<nk_messageStateRsp&>(answer).imageUidPresent(id);
            tJson summary;
            summary.addString("action", "images");
            summary.addUInt("uid", id);
            summary.addString("mime", tString(mime));
            summary.addUInt("bytes", content.size());
            summary.addString("cs", checksum);
            summary.addBool("present", held);
            out = summary;
            if (held)
                headline = "image " + std::to_string(id) + " (" + std::to_string(content.size()) + " bytes) stored";
            else
                error = "image " + std::to_string(id) + " was not stored by the device (see its events)";
        },
        "image " + std::to_string(id));
}

int cmdImageRemove(CtlContext& ctx, std::string const& idText)
{
    const unsigned long long id = imageId(idText);
    nk_messageImage request(nk_message::VERSION_3);
    request.taskRemove = 1;
    request.add(id, tString(), tString("image/png"));
    return requestEach(ctx, request, nk_message::STATE_RSP,
                       [&](nk_message& answer, tJson& out, std::string& headline, std::string& error) {
                           const bool held = static_cast<nk_messageStateRsp&>(answer).imageUidPresent(id);
                           tJson summary;
                           summary.addString("action", "images");
                           summary.addUInt("uid", id);
                           summary.addBool("removed", !held);
                           out = summary;
                           if (!held)
                               headline = "image " + std::to_string(id) + " removed";
                           else
                               error = "image " + std::to_string(id) + " is still held by the device";
                       });
}

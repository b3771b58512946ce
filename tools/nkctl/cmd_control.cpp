// TIME and SHUTDOWN, which the reference device acknowledges with a message of the same type.
#include "commands.h"

int cmdTime(CtlContext& ctx)
{
    nk_messageTime request(nk_message::VERSION_0);
    const unsigned int sent = request.currentTime;
    return requestEach(ctx, request, nk_message::TIME,
                       [sent](nk_message& answer, tJson& out, Verdict& verdict) {
                           const unsigned int deviceTime = static_cast<nk_messageTime&>(answer).currentTime;
                           out.addUInt("sent", sent);
                           verdict.headline = "device clock set to " + std::to_string(deviceTime);
                       });
}

int cmdShutdown(CtlContext& ctx)
{
    nk_messageShutdown request(nk_message::VERSION_0);
    return requestEach(ctx, request, nk_message::SHUTDOWN,
                       [](nk_message&, tJson&, Verdict& verdict) {
                           verdict.headline = "device is shutting down";
                       });
}

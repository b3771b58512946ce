#include "commands.h"

int cmdState(CtlContext& ctx, std::string const& newName)
{
    nk_messageStateReq request(nk_message::VERSION_2);
    if (!newName.empty()) request.setTaskNewName(tString(newName));
    return requestEach(ctx, request, nk_message::STATE_RSP,
                       [](nk_message& answer, tJson&, Verdict& verdict) {
                           auto& state = static_cast<nk_messageStateRsp&>(answer);
                           verdict.headline = "device " + std::to_string(state.serial()) + " \"" + state.devName().str() +
                                      "\", " + std::to_string(state.images().size()) + " image(s)";
                       });
}

#include "commands.h"
#include "tool_error.h"

tJson messageJson(nk_message& message)
{
    tJson json;
    if (message.type() == nk_message::GENERIC_REQ || message.type() == nk_message::GENERIC_RSP) {
        // The generic messages travel in binary only and have no JSON form of their own.
        auto texts = [&json](tString const& a, tString const& b) {
            json.addString("text1", a);
            json.addString("text2", b);
        };
        if (message.type() == nk_message::GENERIC_REQ) {
            auto& m = static_cast<nk_messageGenericReq&>(message);
            texts(m.text1, m.text2);
        } else {
            auto& m = static_cast<nk_messageGenericRsp&>(message);
            texts(m.text1, m.text2);
        }
        return json;
    }
    message.serializeToJson(&json);
    return json;
}

int requestEach(CtlContext& ctx, nk_message& request, nk_message::teType expected, DescribeReply describe,
                std::string const& progressLabel)
{
    Station station(ctx.station);
    station.connect();
    std::vector<Station::Reply> replies = station.request(request, progressLabel);
    const bool several = replies.size() > 1;
    int failures = 0;
    for (Station::Reply& reply : replies) {
        const std::string prefix = several ? reply.target + ": " : std::string();
        if (!reply.error.empty()) {
            reportError("nkctl", reply.error);
            ++failures;
            continue;
        }
        if (reply.message->type() != expected) {
            reportError("nkctl", prefix + "unexpected answer " + reply.message->typeName().c_str() + ", expected " +
                                     nk_message::typeName(expected).c_str());
            ++failures;
            continue;
        }
        tJson out = messageJson(*reply.message);
        std::string headline;
        std::string error;
        describe(*reply.message, out, headline, error);
        if (several) out.addString("device", tString(reply.target));
        ctx.output.emit(out, headline.empty() ? headline : prefix + headline);
        if (!error.empty()) {
            reportError("nkctl", prefix + error);
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}

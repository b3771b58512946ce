#include <algorithm>

#include "commands.h"
#include "schedules_json.h"
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
    if (message.type() == nk_message::SET_SCHEDULES_REQ)
        printableSchedules(static_cast<nk_messageSetSchedulesReq&>(message), json);
    return json;
}

int reportDeviceFailure(CtlContext& ctx, std::string const& device, std::string const& error, ExitCode code)
{
    if (!ctx.output.human()) {
        tJson object;
        object.addString("device", tString(device));
        object.addString("error", tString(error));
        object.addInt("exitCode", code);
        ctx.output.emit(object);
    }
    reportError("nkctl", device + ": " + error);
    return code;
}

int requestEach(CtlContext& ctx, nk_message& request, nk_message::teType expected, DescribeReply describe,
                std::string const& progressLabel)
{
    return requestEach(ctx, Station::outgoing(request, progressLabel), expected, std::move(describe));
}

int requestEach(CtlContext& ctx, Station::Outgoing request, nk_message::teType expected, DescribeReply describe)
{
    Station station(ctx.station);
    station.connect();
    std::vector<Station::Reply> replies = station.request(std::move(request));
    const bool several = replies.size() > 1;
    int status = EXIT_OK;
    for (Station::Reply& reply : replies) {
        if (!reply.error.empty()) {
            status = std::max(status, reportDeviceFailure(ctx, reply.target, reply.error, reply.code));
            continue;
        }
        if (reply.message->type() != expected) {
            status = std::max(status, reportDeviceFailure(ctx, reply.target,
                                                          std::string("unexpected answer ") +
                                                              reply.message->typeName().c_str() + ", expected " +
                                                              nk_message::typeName(expected).c_str(),
                                                          EXIT_FAILURE_OTHER));
            continue;
        }
        tJson out = messageJson(*reply.message);
        Verdict verdict;
        describe(*reply.message, out, verdict);
        out.addString("device", tString(reply.target));
        if (!verdict.error.empty()) {
            out.addString("error", tString(verdict.error));
            out.addInt("exitCode", verdict.code);
        }
        const std::string prefix = several ? reply.target + ": " : std::string();
        if (verdict.splitLines && !ctx.output.human()) {
            for (tJson& line : verdict.lines) {
                line.addString("device", tString(reply.target));
                ctx.output.emit(line);
            }
        } else {
            ctx.output.emit(out, verdict.headline.empty() ? verdict.headline : prefix + verdict.headline);
        }
        if (!verdict.error.empty()) {
            reportError("nkctl", reply.target + ": " + verdict.error);
            status = std::max(status, static_cast<int>(verdict.code));
        }
    }
    return status;
}

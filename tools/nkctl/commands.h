#ifndef NK_TOOLS_COMMANDS_H
#define NK_TOOLS_COMMANDS_H

#include <functional>
#include <string>

#include "output.h"
#include "station.h"

struct CtlContext
{
    StationOptions station;
    Output output;
};

// Sends request to every device and hands each answer of the expected type to describe,
// which fills the output object (the answer's JSON form to start with) and may set a
// headline or, for a failed check, an error. Gives the exit status: 0 when every device
// answered and passed.
using DescribeReply = std::function<void(nk_message& answer, tJson& out, std::string& headline, std::string& error)>;
int requestEach(CtlContext& ctx, nk_message& request, nk_message::teType expected, DescribeReply describe,
                std::string const& progressLabel = std::string());

// The JSON form of a message as a tJson object (the generic messages, which have none,
// show their two texts).
tJson messageJson(nk_message& message);

int cmdState(CtlContext& ctx, std::string const& newName);
int cmdConfigPush(CtlContext& ctx, std::string const& file);
int cmdConfigChecksum(CtlContext& ctx, std::string const& file);
int cmdSchedulesPush(CtlContext& ctx, std::string const& file);
int cmdSchedulesChecksum(CtlContext& ctx, std::string const& file);
int cmdImagePush(CtlContext& ctx, std::string const& file, std::string const& id, std::string const& mime);
int cmdImageRemove(CtlContext& ctx, std::string const& id);
int cmdEvents(CtlContext& ctx, std::string const& sort, unsigned int task);
int cmdStatistics(CtlContext& ctx);
int cmdDisplayConfig(CtlContext& ctx);
int cmdTime(CtlContext& ctx);
int cmdShutdown(CtlContext& ctx);
int cmdDecode(CtlContext& ctx, std::string const& file);
struct EncodeOptions
{
    std::string file;
    std::string out;
    bool hex = false;
    int version = -1;          // -1: the newest layout of the message
    unsigned int telegramId = 1;  // for responses
};
int cmdEncode(CtlContext& ctx, EncodeOptions const& options);

#endif

#ifndef NK_TOOLS_COMMANDS_H
#define NK_TOOLS_COMMANDS_H

#include <functional>
#include <string>
#include <vector>

#include "output.h"
#include "station.h"
#include "tool_error.h"

struct CtlContext
{
    StationOptions station;
    Output output;
};

// What a command makes of one device's answer: a headline for the human form or, for a
// failed check, an error and its exit status.
struct Verdict
{
    std::string headline;
    std::string error;
    ExitCode code = EXIT_REFUSED;
    // In the JSON form, these objects (each with "device") instead of the one answer.
    std::vector<tJson> lines;
    bool splitLines = false;
};

// Sends request to every device and hands each answer of the expected type to describe,
// which fills the output object (the answer's JSON form to start with) and the verdict.
// Every object printed carries "device"; a device that failed is printed as
// {"device", "error", "exitCode"} as well as reported on standard error. Gives the exit
// status: 0 when every device answered and passed, else the highest status of any device.
using DescribeReply = std::function<void(nk_message& answer, tJson& out, Verdict& verdict)>;
int requestEach(CtlContext& ctx, nk_message& request, nk_message::teType expected, DescribeReply describe,
                std::string const& progressLabel = std::string());
// The same for a request already written (Station::outgoing or built by the command).
int requestEach(CtlContext& ctx, Station::Outgoing request, nk_message::teType expected, DescribeReply describe);

// Prints one device's failure in the stream and on standard error; gives its exit status.
int reportDeviceFailure(CtlContext& ctx, std::string const& device, std::string const& error, ExitCode code);

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
struct EventsOptions
{
    std::string sort;
    unsigned int task = 0;
    long long limit = -1;  // -1: all
    std::string since;     // seconds or time text; empty: all
};
int cmdEvents(CtlContext& ctx, EventsOptions const& options);
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

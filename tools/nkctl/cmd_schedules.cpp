#include "commands.h"
#include "file_input.h"
#include "schedules_json.h"

namespace
{
const nk_message::teVersion kVersion = nk_message::VERSION_2;  // with stop times and sorted entries
}

int cmdSchedulesChecksum(CtlContext& ctx, std::string const& file)
{
    auto set = schedulesFromJson(readJsonFile(file), file, kVersion);
    tJson out;
    out.addString("file", tString(file));
    out.addUInt("schedules", set->count());
    out.addString("cs", set->checksum(kVersion));
    ctx.output.emit(out);
    return 0;
}

int cmdSchedulesPush(CtlContext& ctx, std::string const& file)
{
    auto set = schedulesFromJson(readJsonFile(file), file, kVersion);
    const tString expected = set->checksum(kVersion);
    const unsigned int count = set->count();
    return requestEach(ctx, *set, nk_message::SET_SCHEDULES_RSP,
                       [&](nk_message& answer, tJson& out, Verdict& verdict) {
                           const tString held = static_cast<nk_messageSetSchedulesRsp&>(answer).getChecksum();
                           out.addString("expected", expected);
                           out.addBool("verified", held == expected);
                           if (held == expected)
                               verdict.headline = std::to_string(count) + " schedule(s) pushed, checksum " + expected.str() +
                                          " confirmed";
                           else
                               verdict.code = EXIT_MISMATCH, verdict.error = "schedules checksum mismatch: device holds " + held.str() + ", sent " +
                                       expected.str();
                       });
}

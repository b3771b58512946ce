#include "commands.h"
#include "file_input.h"
#include "json_check.h"
#include "nk_messageSetConfig.h"
#include "tool_error.h"

namespace
{
void readConfiguration(std::string const& file, nk_messageSetConfigReq& config)
{
    tJson json = readJsonFile(file);
    if (!config.serializeFromJson(&json))
        throw ToolError(file + ": not a configuration (needs \"action\": \"config\", \"type\": \"request\", "
                               "\"tv\": 1)");
    tJson readBack;
    config.serializeToJson(&readBack);
    checkReadAsGiven(json, readBack, file);
}
}

int cmdConfigChecksum(CtlContext& ctx, std::string const& file)
{
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    readConfiguration(file, config);
    tJson out;
    out.addString("file", tString(file));
    out.addString("cs", config.checksum(nk_message::VERSION_3));
    ctx.output.emit(out);
    return 0;
}

int cmdConfigPush(CtlContext& ctx, std::string const& file)
{
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    readConfiguration(file, config);
    const tString expected = config.checksum(nk_message::VERSION_3);
    return requestEach(ctx, config, nk_message::SET_CONFIG_RSP,
                       [&expected](nk_message& answer, tJson& out, Verdict& verdict) {
                           const tString held = static_cast<nk_messageSetConfigRsp&>(answer).getChecksum();
                           out.addString("expected", expected);
                           out.addBool("verified", held == expected);
                           if (held == expected)
                               verdict.headline = "configuration pushed, checksum " + expected.str() + " confirmed";
                           else
                               verdict.code = EXIT_MISMATCH, verdict.error = "configuration checksum mismatch: device holds " + held.str() + ", sent " +
                                       expected.str();
                       });
}

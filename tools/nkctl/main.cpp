// nkctl: the station's command line. Talks to one or more devices over TCP or a serial port,
// or works offline on captured frames and message JSON.
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "endpoint.h"
#include "tls_options.h"
#ifdef NK_CTL_TLS
#include "tls_dialer.h"
#else
#include "tls_handoff.h"
#endif
#include "tool_error.h"

int main(int argc, char** argv)
{
    CLI::App app{"nkctl: station command line for nk protocol display devices"};
    app.require_subcommand(1);
    app.set_version_flag("--version", NK_TOOLS_VERSION);
    app.fallthrough();

    std::vector<std::string> devices;
    std::string devicesFile;
    std::string serialPath;
    unsigned int baud = 115200;
    std::vector<std::string> addresses;
    std::string from = "100";
    unsigned int timeout = 10;
    bool json = false;
    bool human = false;
    bool verbose = false;
    app.footer(std::string("Devices: --device, else the lines of --devices-file, else $NKCTL_DEVICES (separated by "
                           "commas or spaces), else 127.0.0.1:5000. Times are seconds since 1970 or "
                           "YYYY-MM-DD hh:mm:ss in UTC, also YYYY-MM-DDThh:mm:ssZ or with an offset (+02:00).\n") +
               exitCodeHelp());
    auto* deviceOption = app.add_option("--device,-d", devices,
                                        "device [ADDR@]HOST:PORT (repeat for several; ADDR: its protocol address)");
    auto* fileOption = app.add_option("--devices-file", devicesFile, "file naming one device per line")
                           ->excludes(deviceOption);
    app.add_option("--serial", serialPath, "serial port (or pseudo-terminal) of the device")
        ->excludes(deviceOption)
        ->excludes(fileOption);
    app.add_option("--baud", baud, "baud rate of the serial port")->capture_default_str()->check(CLI::Range(1u, 4000000u));
    app.add_option("--address,-a", addresses,
                   "the device's protocol address (default 1); on a serial bus repeat for several devices");
    app.add_option("--from", from, "the station's own protocol address")->capture_default_str();
    app.add_option("--timeout,-t", timeout, "seconds to wait for an answer")->capture_default_str()
        ->check(CLI::Range(1u, 86400u));
    auto* jsonFlag = app.add_flag("--json", json, "one JSON object per line, also on a terminal");
    app.add_flag("--human", human, "the readable form, also when not on a terminal")->excludes(jsonFlag);
    app.add_flag("--verbose,-v", verbose, "log the engine's messages with time stamps on standard error");
    TlsFiles tls;
    addTlsOptions(app, tls, "the station's; each device's certificate must name its address (CN)");

    std::string text, file, id, mime;
    EventsOptions eventsOptions;
    EncodeOptions encode;
    int status = 0;
    CtlContext ctx;
    std::function<int()> command;

    auto* state = app.add_subcommand("state", "show the device's state; --name sets its name");
    state->add_option("--name", text, "new device name");
    state->callback([&] { command = [&] { return cmdState(ctx, text); }; });

    auto* config = app.add_subcommand("config", "push a configuration or compute its checksum");
    config->require_subcommand(1);
    auto* configPush = config->add_subcommand("push", "send FILE.json and verify the checksum the device returns");
    configPush->add_option("file", file, "configuration JSON")->required();
    configPush->callback([&] { command = [&] { return cmdConfigPush(ctx, file); }; });
    auto* configChecksum = config->add_subcommand("checksum", "the checksum of FILE.json (offline)");
    configChecksum->add_option("file", file, "configuration JSON")->required();
    configChecksum->callback([&] { command = [&] { return cmdConfigChecksum(ctx, file); }; });

    auto* schedules = app.add_subcommand("schedules", "push a schedule set or compute its checksum");
    schedules->require_subcommand(1);
    auto* schedulesPush = schedules->add_subcommand("push", "send FILE.json and verify the checksum");
    schedulesPush->add_option("file", file, "schedule set JSON")->required();
    schedulesPush->callback([&] { command = [&] { return cmdSchedulesPush(ctx, file); }; });
    auto* schedulesChecksum = schedules->add_subcommand("checksum", "the checksum of FILE.json (offline)");
    schedulesChecksum->add_option("file", file, "schedule set JSON")->required();
    schedulesChecksum->callback([&] { command = [&] { return cmdSchedulesChecksum(ctx, file); }; });

    auto* image = app.add_subcommand("image", "store or remove an image on the device");
    image->require_subcommand(1);
    auto* imagePush = image->add_subcommand("push", "send FILE as image --id N");
    imagePush->add_option("file", file, "image file")->required();
    imagePush->add_option("--id", id, "image id (0 to 18446744073709551615)")->required();
    imagePush->add_option("--mime", mime, "mime type (default: from the file's extension)");
    imagePush->callback([&] { command = [&] { return cmdImagePush(ctx, file, id, mime); }; });
    auto* imageRemove = image->add_subcommand("remove", "remove image --id N");
    imageRemove->add_option("--id", id, "image id")->required();
    imageRemove->callback([&] { command = [&] { return cmdImageRemove(ctx, id); }; });

    auto* events = app.add_subcommand("events", "show the device's event log");
    events->add_option("--sort", eventsOptions.sort,
                       "time-first-desc, time-first-asc, time-last-desc, time-last-asc, id-desc or id-asc");
    events->add_option("--task", eventsOptions.task, "task number echoed by the device")->check(CLI::Range(0u, 255u));
    events->add_option("--limit", eventsOptions.limit, "at most N events (after sorting)")
        ->check(CLI::Range(0LL, 1000000000LL));
    events->add_option("--since", eventsOptions.since, "only events last seen at or after TIME");
    events->callback([&] { command = [&] { return cmdEvents(ctx, eventsOptions); }; });

    app.add_subcommand("statistics", "show the device's statistics")->callback([&] {
        command = [&] { return cmdStatistics(ctx); };
    });
    app.add_subcommand("display-config", "show the device's display configurations")->callback([&] {
        command = [&] { return cmdDisplayConfig(ctx); };
    });
    app.add_subcommand("time", "set the device's clock to this station's")->callback([&] {
        command = [&] { return cmdTime(ctx); };
    });
    app.add_subcommand("shutdown", "stop the device")->callback([&] { command = [&] { return cmdShutdown(ctx); }; });

    auto* decode = app.add_subcommand("decode", "telegrams in captured bytes or hex (FILE or standard input) as JSON");
    decode->add_option("file", file, "capture file");
    decode->callback([&] { command = [&] { return cmdDecode(ctx, file); }; });

    auto* encodeCommand = app.add_subcommand("encode", "a message's JSON to frame bytes");
    encodeCommand->add_option("file", encode.file, "message JSON")->required();
    encodeCommand->add_option("--out,-o", encode.out, "write the frames to this file");
    encodeCommand->add_flag("--hex", encode.hex, "hexadecimal text instead of bytes");
    encodeCommand->add_option("--version", encode.version, "layout version (default: the newest)")
        ->check(CLI::Range(0, 65535));
    encodeCommand->add_option("--telegram-id", encode.telegramId, "telegram id of a response");
    encodeCommand->callback([&] { command = [&] { return cmdEncode(ctx, encode); }; });

    // Usage errors are one line on standard error, like every other error of the tools.
    app.failure_message([](CLI::App const* parsed, CLI::Error const& e) {
        const std::vector<std::string> rest = parsed->remaining();
        if (e.get_name() == "RequiredError" && !rest.empty() && rest.front().rfind("-", 0) != 0)
            return "nkctl: unknown command '" + rest.front() + "' (see --help)\n";
        return std::string("nkctl: ") + e.what() + " (see --help)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? EXIT_OK : EXIT_USAGE;
    }

    try {
        ctx.output = Output(json ? Output::JSON : human ? Output::HUMAN : Output::AUTO);
        char const* fromEnvironment = std::getenv("NKCTL_DEVICES");
        if (devices.empty() && !devicesFile.empty()) devices = devicesFromFile(devicesFile);
        if (devices.empty() && fromEnvironment) devices = devicesFromText(fromEnvironment);
        ctx.station.devices = devices.empty() ? std::vector<std::string>{"127.0.0.1:5000"} : devices;
        ctx.station.serialPath = serialPath;
        ctx.station.baud = baud;
        std::vector<unsigned int> deviceAddresses;
        for (std::string const& address : addresses)
            deviceAddresses.push_back(static_cast<unsigned int>(parseUnsigned(address, "device address", 0, 0xFFFFFFFEu)));
        if (!deviceAddresses.empty()) ctx.station.deviceAddress = deviceAddresses.front();
        if (deviceAddresses.size() > 1) {
            if (serialPath.empty())
                throw ToolError("several --address values need --serial; give each TCP device as ADDR@HOST:PORT",
                                EXIT_USAGE);
            ctx.station.serialAddresses = deviceAddresses;
        }
        ctx.station.ownAddress = static_cast<unsigned int>(parseUnsigned(from, "station address", 0, 0xFFFFFFFDu));
        tls.requireComplete();
        if (tls.enabled() && !serialPath.empty())
            throw ToolError("TLS protects TCP links; a serial port has none (see docs/security.md)", EXIT_USAGE);
        ctx.station.tls = tls;
#ifdef NK_CTL_TLS
        ctx.station.tlsDialer = &makeTlsDialer;
#else
        if (tls.enabled()) handOffToTlsBuild(argv);
#endif
        ctx.station.timeout_s = timeout;
        ctx.station.verbose = verbose;
        randomizeTelegramIds();
        status = command ? command() : EXIT_USAGE;
    } catch (ToolError const& e) {
        reportError("nkctl", e.what());
        status = e.code;
    } catch (std::exception const& e) {
        reportError("nkctl", e.what());
        status = EXIT_FAILURE_OTHER;
    }
    return status;
}

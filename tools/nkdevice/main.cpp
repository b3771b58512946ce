// nkdevice: a reference display device. It serves the protocol on a TCP address or a serial
// port, answers every request type the library knows and keeps its state in a data directory.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>

#include "broker_run.h"
#include "device_server.h"
#include "output.h"
#include "tls.h"
#include "tls_options.h"
#include "tool_error.h"

namespace
{
void announce(char const* event, std::string const& key, std::string const& value, std::string const& dataDir)
{
    tJson line;
    line.addString("event", event);
    if (!key.empty()) line.addString(key.c_str(), tString(value));
    line.addString("data", tString(dataDir));
    Output(Output::JSON).emit(line);
}
}

int main(int argc, char** argv)
{
    CLI::App app{"nkdevice: reference display device serving the nk protocol over TCP or a serial port"};
    app.set_version_flag("--version", NK_TOOLS_VERSION);
    std::string listenAddress = "127.0.0.1:5000";
    std::string serialPath;
    unsigned int baud = 115200;
    std::string addressText = "1";
    std::string serialNumberText;
    std::string dataDir = "nkdevice-data";
    bool verbose = false;
    BrokerRun brokerRun;
    brokerRun.pollPeriod_ms = DeviceServer::Options().pollPeriod_ms;
    auto* listenOption = app.add_option("--listen", listenAddress,
                                        "TCP address to listen on, HOST:PORT (port 0 picks a free one)")
                             ->capture_default_str();
    app.add_option("--serial", serialPath, "serial port (or pseudo-terminal) to serve instead of TCP")
        ->excludes(listenOption);
    app.add_option("--baud", baud, "baud rate of the serial port")->capture_default_str()->check(CLI::Range(1u, 4000000u));
    app.add_option("--address", addressText, "the device's protocol address")->capture_default_str();
    app.add_option("--serial-number", serialNumberText, "serial number reported in the state (default: the address)");
    app.add_option("--data", dataDir, "data directory holding the device's state")->capture_default_str();
    auto* mqttOption = app.add_option("--mqtt", brokerRun.url, "serve through an MQTT broker, mqtt://HOST[:PORT]")
                           ->excludes(listenOption);
    app.add_option("--fleet", brokerRun.fleet, "fleet name in the broker topics (with --mqtt)")->needs(mqttOption);
    app.add_option("--topic-prefix", brokerRun.topicPrefix, "first level of the broker topics")
        ->capture_default_str()
        ->needs(mqttOption);
    app.add_option("--simulate", brokerRun.count,
                   "run N devices in this process, addresses from --address on (with --mqtt)")
        ->check(CLI::Range(1u, 1000000u))
        ->needs(mqttOption);
    app.add_option("--fault", brokerRun.faults,
                   "make one device faulty for testing stations: wrong-checksum:ADDRESS or silent:ADDRESS")
        ->needs(mqttOption);
    app.add_option("--poll-ms", brokerRun.pollPeriod_ms, "period of the engines' polling")
        ->capture_default_str()
        ->check(CLI::Range(1u, 10000u));
    app.add_flag("--verbose,-v", verbose,
                 "log connections and the engine's messages with time stamps on standard error");
    TlsFiles tls;
    addTlsOptions(app, tls,
                  "the device's own, whose CN is its address; with --simulate a path holding {address} "
                  "names each panel's");
    app.footer("TLS: on --listen only stations are served whose certificate chains to --tls-ca and names no "
               "panel; with --mqtt (mqtts://) the broker checks the certificate. Refused connections are "
               "logged as warnings.\n"
               "Exit status: 0 stopped cleanly, 1 other failure, 2 usage error, 3 data directory or TLS files "
               "unusable, 4 cannot listen or open the serial port.");
    // Usage errors are one line on standard error, like every other error of the tools.
    app.failure_message([](CLI::App const*, CLI::Error const& e) {
        return std::string("nkdevice: ") + e.what() + " (see --help)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? EXIT_OK : EXIT_USAGE;
    }

    try {
        const unsigned int address =
            static_cast<unsigned int>(parseUnsigned(addressText, "device address", 0, 0xFFFFFFFDu));
        const unsigned int serialNumber =
            serialNumberText.empty()
                ? address
                : static_cast<unsigned int>(parseUnsigned(serialNumberText, "serial number", 0, 0xFFFFFFFFu));

        tls.requireComplete();
        if (tls.enabled() && !serialPath.empty())
            throw ToolError("TLS protects TCP and broker links; a serial port has none (see docs/security.md)", EXIT_USAGE);
        if (!brokerRun.url.empty()) {
            if (app.count("--serial") > 0) throw ToolError("--mqtt and --serial exclude each other", EXIT_USAGE);
            brokerRun.tls = tls;
            if (brokerRun.fleet.empty()) throw ToolError("--mqtt needs --fleet NAME", EXIT_USAGE);
            brokerRun.firstAddress = address;
            brokerRun.serialNumber = serialNumber;
            brokerRun.dataDir = dataDir;
            brokerRun.dataGiven = app.count("--data") > 0;
            brokerRun.verbose = verbose;
            return runOverBroker(brokerRun);
        }

        DeviceStore store(dataDir);
        Device device(store, address, serialNumber);
        device.load();

        asio::io_context io;
        DeviceServer::Options options;
        options.verbose = verbose;
        options.pollPeriod_ms = brokerRun.pollPeriod_ms;
        DeviceServer server(io, device, options);
        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&server](std::error_code ec, int) {
            if (!ec) server.stop();
        });

        if (!serialPath.empty()) {
            server.openSerial(serialPath, baud);
            announce("serving", "serial", serialPath, store.directory());
        } else {
            std::shared_ptr<asio::ssl::context> context;
            if (tls.enabled()) {
                const TlsFiles own = tls.forPanel(address);
                requirePanelCertificate(own.cert, address);
                context = makeTlsContext(own, TlsRole::SERVER);
            }
            const Endpoint bound = server.listen(parseEndpoint(listenAddress, "127.0.0.1"), context);
            announce("listening", "address", bound.text(), store.directory());
        }
        device.recordEvent(Device::EVENT_STARTED, Device::CATEGORY_NOTICE, "device started");
        io.run();
        device.flushLog();
        announce("stopped", "", "", store.directory());
        // Everything confirmed is on disk; the work of a large schedule set may run for
        // minutes more, and its result was never confirmed: do not wait for it.
        if (server.workInProgress()) std::_Exit(0);
        return 0;
    } catch (ToolError const& e) {
        reportError("nkdevice", e.what());
        return e.code;
    } catch (std::exception const& e) {
        reportError("nkdevice", e.what());
    }
    return EXIT_FAILURE_OTHER;
}

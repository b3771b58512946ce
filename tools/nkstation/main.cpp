// nkstation: keeps a fleet of panels at their desired state, through an MQTT broker and by
// dialling panels over TCP, with its memory in SQLite and an HTTP/JSON API.
#include <csignal>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "broker_station.h"
#include "dial_out.h"
#include "http_api.h"
#include "output.h"
#include "reconciler.h"
#include "station.h"
#include "tls.h"
#include "tls_options.h"
#include "tool_error.h"
#include "web_root.h"

int main(int argc, char** argv)
{
    CLI::App app{"nkstation: keeps a fleet of panels in sync through an MQTT broker and by dialling panels over TCP"};
    app.set_version_flag("--version", NK_TOOLS_VERSION);
    std::string url;
    std::string fleet;
    std::string prefix = "nk";
    std::string database = "nkstation.db";
    std::string imageDirectory;
    std::string http = "127.0.0.1:8080";
    std::string clientId;
    std::string sharedGroup;
    std::string webRoot;
    std::string chartJs = kDebianChartJs;
    Reconciler::Options reconcile;
    unsigned int pollInterval_s = 300;
    unsigned int collectInterval_s = 300;
    bool verbose = false;
    std::vector<std::string> panels;
    std::string panelsFile;
    auto* mqttOption = app.add_option("--mqtt", url, "the broker, mqtt://HOST[:PORT] or mqtts://HOST[:PORT] (TLS)");
    app.add_option("--fleet", fleet, "fleet name in the broker topics (with --mqtt)")->needs(mqttOption);
    app.add_option("--panel", panels,
                   "a panel the station dials over TCP, ADDR@HOST:PORT (repeatable); registered in the store with "
                   "transport tcp, so that it is dialled on later starts too");
    app.add_option("--panels-file", panelsFile, "a file of panels to dial, one ADDR@HOST:PORT per line (# comments)");
    app.add_option("--topic-prefix", prefix, "first level of the broker topics")->capture_default_str();
    app.add_option("--db", database, "the SQLite store (created if missing)")->capture_default_str();
    app.add_option("--images", imageDirectory, "directory of the desired state's image files (default: the --db path + .images)");
    app.add_option("--http", http, "HTTP API address, HOST:PORT (port 0 picks a free one)")->capture_default_str();
    app.add_option("--web-root", webRoot, "the dashboard's files (default: beside the program, else its sources)");
    app.add_option("--chart-js", chartJs, "directory of the charting library served at /lib/chart.js/")
        ->capture_default_str();
    app.add_option("--client-id", clientId, "MQTT client id (default nkstation-<fleet>)");
    app.add_option("--shared-group", sharedGroup, "share the fleet with other stations in this subscription group");
    app.add_option("--max-concurrent", reconcile.maxConcurrent, "devices worked on at once")
        ->capture_default_str()
        ->check(CLI::Range(1u, 100000u));
    app.add_option("--timeout", reconcile.requestTimeout_s, "seconds a panel has to answer")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600u));
    app.add_option("--poll-interval", pollInterval_s, "seconds between state polls of an idle panel")
        ->capture_default_str()
        ->check(CLI::Range(1u, 86400u));
    app.add_option("--collect-interval", collectInterval_s, "seconds between event and statistics collections")
        ->capture_default_str()
        ->check(CLI::Range(1u, 86400u));
    app.add_flag("--verbose,-v", verbose, "log the engines' messages on standard error");
    TlsFiles tls;
    addTlsOptions(app, tls,
                  "the station's, on every link: to an mqtts:// broker and to every panel it dials (CN=nkstation)");
    app.footer(std::string("TLS: one station certificate serves all links. With the TLS options the broker must "
                           "be mqtts:// and every dial-out link is TLS 1.3: a dialled panel is worked on only when "
                           "its certificate chains to --tls-ca, names the panel's address (CN=ADDR) and is not in "
                           "--tls-crl (which the broker does not use: it checks its own clients). Without them "
                           "every link is plain.\n") +
               exitCodeHelp());
    app.failure_message([](CLI::App const*, CLI::Error const& e) {
        return std::string("nkstation: ") + e.what() + " (see --help)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? EXIT_OK : EXIT_USAGE;
    }
    reconcile.statePollInterval = std::chrono::seconds(pollInterval_s);
    reconcile.collectInterval = std::chrono::seconds(collectInterval_s);

    try {
        const bool withBroker = !url.empty();
        BrokerStation::Options options;
        tls.requireComplete();
        if (withBroker) {
            options.broker = parseMqttUrl(url);
            if (fleet.empty()) throw ToolError("--mqtt needs --fleet", EXIT_USAGE);
            if (options.broker.tls != tls.enabled())
                throw ToolError(options.broker.tls ? "an mqtts:// broker needs --tls-cert, --tls-key and --tls-ca"
                                                   : "with the TLS options every link is TLS: the broker URL must be "
                                                     "mqtts://",
                                EXIT_USAGE);
        }
        DialOut::Options dialOptions;
        // A wrong file stops the start.
        if (tls.enabled()) dialOptions.tls = makeTlsContext(tls, TlsRole::CLIENT);
        dialOptions.verbose = verbose;
        // The broker checks revocation of its clients itself (crlfile).
        options.tls = tls;
        options.tls.crl.clear();
        std::vector<DialTarget> targets;
        if (!panelsFile.empty())
            for (std::string const& line : devicesFromFile(panelsFile)) panels.push_back(line);
        for (std::string const& text : panels) {
            const DialTarget target = parseDialTarget(text);
            for (DialTarget const& earlier : targets)
                if (earlier.address == target.address && earlier.ep.text() != target.ep.text())
                    throw ToolError("panel " + std::to_string(target.address) + " is given at " + earlier.ep.text() +
                                        " and at " + target.ep.text(),
                                    EXIT_USAGE);
            targets.push_back(target);
        }
        if (withBroker && !isTopicLevel(fleet))
            throw ToolError("fleet name '" + fleet + "' must be one topic level without / + #", EXIT_USAGE);
        if (!isTopicLevel(prefix)) throw ToolError("topic prefix '" + prefix + "' must be one topic level", EXIT_USAGE);
        if (!sharedGroup.empty() && !isTopicLevel(sharedGroup))
            throw ToolError("shared group '" + sharedGroup + "' must be one topic level", EXIT_USAGE);
        options.topics.prefix = prefix;
        options.topics.fleet = fleet;
        options.clientId = clientId.empty() ? "nkstation-" + fleet : clientId;
        options.sharedGroup = sharedGroup;
        options.verbose = verbose;
        const Endpoint httpEndpoint = parseEndpoint(http, "127.0.0.1");

        std::unique_ptr<FleetStore> store = openSqliteStore(database);
        ImageStore images(imageDirectory.empty() ? database + ".images" : imageDirectory, *store);
        asio::io_context io;
        std::unique_ptr<BrokerStation> station;
        if (withBroker) station.reset(new BrokerStation(io, options));
        DialOut dialOut(io, dialOptions);
        Reconciler reconciler(io, *store, images, station.get(), dialOut, reconcile);
        ChangeLog changes;
        reconciler.onChange([&changes](nlohmann::json const& change) { changes.add(change.dump()); });
        if (station) {
            station->onPresence(
                [&reconciler](unsigned int address, bool online) { reconciler.brokerPresence(address, online); });
            station->onConnection(
                [&reconciler](bool connected, std::string const&) { reconciler.brokerConnection(connected); });
            station->client().onFailure(
                [](std::string const& reason) { logLine("warning", "nkstation", "broker: " + reason); });
        }
        dialOut.onUp([&reconciler](unsigned int address) { reconciler.linkUp(address); });
        dialOut.onDown([&reconciler](unsigned int address, std::string const& reason, bool refused) {
            logLine("warning", "nkstation", "panel " + std::to_string(address) + ": " + reason);
            reconciler.linkDown(address, reason, refused);
        });
        HttpApi api(io, *store, images, reconciler, changes, [&station, &dialOut] {
            nlohmann::json broker = nullptr;
            if (station)
                broker = {{"connected", station->connected()},
                          {"received", station->client().messagesReceived()},
                          {"published", station->client().messagesPublished()},
                          {"stray", station->strayMessages()}};
            return nlohmann::json{{"broker", broker},
                                  {"dialOut", {{"panels", dialOut.panels()}, {"connected", dialOut.connectedPanels()}}}};
        });
        // A given --web-root must hold the dashboard; without one, the API alone still serves.
        if (webRoot.empty()) webRoot = findWebRoot();
        if (!webRoot.empty()) api.serveFiles(webRoot, chartJs);
        else reportError("nkstation", "the dashboard's files were not found; serving the API only (see --web-root)");
        const Endpoint bound = api.listen(httpEndpoint);
        reconciler.start();
        for (DialTarget const& target : targets) reconciler.setLink(target.address, "tcp", target.ep.text());
        if (station) station->start();

        tJson line;
        line.addString("event", "listening");
        line.addString("http", tString(bound.text()));
        if (station) {
            line.addString("broker", tString(url));
            line.addString("fleet", tString(fleet));
        }
        line.addInt("dialOut", static_cast<long long>(dialOut.panels()));
        line.addString("db", tString(database));
        if (!webRoot.empty()) line.addString("dashboard", tString("http://" + bound.text() + "/"));
        Output(Output::JSON).emit(line);

        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&io](std::error_code ec, int) {
            if (!ec) io.stop();
        });
        io.run();
        // Requests still being answered wait for the polling thread: it runs while they end.
        io.restart();
        std::thread drain([&io] { io.run(); });
        api.stop();
        io.stop();
        drain.join();
        dialOut.stop();
        if (station) station->stop();
        return EXIT_OK;
    } catch (ToolError const& e) {
        reportError("nkstation", e.what());
        return e.code;
    } catch (std::exception const& e) {
        reportError("nkstation", e.what());
    }
    return EXIT_FAILURE_OTHER;
}

#include "broker_run.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sys/resource.h>
#include <vector>

#include "device_server.h"
#include "endpoint.h"
#include "fleet_topics.h"
#include "mqtt_panel.h"
#include "output.h"
#include "tls.h"
#include "tool_error.h"

namespace
{
struct Panel
{
    std::unique_ptr<DeviceStore> store;
    std::unique_ptr<Device> device;
    std::unique_ptr<DeviceServer> server;
    std::unique_ptr<MqttPanel> mqtt;
};

// Every simulated device holds a broker connection and a lock on its data directory.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

std::string makeMemoryDirectory()
{
    std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    std::string pattern = base + "/nkdevice-simulate-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw ToolError("cannot create a directory in " + base, EXIT_INPUT);
    return pattern;
}

void announce(tJson& line)
{
    Output(Output::JSON).emit(line);
}
}

int runOverBroker(BrokerRun const& run)
{
    const MqttUrl broker = parseMqttUrl(run.url);
    if (!isTopicLevel(run.fleet)) throw ToolError("fleet name '" + run.fleet + "' must be one topic level without / + #", EXIT_USAGE);
    if (!isTopicLevel(run.topicPrefix))
        throw ToolError("topic prefix '" + run.topicPrefix + "' must be one topic level without / + #", EXIT_USAGE);
    const unsigned int count = run.count == 0 ? 1 : run.count;
    if (static_cast<unsigned long long>(run.firstAddress) + count - 1 > 0xFFFFFFFDull)
        throw ToolError("the simulated addresses run beyond 4294967293", EXIT_USAGE);
    if (broker.tls != run.tls.enabled())
        throw ToolError(broker.tls ? "an mqtts:// broker needs --tls-cert, --tls-key and --tls-ca"
                                   : "TLS options need an mqtts:// broker URL",
                        EXIT_USAGE);
    if (!run.tls.crl.empty())
        throw ToolError("--tls-crl serves TCP links; on a broker the broker checks revocation (crlfile)", EXIT_USAGE);
    if (run.tls.enabled() && run.count > 0 && !run.tls.perPanel())
        throw ToolError("simulated panels need a certificate each: --tls-cert and --tls-key must hold {address}",
                        EXIT_USAGE);
    FleetTopics topics;
    topics.prefix = run.topicPrefix;
    topics.fleet = run.fleet;
    if (run.count > 0) raiseDescriptorLimit();
    std::map<unsigned int, std::string> faults;
    for (std::string const& fault : run.faults) {
        const std::size_t colon = fault.find(':');
        const std::string kind = fault.substr(0, colon);
        if (colon == std::string::npos || (kind != "wrong-checksum" && kind != "silent"))
            throw ToolError("--fault " + fault + ": expected wrong-checksum:ADDRESS or silent:ADDRESS", EXIT_USAGE);
        faults[static_cast<unsigned int>(parseUnsigned(fault.substr(colon + 1), "fault address", 0, 0xFFFFFFFDu))] = kind;
    }

    std::string memoryDirectory;
    std::string dataRoot = run.dataDir;
    if (run.count > 0 && !run.dataGiven) dataRoot = memoryDirectory = makeMemoryDirectory();
    std::error_code madeRoot;
    if (run.count > 0 && !std::filesystem::create_directories(dataRoot, madeRoot) && madeRoot)
        throw ToolError("cannot create data directory " + dataRoot + ": " + madeRoot.message(), EXIT_INPUT);

    asio::io_context io;
    DeviceServer::Options options;
    options.verbose = run.verbose;
    options.pollPeriod_ms = run.pollPeriod_ms;
    std::vector<Panel> panels(count);
    unsigned int running = count;
    int status = 0;
    try {
        for (unsigned int i = 0; i < count; ++i) {
            const unsigned int address = run.firstAddress + i;
            Panel& panel = panels[i];
            panel.store.reset(new DeviceStore(run.count == 0 ? dataRoot : dataRoot + "/" + std::to_string(address)));
            panel.device.reset(new Device(*panel.store, address, run.count == 0 ? run.serialNumber : address));
            panel.device->load();
            DeviceServer::Options panelOptions = options;
            // A SHUTDOWN ends one simulated panel, as it would end one real one: it goes offline
            // (its flag set to "0") while the others keep running; the process ends with the last.
            if (run.count > 0)
                panelOptions.onStopped = [&panels, &running, &io, i, address] {
                    panels[i].mqtt->stop();
                    panels[i].device->flushLog();
                    tJson line;
                    line.addString("event", "panel stopped");
                    line.addInt("address", static_cast<long long>(address));
                    announce(line);
                    if (--running == 0) io.stop();
                };
            panel.server.reset(new DeviceServer(io, *panel.device, panelOptions));
            TlsFiles tls;
            if (run.tls.enabled()) {
                // Checked here, so that a wrong file stops the start instead of a retry loop.
                tls = run.tls.forPanel(address);
                requirePanelCertificate(tls.cert, address);
                makeTlsContext(tls, TlsRole::CLIENT);
            }
            panel.mqtt.reset(new MqttPanel(io, *panel.server, broker, topics, address, tls));
            panel.mqtt->client().onFailure([address](std::string const& reason) {
                logLine("warning", "nkdevice", "panel " + std::to_string(address) + ": broker: " + reason);
            });
            auto fault = faults.find(address);
            if (fault != faults.end() && fault->second == "silent") panel.mqtt->setSilent(true);
            if (fault != faults.end() && fault->second == "wrong-checksum") panel.device->setConfirmsWrongChecksum(true);
        }
        for (Panel& panel : panels) {
            panel.mqtt->start();
            panel.device->recordEvent(Device::EVENT_STARTED, Device::CATEGORY_NOTICE, "device started");
        }
        tJson line;
        line.addString("event", run.count == 0 ? "serving" : "simulating");
        line.addString("broker", tString(run.url));
        line.addString("fleet", tString(run.fleet));
        line.addInt("address", static_cast<long long>(run.firstAddress));
        line.addInt("panels", static_cast<long long>(count));
        line.addString("data", tString(dataRoot));
        announce(line);

        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&io](std::error_code ec, int) {
            if (!ec) io.stop();
        });
        io.run();
        // Answers still queued are written by the clients as they disconnect.
        for (Panel& panel : panels) {
            panel.mqtt->stop();
            panel.device->flushLog();
        }
        tJson stopped;
        stopped.addString("event", "stopped");
        stopped.addInt("panels", static_cast<long long>(count));
        announce(stopped);
    } catch (...) {
        panels.clear();
        if (!memoryDirectory.empty()) std::filesystem::remove_all(memoryDirectory);
        throw;
    }
    panels.clear();
    if (!memoryDirectory.empty()) std::filesystem::remove_all(memoryDirectory);
    return status;
}

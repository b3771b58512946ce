#ifndef NK_TOOLS_BROKER_RUN_H
#define NK_TOOLS_BROKER_RUN_H

#include <string>
#include <vector>

#include "tls_files.h"

// nkdevice on a broker instead of a TCP listener or a serial port: one device, or (simulate) a
// fleet of devices in one process, each with its own engine, address, data directory and
// broker connection, all on one thread.
struct BrokerRun
{
    std::string url;
    std::string fleet;
    std::string topicPrefix = "nk";
    unsigned int firstAddress = 1;
    unsigned int serialNumber = 0;  // of a single device; simulated ones report their address
    unsigned int count = 0;         // 0: one device whose data directory is dataDir
    // Simulated devices keep their data in dataDir/<address> when a directory was given, else
    // in a fresh directory in memory (tmpfs) that is removed at exit.
    std::string dataDir;
    bool dataGiven = false;
    unsigned int pollPeriod_ms = 250;
    bool verbose = false;
    // Deliberately faulty devices among them, for testing stations: KIND:ADDRESS with KIND
    // wrong-checksum (confirms a configuration with a checksum not its own) or silent (online,
    // never answers).
    std::vector<std::string> faults;
    // The panels' client certificates (mqtts://); with simulated panels the paths hold {address}.
    TlsFiles tls;
};

// Runs until SIGINT/SIGTERM, or until a SHUTDOWN request has stopped its device (each simulated
// device stops on its own; the process ends with the last); 0 then. Throws ToolError on bad
// settings.
int runOverBroker(BrokerRun const& run);

#endif

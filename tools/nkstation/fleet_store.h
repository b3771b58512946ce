#ifndef NK_STATION_FLEET_STORE_H
#define NK_STATION_FLEET_STORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// What the station keeps about its fleet, behind one small interface, so that a server database
// can take the place of the embedded one when several stations share a fleet. Every call is
// one transaction: when it returns, the change survives a kill of the process.
struct DeviceRecord
{
    unsigned int address = 0;
    std::string group = "default";
    // "mqtt": through the broker; "tcp": dialled by the station at endpoint (HOST:PORT).
    std::string transport = "mqtt";
    std::string endpoint;
    long long lastSeen_ms = 0;  // wall clock, milliseconds since 1970
    bool online = false;
    // The last state the panel reported (reported is false until one arrived).
    bool reported = false;
    unsigned int serial = 0;
    std::string name;
    std::string csCfg;
    std::string csSched;
    std::vector<std::uint64_t> images;
    // The images this station pushed and saw the panel hold, by uid: the content id of each.
    // The state lists uids only; this tells whether a held uid has the desired content.
    std::map<std::uint64_t, std::string> pushedImages;
    unsigned int flags = 0;
    std::string version;
    // The extended state word (its low byte the mobile link); from the last state polled, not
    // kept in the store: a restarted station has it again at the panel's first poll.
    unsigned long long extState = 0;
    // When the panel last came online (0 while offline), and its display configurations as the
    // JSON of its answer (empty until collected); also kept in memory only.
    long long onlineSince_ms = 0;
    std::string displaysJson;
    // Reconciling: "in sync", "pending", "pushing", "failed", "offline".
    std::string status = "pending";
    std::string lastError;
    unsigned int attempts = 0;
    long long nextAttempt_ms = 0;
};

// Desired state of one group, or one device's overrides of its group's; members left empty
// are not set at this level.
struct DesiredState
{
    std::optional<std::string> config;     // the configuration's JSON text, as the library reads it
    std::optional<std::string> schedules;  // the schedule set's JSON text
    std::optional<std::string> name;
    // The image set as JSON text: [{"uid": "DECIMAL", "image": "CONTENT ID"}, ...].
    std::optional<std::string> images;
    long long changed_ms = 0;
};

// An image file held for the desired state: named by its content id, the SHA-1 digest of its
// content, with the mime type it is pushed with and a name for the panel.
struct ImageRecord
{
    std::string id;
    std::string type;
    std::string name;
    std::uint64_t bytes = 0;
    long long created_ms = 0;
};

struct EventRecord
{
    long long seq = 0;  // store order, for "since"
    unsigned int address = 0;
    std::uint64_t eventId = 0;
    long long time = 0;  // the panel's time stamp
    unsigned int category = 0;
    unsigned int type = 0;
    std::string text;
};

struct StatisticsSample
{
    long long seq = 0;
    unsigned int address = 0;
    long long time_ms = 0;
    std::string json;  // the response's members
};

class FleetStore
{
public:
    enum Scope
    {
        GROUP,
        DEVICE,
    };

    virtual ~FleetStore() = default;
    virtual int schemaVersion() = 0;

    virtual std::vector<DeviceRecord> devices() = 0;
    virtual std::optional<DeviceRecord> device(unsigned int address) = 0;
    virtual void putDevice(DeviceRecord const& device) = 0;

    virtual std::optional<DesiredState> desired(Scope scope, std::string const& key) = 0;
    virtual void putDesired(Scope scope, std::string const& key, DesiredState const& state) = 0;
    virtual std::vector<std::string> groups() = 0;

    // The files themselves live beside the store (see ImageStore); these are their records.
    virtual void putImage(ImageRecord const& image) = 0;
    virtual std::optional<ImageRecord> image(std::string const& id) = 0;
    virtual std::vector<ImageRecord> images() = 0;

    // Keeps the events not yet held (by device and event id); gives how many were new.
    virtual unsigned int addEvents(std::vector<EventRecord> const& events) = 0;
    // After seq since, oldest first; category < 0 for all, address < 0 for every device.
    virtual std::vector<EventRecord> events(long long since, unsigned int limit, int category, long long address) = 0;
    virtual void addStatistics(StatisticsSample const& sample) = 0;
    virtual std::vector<StatisticsSample> statistics(long long since, unsigned int limit, long long address) = 0;
};

// SQLite in WAL mode at path (created with its schema, or migrated to the current version).
// Throws ToolError naming the file when it cannot be opened or is not a store.
std::unique_ptr<FleetStore> openSqliteStore(std::string const& path);

#endif

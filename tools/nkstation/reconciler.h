#ifndef NK_STATION_RECONCILER_H
#define NK_STATION_RECONCILER_H

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>

#include <asio.hpp>
#include <nlohmann/json.hpp>

#include "broker_station.h"
#include "desired_state.h"
#include "dial_out.h"
#include "fleet_store.h"
#include "image_store.h"

// Keeps every panel at its desired state. For each device it asks for the state, compares the
// checksums, the name and the image set with what the device should hold, pushes what differs in
// the order that keeps the panel consistent (new images first, since the configuration and the
// schedules show them; then configuration, schedules, name; removals of images last, once
// nothing refers to them), verifies each push with the checksum or the state the panel returns
// and then with a new state, and retries failures with exponential back-off. Work runs with bounded concurrency;
// state is polled when a panel comes online, after every push and at a settable interval.
// Events (deduplicated) and statistics samples are collected on the same round at their own
// interval. Everything runs on the io_context's thread; the store is written through on every
// change, so a restarted station resumes from what it kept. A device's transport says how it is
// reached: "mqtt" through the broker, "tcp" by the station's own connection to its endpoint
// (DialOut); both are worked on alike.
class Reconciler
{
public:
    struct Options
    {
        unsigned int maxConcurrent = 64;
        unsigned int requestTimeout_s = 10;
        std::chrono::seconds statePollInterval{300};
        std::chrono::seconds collectInterval{300};
        std::chrono::milliseconds retryMin{2000};
        std::chrono::milliseconds retryMax{300000};
    };
    // A change for the event stream: {"kind": ..., ...}.
    using ChangeHandler = std::function<void(nlohmann::json const& change)>;

    // broker may be null: a station without one reaches its dial-out panels only.
    Reconciler(asio::io_context& io, FleetStore& store, ImageStore& images, BrokerStation* broker, DialOut& dialOut,
               Options options);

    void onChange(ChangeHandler handler) { m_onChange = std::move(handler); }
    void start();

    // After the desired state of a group or device changed: every device concerned is looked at again.
    void desiredChanged();
    void deviceChanged(unsigned int address);
    void presence(unsigned int address, bool online);
    // A panel's online flag on the broker; ignored while the panel is dialled out.
    void brokerPresence(unsigned int address, bool online);
    void brokerConnection(bool connected);
    // A dial-out panel's connection is up, or down (or cannot be made) for reason; refused says
    // the panel was reached but refused (a certificate, TLS on one side only): it is shown
    // failed with the reason rather than offline.
    void linkUp(unsigned int address);
    void linkDown(unsigned int address, std::string const& reason, bool refused);

    std::map<unsigned int, DeviceRecord> const& devices() const { return m_devices; }
    EffectiveDesired desiredFor(DeviceRecord const& device);
    // Registers a device not yet heard of, or moves it to another group.
    void setGroup(unsigned int address, std::string const& group);
    // Registers a device, or changes how it is reached: transport "tcp" with its endpoint
    // (HOST:PORT), which the station dials from then on, or "mqtt" (endpoint empty).
    void setLink(unsigned int address, std::string const& transport, std::string const& endpoint);
    unsigned int inFlight() const { return m_inFlight; }
    std::size_t queued() const { return m_ready.size(); }

private:
    struct Job;
    void enqueue(unsigned int address);
    void pump();
    void begin(unsigned int address);
    void pollState(std::shared_ptr<Job> job, char const* after);
    void decide(std::shared_ptr<Job> job);
    void nextStep(std::shared_ptr<Job> job);
    void pushImage(std::shared_ptr<Job> job);
    void removeImages(std::shared_ptr<Job> job);
    void pushConfig(std::shared_ptr<Job> job);
    void pushSchedules(std::shared_ptr<Job> job);
    void pushName(std::shared_ptr<Job> job);
    void collect(std::shared_ptr<Job> job);
    void collectDisplays(std::shared_ptr<Job> job);
    void finish(std::shared_ptr<Job> job, std::string const& status, std::string const& error);
    // Sends a request by the device's transport; handler runs once, later.
    void ask(unsigned int address, nk_message& message, BrokerStation::ResponseHandler handler);
    // The status of a device that is not online and not being worked on.
    void settleOffline(DeviceRecord& device, std::string const& error);
    void setStatus(DeviceRecord& device, std::string const& status, std::string const& error);
    void save(DeviceRecord const& device);
    void tick();
    long long nowMs() const;

    asio::io_context& m_io;
    FleetStore& m_store;
    ImageStore& m_images;
    BrokerStation* m_broker;
    DialOut& m_dialOut;
    Options m_options;
    ChangeHandler m_onChange;
    std::map<unsigned int, DeviceRecord> m_devices;
    std::map<unsigned int, long long> m_lastPoll_ms;
    std::map<unsigned int, long long> m_lastCollect_ms;
    std::deque<unsigned int> m_ready;
    std::set<unsigned int> m_queued;
    std::set<unsigned int> m_busy;
    std::set<unsigned int> m_again;  // changed while busy: looked at again when done
    std::map<unsigned int, bool> m_brokerOnline;      // the broker's flags, also of dial-out panels
    std::map<unsigned int, std::string> m_refusedLinks;  // dial-out panels that refused the station
    unsigned int m_inFlight = 0;
    asio::steady_timer m_timer;
};

#endif

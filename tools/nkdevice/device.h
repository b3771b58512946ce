#ifndef NK_TOOLS_DEVICE_H
#define NK_TOOLS_DEVICE_H

#include <memory>
#include <string>

#include "device_job.h"
#include "device_store.h"
#include "image_stream.h"
#include "nkProtocol.h"
#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"

// The state a reference display device holds and persists in its data directory, and the
// dispatch of one received request to the handler of its family. Runs on the polling thread
// only: the engines' receive callbacks call handle().
class Device
{
public:
    enum EventType : unsigned short
    {
        EVENT_STARTED = 1,
        EVENT_REQUEST = 2,
        EVENT_ERROR = 3,
        EVENT_TIME_SET = 4,
        EVENT_STOPPED = 5,
    };
    // Categories 0 and 1 carry the colours of the events response; the rest have none.
    enum EventCategory : unsigned char
    {
        CATEGORY_ERROR = 0,
        CATEGORY_NOTICE = 1,
        CATEGORY_INFO = 2,
    };

    struct Counters
    {
        unsigned int imgUpdateCount = 0;
        unsigned int requests = 0;
        unsigned int errors = 0;
        unsigned int configUpdates = 0;
        unsigned int scheduleUpdates = 0;
    };

    Device(DeviceStore& store, unsigned int address, unsigned int serial);
    ~Device();
    Device(Device const&) = delete;
    Device& operator=(Device const&) = delete;

    // Reads what the data directory holds. Unreadable files are reported as error events
    // and replaced by defaults on the next change.
    void load();

    // One received request: the serialized answer is left in content, or content is emptied
    // when there is nothing to answer. A refused request is recorded as an error event that
    // says why (see readRequest).
    void handle(unsigned int source, tBlob* content, std::string const& peer);
    // The same in two steps for a server that keeps its links served while heavy work runs:
    // either the answer is left in content (or nothing) and null is returned, or content is
    // emptied and the job that does the work is returned (see DeviceJob).
    std::unique_ptr<DeviceJob> begin(unsigned int source, tBlob* content, std::string const& peer);
    // An IMAGE request whose file was written while it arrived (see ImageStreamReceiver): as
    // begin gives for the same request, the job that checks and stores it, or null when it
    // was refused.
    std::unique_ptr<DeviceJob> beginStreamedImage(StreamedImageRequest request, std::string const& peer);

    DeviceStore& store() { return m_store; }
    unsigned int address() const { return m_address; }
    unsigned int serial() const { return m_serial; }

    nk_messageSetConfigReq& config() { return *m_config; }
    bool saveConfig();

    nk_messageSetSchedulesReq& schedules() { return *m_schedules; }
    nk_message::teVersion schedulesVersion() const { return m_schedulesVersion; }
    // Writes file (the set serialized in version) and puts schedules in force; false, and
    // nothing changed, when the file cannot be written.
    bool replaceSchedules(std::unique_ptr<nk_messageSetSchedulesReq> schedules, nk_message::teVersion version,
                          tBlob const& file);

    nk_messageEventsRsp& events() { return *m_events; }
    void recordEvent(EventType type, EventCategory category, tString const& text,
                     tString const& refImage = tString());

    Counters& counters() { return m_counters; }

    // The event log and the counters change with every request; they are written by
    // flushLog, which the server calls batched (at most about once a second) and on stop,
    // not on every request: flash wears. Configuration, schedules, images and the clock are
    // written at once, before their answer confirms them.
    bool logChanged() const { return m_eventsChanged || m_countersChanged; }
    bool flushLog();

    // The device clock: the host's clock plus the offset that the last TIME message set.
    long long clock() const;
    long long clockOffset() const { return m_clockOffset; }
    bool setClockOffset(long long offset);

    // The state response: serial, names, both checksums, the images held.
    std::unique_ptr<nk_messageStateRsp> stateResponse(nk_message::teVersion version);

    void requestShutdown() { m_shutdownRequested = true; }

    // A deliberately faulty device, for testing stations: it confirms a configuration with a
    // checksum other than that of what it holds.
    void setConfirmsWrongChecksum(bool on) { m_confirmsWrongChecksum = on; }
    bool confirmsWrongChecksum() const { return m_confirmsWrongChecksum; }
    // The configuration checksum the device reports (in its state and when confirming): that
    // of what it holds, unless it is deliberately faulty.
    tString reportedConfigChecksum(nk_message::teVersion version) const;
    bool shutdownRequested() const { return m_shutdownRequested; }

private:
    std::unique_ptr<DeviceJob> beginImage(unsigned int source, tBlob* content, std::string const& peer);
    std::unique_ptr<nk_message> dispatch(nk_message& request);
    void loadConfig();
    void loadSchedules();
    void loadEvents();
    void loadCounters();
    void loadClock();
    bool saveCounters();

    DeviceStore& m_store;
    unsigned int m_address;
    unsigned int m_serial;
    std::unique_ptr<nk_messageSetConfigReq> m_config;
    std::unique_ptr<nk_messageSetSchedulesReq> m_schedules;
    nk_message::teVersion m_schedulesVersion = nk_message::VERSION_2;
    std::unique_ptr<nk_messageEventsRsp> m_events;
    unsigned int m_nextEventId = 1;
    Counters m_counters;
    long long m_clockOffset = 0;
    bool m_shutdownRequested = false;
    bool m_confirmsWrongChecksum = false;
    bool m_eventsChanged = false;
    bool m_countersChanged = false;
};

#endif

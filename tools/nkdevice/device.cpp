#include "device.h"

#include "handlers.h"
#include "request_reader.h"

namespace
{
const char* const kConfigFile = "config.bin";
const char* const kSchedulesFile = "schedules.bin";
const char* const kEventsFile = "events.json";
const char* const kCountersFile = "statistics.json";
const char* const kClockFile = "clock.json";

std::unique_ptr<nk_message> readMessage(DeviceStore& store, char const* name, nk_message::teType expected)
{
    tBlob bytes;
    if (!store.read(name, bytes) || bytes.size() < 4) return nullptr;
    const unsigned int type = bytes.getBuffer()[0] | (bytes.getBuffer()[1] << 8);
    if (type != expected) return nullptr;
    return std::unique_ptr<nk_message>(nk_message::getMessage(&bytes));
}
}

Device::Device(DeviceStore& store, unsigned int address, unsigned int serial)
    : m_store(store),
      m_address(address),
      m_serial(serial),
      m_config(new nk_messageSetConfigReq(nk_message::VERSION_3)),
      m_schedules(new nk_messageSetSchedulesReq(nk_message::VERSION_2)),
      m_events(new nk_messageEventsRsp(nk_message::VERSION_0, nullptr, nullptr))
{
}

Device::~Device()
{
    flushLog();
}

void Device::load()
{
    loadEvents();
    loadCounters();
    loadClock();
    loadConfig();
    loadSchedules();
}

void Device::loadConfig()
{
    if (!tFile::exists(tString(m_store.path(kConfigFile)))) return;
    std::unique_ptr<nk_message> stored = readMessage(m_store, kConfigFile, nk_message::SET_CONFIG_REQ);
    if (!stored) {
        recordEvent(EVENT_ERROR, CATEGORY_ERROR, "stored configuration is unreadable; defaults in force");
        return;
    }
    m_config->setConfigFrom(static_cast<nk_messageSetConfigReq*>(stored.get()));
}

void Device::loadSchedules()
{
    if (!tFile::exists(tString(m_store.path(kSchedulesFile)))) return;
    std::unique_ptr<nk_message> stored = readMessage(m_store, kSchedulesFile, nk_message::SET_SCHEDULES_REQ);
    if (!stored) {
        recordEvent(EVENT_ERROR, CATEGORY_ERROR, "stored schedules are unreadable; no schedules in force");
        return;
    }
    m_schedulesVersion = stored->version();
    m_schedules.reset(static_cast<nk_messageSetSchedulesReq*>(stored.release()));
}

void Device::loadEvents()
{
    tJson json;
    if (!m_store.readJson(kEventsFile, json)) return;
    m_events->serializeFromJson(&json);
    for (unsigned int i = 0; nk_messageEvent* event = m_events->getEvent(i); ++i)
        if (event->id() >= m_nextEventId) m_nextEventId = event->id() + 1;
}

void Device::loadCounters()
{
    tJson json;
    if (!m_store.readJson(kCountersFile, json)) return;
    m_counters.imgUpdateCount = static_cast<unsigned int>(json.getUInt("imgUpdateCount"));
    m_counters.requests = static_cast<unsigned int>(json.getUInt("requests"));
    m_counters.errors = static_cast<unsigned int>(json.getUInt("errors"));
    m_counters.configUpdates = static_cast<unsigned int>(json.getUInt("configUpdates"));
    m_counters.scheduleUpdates = static_cast<unsigned int>(json.getUInt("scheduleUpdates"));
}

void Device::loadClock()
{
    tJson json;
    if (m_store.readJson(kClockFile, json)) m_clockOffset = json.getInt("offset");
}

bool Device::saveConfig()
{
    nk_serializer bytes;
    return m_config->serializeMsg(&bytes) && m_store.write(kConfigFile, bytes);
}

bool Device::replaceSchedules(std::unique_ptr<nk_messageSetSchedulesReq> schedules, nk_message::teVersion version,
                              tBlob const& file)
{
    if (!m_store.write(kSchedulesFile, file)) return false;
    m_schedules = std::move(schedules);
    m_schedulesVersion = version;
    return true;
}

bool Device::flushLog()
{
    bool ok = true;
    if (m_eventsChanged) {
        tJson json;
        m_events->serializeToJson(&json);
        ok = m_store.writeJson(kEventsFile, json) && ok;
        m_eventsChanged = false;
    }
    if (m_countersChanged) {
        ok = saveCounters() && ok;
        m_countersChanged = false;
    }
    return ok;
}

bool Device::saveCounters()
{
    tJson json;
    json.addUInt("imgUpdateCount", m_counters.imgUpdateCount);
    json.addUInt("requests", m_counters.requests);
    json.addUInt("errors", m_counters.errors);
    json.addUInt("configUpdates", m_counters.configUpdates);
    json.addUInt("scheduleUpdates", m_counters.scheduleUpdates);
    return m_store.writeJson(kCountersFile, json);
}

long long Device::clock() const
{
    return tTime::now() + m_clockOffset;
}

bool Device::setClockOffset(long long offset)
{
    m_clockOffset = offset;
    tJson json;
    json.addInt("offset", offset);
    return m_store.writeJson(kClockFile, json);
}

void Device::recordEvent(EventType type, EventCategory category, tString const& text, tString const& refImage)
{
    const unsigned int now = static_cast<unsigned int>(clock());
    // The field-wise addEvent keeps the log at the events response's cap, dropping the oldest.
    m_events->addEvent(now, now, m_nextEventId++, type, text, category, nullptr, 1, refImage);
    if (type == EVENT_ERROR) ++m_counters.errors;
    m_eventsChanged = true;
    m_countersChanged = true;
}

tString Device::reportedConfigChecksum(nk_message::teVersion version) const
{
    tString held = m_config->checksum(version);
    if (!m_confirmsWrongChecksum || held.isEmpty()) return held;
    std::string wrong = held.str();
    wrong[0] = wrong[0] == '0' ? '1' : '0';
    return tString(wrong);
}

std::unique_ptr<nk_messageStateRsp> Device::stateResponse(nk_message::teVersion version)
{
    std::unique_ptr<nk_messageStateRsp> state(new nk_messageStateRsp(version));
    const tUidList images = m_store.imageIds();
    state->set(m_serial, "nkdevice", reportedConfigChecksum(m_config->version()),
               m_schedules->checksum(m_schedulesVersion), m_counters.requests, 0, NK_TOOLS_VERSION,
               tString::fromUInt64(m_address), m_events->eventCount(), tString(), m_config->device_getName(),
               tString(), images);
    unsigned int flags = 0;
    if (m_config->timeSlot_count_ts() > 0 || m_config->frm_count() > 0 || !m_config->device_getName().isEmpty())
        flags |= 0x1;
    if (m_schedules->count() > 0) flags |= 0x2;
    if (!images.empty()) flags |= 0x4;
    state->setFlags(flags);
    return state;
}

std::unique_ptr<DeviceJob> Device::begin(unsigned int source, tBlob* content, std::string const& peer)
{
    ++m_counters.requests;
    m_countersChanged = true;
    if (content->size() >= 4 && (content->getBuffer()[0] | (content->getBuffer()[1] << 8)) == nk_message::IMAGE)
        return beginImage(source, content, peer);
    ReadRequest read = readRequest(*content);
    content->clear();
    if (!read.message) {
        recordEvent(EVENT_ERROR, CATEGORY_ERROR,
                    tString::format("request refused (type %u, version %u) from %u at %s: %s", read.type,
                                    read.version, source, peer.c_str(), read.refusal.c_str()));
        return nullptr;
    }
    recordEvent(EVENT_REQUEST, CATEGORY_INFO,
                tString::format("%s (version %u) from %u at %s", read.message->typeName().c_str(), read.version,
                                source, peer.c_str()));
    if (read.message->type() == nk_message::SET_SCHEDULES_REQ)
        return schedulesJob(std::unique_ptr<nk_messageSetSchedulesReq>(
            static_cast<nk_messageSetSchedulesReq*>(read.message.release())));
    Reply reply = dispatch(*read.message);
    if (!reply) return nullptr;
    nk_serializer bytes;
    if (reply->serializeMsg(&bytes)) content->append(bytes);
    return nullptr;
}

std::unique_ptr<DeviceJob> Device::beginImage(unsigned int source, tBlob* content, std::string const& peer)
{
    // Read in place: the contents stay where they arrived until they are stored.
    std::unique_ptr<ImageRequestView> image(new ImageRequestView);
    std::string refusal;
    const bool whole = readImageRequest(*content, newestLayout(nk_message::IMAGE), *image, refusal);
    const unsigned int version = image->version;
    if (!whole) {
        recordEvent(EVENT_ERROR, CATEGORY_ERROR,
                    tString::format("request refused (type %u, version %u) from %u at %s: %s",
                                    static_cast<unsigned int>(nk_message::IMAGE), version, source, peer.c_str(),
                                    refusal.c_str()));
        return nullptr;
    }
    recordEvent(EVENT_REQUEST, CATEGORY_INFO,
                tString::format("%s (version %u) from %u at %s", nk_message::typeName(nk_message::IMAGE).c_str(),
                                version, source, peer.c_str()));
    return imageJob(std::move(image));
}

std::unique_ptr<DeviceJob> Device::beginStreamedImage(StreamedImageRequest request, std::string const& peer)
{
    ++m_counters.requests;
    m_countersChanged = true;
    if (!request.refusal.empty()) {
        recordEvent(EVENT_ERROR, CATEGORY_ERROR,
                    tString::format("request refused (type %u, version %u) from %u at %s: %s",
                                    static_cast<unsigned int>(nk_message::IMAGE), request.version, request.source,
                                    peer.c_str(), request.refusal.c_str()));
        return nullptr;
    }
    recordEvent(EVENT_REQUEST, CATEGORY_INFO,
                tString::format("%s (version %u) from %u at %s", nk_message::typeName(nk_message::IMAGE).c_str(),
                                request.version, request.source, peer.c_str()));
    return streamedImageJob(request.file, std::move(request.content));
}

void Device::handle(unsigned int source, tBlob* content, std::string const& peer)
{
    std::unique_ptr<DeviceJob> job = begin(source, content, peer);
    if (!job) return;
    job->start(*this);
    job->work();
    job->finish(*this, *content);
}

std::unique_ptr<nk_message> Device::dispatch(nk_message& request)
{
    switch (request.type()) {
    case nk_message::SET_CONFIG_REQ: return handleConfig(*this, static_cast<nk_messageSetConfigReq&>(request));
    case nk_message::STATE_REQ: return handleState(*this, static_cast<nk_messageStateReq&>(request));
    case nk_message::EVENTS_REQ: return handleEvents(*this, static_cast<nk_messageEventsReq&>(request));
    case nk_message::STATISTICS_REQ:
        return handleStatistics(*this, static_cast<nk_messageStatisticsReq&>(request));
    case nk_message::GET_DISPLAY_CONFIGURATION_REQ:
        return handleDisplayConfiguration(*this, static_cast<nk_messageGetDisplayConfigurationReq&>(request));
    case nk_message::TIME: return handleTime(*this, static_cast<nk_messageTime&>(request));
    case nk_message::SHUTDOWN: return handleShutdown(*this, static_cast<nk_messageShutdown&>(request));
    case nk_message::GENERIC_REQ: return handleGeneric(*this, static_cast<nk_messageGenericReq&>(request));
    default:
        recordEvent(EVENT_ERROR, CATEGORY_ERROR,
                    tString::format("unexpected %s: a device answers requests only", request.typeName().c_str()));
        return nullptr;
    }
}

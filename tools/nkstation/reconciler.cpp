#include "reconciler.h"

#include "nk_messageDisplayConfiguration.h"
#include "nk_messageEvents.h"
#include "nk_messageImage.h"
#include "nk_messageState.h"
#include "nk_messageStatistics.h"
#include "station.h"
#include "tool_error.h"

struct Reconciler::Job
{
    unsigned int address = 0;
    EffectiveDesired desired;
    bool collectDue = false;
    std::string pushed;  // what this round pushed, for the reason of a failed verification
    std::vector<DesiredImage> imagesToPush;
    std::size_t nextImage = 0;
    std::vector<std::uint64_t> imagesToRemove;
    bool namePushed = false;
    bool removalsDone = false;

    void didPush(std::string const& what)
    {
        if (pushed.find(what) == std::string::npos) pushed += (pushed.empty() ? "" : ", ") + what;
    }
};

namespace
{
std::unique_ptr<nk_message> answerOf(tBlob* content, nk_message::teType expected, std::string& error)
{
    if (!content) return nullptr;
    std::unique_ptr<nk_message> message = decodeMessage(content, error);
    if (message && message->type() != expected) {
        error = "unexpected answer of type " + std::to_string(static_cast<unsigned int>(message->type()));
        message.reset();
    }
    return message;
}
}

Reconciler::Reconciler(asio::io_context& io, FleetStore& store, ImageStore& images, BrokerStation* broker,
                       DialOut& dialOut, Options options)
    : m_io(io),
      m_store(store),
      m_images(images),
      m_broker(broker),
      m_dialOut(dialOut),
      m_options(options),
      m_timer(io)
{
}

void Reconciler::ask(unsigned int address, nk_message& message, BrokerStation::ResponseHandler handler)
{
    if (m_devices[address].transport == "tcp") {
        m_dialOut.request(address, message, m_options.requestTimeout_s, std::move(handler));
        return;
    }
    if (!m_broker || !m_broker->request(address, message, m_options.requestTimeout_s, handler)) {
        char const* why = m_broker ? "the request could not be written" : "the station has no broker (--mqtt)";
        asio::post(m_io, [handler = std::move(handler), why] { handler(nullptr, why); });
    }
}

long long Reconciler::nowMs() const
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void Reconciler::start()
{
    // Nothing is known about presence until the broker hands over the retained flags; a device
    // that was being pushed to resumes when its flag says it is online.
    for (DeviceRecord& device : m_store.devices()) {
        device.online = false;
        m_devices[device.address] = device;
        if (device.transport == "tcp" && !device.endpoint.empty())
            m_dialOut.add(device.address, parseEndpoint(device.endpoint, "127.0.0.1"));
    }
    tick();
}

EffectiveDesired Reconciler::desiredFor(DeviceRecord const& device)
{
    return resolveDesired(m_store.desired(FleetStore::GROUP, device.group),
                          m_store.desired(FleetStore::DEVICE, std::to_string(device.address)));
}

void Reconciler::save(DeviceRecord const& device)
{
    m_store.putDevice(device);
    if (m_onChange)
        m_onChange({{"kind", "device"},
                    {"address", device.address},
                    {"status", device.status},
                    {"online", device.online},
                    {"error", device.lastError}});
}

void Reconciler::setStatus(DeviceRecord& device, std::string const& status, std::string const& error)
{
    device.status = status;
    device.lastError = error;
}

void Reconciler::setGroup(unsigned int address, std::string const& group)
{
    DeviceRecord& device = m_devices[address];
    device.address = address;
    device.group = group;
    save(device);
    deviceChanged(address);
}

void Reconciler::setLink(unsigned int address, std::string const& transport, std::string const& endpoint)
{
    DeviceRecord& device = m_devices[address];
    device.address = address;
    const bool wasTcp = device.transport == "tcp";
    const bool moved = !wasTcp || device.endpoint != endpoint;
    device.transport = transport;
    device.endpoint = transport == "tcp" ? endpoint : std::string();
    // A refusal was the old link's; the same one again is not told anew (DialOut::add keeps it).
    if (moved || transport != "tcp") m_refusedLinks.erase(address);
    if (transport == "tcp") {
        // Online once the connection to the new endpoint is made.
        if (moved && device.online) presence(address, false);
        save(device);
        m_dialOut.add(address, parseEndpoint(endpoint, "127.0.0.1"));
        return;
    }
    m_dialOut.remove(address);
    save(device);
    // Back on the broker: what its flag said meanwhile holds.
    if (wasTcp) {
        auto flag = m_brokerOnline.find(address);
        presence(address, flag != m_brokerOnline.end() && flag->second);
    }
}

void Reconciler::brokerPresence(unsigned int address, bool online)
{
    m_brokerOnline[address] = online;
    auto known = m_devices.find(address);
    if (known != m_devices.end() && known->second.transport == "tcp") return;
    presence(address, online);
}

void Reconciler::linkUp(unsigned int address)
{
    m_refusedLinks.erase(address);
    presence(address, true);
}

void Reconciler::linkDown(unsigned int address, std::string const& reason, bool refused)
{
    DeviceRecord& device = m_devices[address];
    device.address = address;
    device.online = false;
    device.onlineSince_ms = 0;
    if (refused) m_refusedLinks[address] = reason;
    else m_refusedLinks.erase(address);
    // A round at work ends on the failure of its request and settles the status then.
    if (m_busy.count(address) == 0) settleOffline(device, reason);
    save(device);
}

void Reconciler::settleOffline(DeviceRecord& device, std::string const& error)
{
    auto refusal = m_refusedLinks.find(device.address);
    if (refusal != m_refusedLinks.end()) {
        setStatus(device, "failed", refusal->second);
        return;
    }
    const EffectiveDesired desired = desiredFor(device);
    const bool waiting = desired.anything() && !describeDifference(device, desired).empty();
    setStatus(device, waiting ? "pending" : "offline", error);
}

void Reconciler::presence(unsigned int address, bool online)
{
    DeviceRecord& device = m_devices[address];
    const bool known = device.address == address && (device.reported || device.lastSeen_ms != 0);
    device.address = address;
    if (online && !device.online) device.onlineSince_ms = nowMs();
    if (!online) device.onlineSince_ms = 0;
    device.online = online;
    if (online) {
        device.lastSeen_ms = nowMs();
        device.attempts = 0;
        device.nextAttempt_ms = 0;
        save(device);
        enqueue(address);
        return;
    }
    if (!known && !online && device.lastSeen_ms == 0) device.lastSeen_ms = 0;
    if (m_busy.count(address) == 0) {
        const EffectiveDesired desired = desiredFor(device);
        const bool waiting = desired.anything() && !describeDifference(device, desired).empty();
        settleOffline(device, waiting ? device.lastError : std::string());
    }
    save(device);
}

void Reconciler::brokerConnection(bool connected)
{
    if (m_onChange) m_onChange({{"kind", "broker"}, {"connected", connected}});
}

void Reconciler::desiredChanged()
{
    for (auto& entry : m_devices) deviceChanged(entry.first);
}

void Reconciler::deviceChanged(unsigned int address)
{
    DeviceRecord& device = m_devices[address];
    device.address = address;
    if (device.online) {
        device.attempts = 0;
        device.nextAttempt_ms = 0;
        enqueue(address);
        return;
    }
    if (m_busy.count(address) > 0) return;
    const std::string status = device.status;
    settleOffline(device, device.lastError);
    if (status != device.status) save(device);
}

void Reconciler::enqueue(unsigned int address)
{
    if (m_busy.count(address) > 0) {
        m_again.insert(address);
        return;
    }
    if (m_queued.insert(address).second) m_ready.push_back(address);
    pump();
}

void Reconciler::pump()
{
    while (m_inFlight < m_options.maxConcurrent && !m_ready.empty()) {
        const unsigned int address = m_ready.front();
        m_ready.pop_front();
        m_queued.erase(address);
        if (!m_devices[address].online) continue;
        begin(address);
    }
}

void Reconciler::begin(unsigned int address)
{
    m_busy.insert(address);
    ++m_inFlight;
    auto job = std::make_shared<Job>();
    job->address = address;
    DeviceRecord& device = m_devices[address];
    try {
        job->desired = desiredFor(device);
    } catch (ToolError const& e) {
        // Stored desired state is checked before it is stored; this guards a store edited by hand.
        finish(job, "failed", std::string("desired state unreadable: ") + e.what());
        return;
    }
    auto last = m_lastCollect_ms.find(address);
    job->collectDue = last == m_lastCollect_ms.end() ||
                      nowMs() - last->second >= std::chrono::duration_cast<std::chrono::milliseconds>(
                                                     m_options.collectInterval).count();
    pollState(job, nullptr);
}

void Reconciler::pollState(std::shared_ptr<Job> job, char const* after)
{
    nk_messageStateReq request(nk_message::VERSION_2);
    ask(job->address, request, [this, job, after](tBlob* content, std::string const& why) {
                          std::string error = why;
                          auto answer = answerOf(content, nk_message::STATE_RSP, error);
                          if (!answer) {
                              finish(job, "failed", "state request: " + error);
                              return;
                          }
                          auto& state = static_cast<nk_messageStateRsp&>(*answer);
                          DeviceRecord& device = m_devices[job->address];
                          device.reported = true;
                          device.serial = state.serial();
                          device.csCfg = state.csCfg().str();
                          device.csSched = state.csSched().str();
                          device.name = state.devName().str();
                          device.images.assign(state.images().begin(), state.images().end());
                          // An image the panel no longer holds is no longer one this station pushed.
                          for (auto it = device.pushedImages.begin(); it != device.pushedImages.end();)
                              it = state.imageUidPresent(it->first) ? std::next(it) : device.pushedImages.erase(it);
                          device.flags = state.flags();
                          device.version = state.vc().str();
                          device.extState = state.extState();
                          device.lastSeen_ms = nowMs();
                          m_lastPoll_ms[job->address] = device.lastSeen_ms;
                          if (!after) {
                              decide(job);
                              return;
                          }
                          const std::string difference = describeDifference(device, job->desired);
                          if (!difference.empty()) {
                              finish(job, "failed",
                                     "after pushing " + job->pushed + " the panel still differs in " + difference);
                              return;
                          }
                          collect(job);
                      });
}

void Reconciler::decide(std::shared_ptr<Job> job)
{
    DeviceRecord& device = m_devices[job->address];
    const std::string difference = describeDifference(device, job->desired);
    if (difference.empty()) {
        collect(job);
        return;
    }
    setStatus(device, "pushing", std::string());
    save(device);
    job->imagesToPush = imagesToPush(device, job->desired);
    job->imagesToRemove = imagesToRemove(device, job->desired);
    nextStep(job);
}

// One push at a time, in the order that keeps the panel consistent: the images that the
// configuration and the schedules show first, removals last.
void Reconciler::nextStep(std::shared_ptr<Job> job)
{
    DeviceRecord& device = m_devices[job->address];
    EffectiveDesired const& desired = job->desired;
    if (job->nextImage < job->imagesToPush.size()) pushImage(job);
    else if (desired.config && device.csCfg != desired.csCfg) pushConfig(job);
    else if (desired.schedules && device.csSched != desired.csSched) pushSchedules(job);
    else if (desired.name && !desired.config && device.name != *desired.name && !job->namePushed) pushName(job);
    else if (!job->imagesToRemove.empty() && !job->removalsDone) removeImages(job);
    else pollState(job, "push");
}

void Reconciler::pushImage(std::shared_ptr<Job> job)
{
    const DesiredImage image = job->imagesToPush[job->nextImage];
    const std::string label = "image " + std::to_string(image.uid);
    const std::optional<ImageRecord> record = m_store.image(image.image);
    std::shared_ptr<std::string const> content = record ? m_images.content(image.image) : nullptr;
    if (!content) {
        finish(job, "failed", label + ": content " + image.image + " is missing from the station's image store");
        return;
    }
    nk_messageImage request(nk_message::VERSION_3);
    tBlob bytes(reinterpret_cast<unsigned char const*>(content->data()), static_cast<unsigned int>(content->size()));
    request.add(image.uid, tString(record->name), tString(record->type), &bytes);
    job->didPush("images");
    // IMAGE has no response of its own: the panel answers with its state, listing what it holds.
    ask(job->address, request, [this, job, image, label](tBlob* content, std::string const& why) {
                          std::string error = why;
                          auto answer = answerOf(content, nk_message::STATE_RSP, error);
                          if (!answer) {
                              finish(job, "failed", label + " push: " + error);
                              return;
                          }
                          auto& state = static_cast<nk_messageStateRsp&>(*answer);
                          DeviceRecord& device = m_devices[job->address];
                          device.images.assign(state.images().begin(), state.images().end());
                          if (!state.imageUidPresent(image.uid)) {
                              finish(job, "failed", label + " was not stored by the panel (see its events)");
                              return;
                          }
                          device.pushedImages[image.uid] = image.image;
                          save(device);
                          ++job->nextImage;
                          nextStep(job);
                      });
}

void Reconciler::removeImages(std::shared_ptr<Job> job)
{
    nk_messageImage request(nk_message::VERSION_3);
    request.taskRemove = 1;
    for (std::uint64_t uid : job->imagesToRemove) request.add(uid, tString(), tString("image/png"));
    job->removalsDone = true;
    job->didPush("image removals");
    ask(job->address, request, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        auto answer = answerOf(content, nk_message::STATE_RSP, error);
        if (!answer) {
            finish(job, "failed", "image removal: " + error);
            return;
        }
        auto& state = static_cast<nk_messageStateRsp&>(*answer);
        DeviceRecord& device = m_devices[job->address];
        device.images.assign(state.images().begin(), state.images().end());
        std::string kept;
        for (std::uint64_t uid : job->imagesToRemove) {
            if (state.imageUidPresent(uid)) kept += (kept.empty() ? "" : ", ") + std::to_string(uid);
            else device.pushedImages.erase(uid);
        }
        if (!kept.empty()) {
            finish(job, "failed", "image removal: the panel still holds " + kept);
            return;
        }
        nextStep(job);
    });
}

void Reconciler::pushConfig(std::shared_ptr<Job> job)
{
    std::unique_ptr<nk_messageSetConfigReq> config;
    try {
        config = configFromJson(*job->desired.config, job->desired.name);
    } catch (ToolError const& e) {
        finish(job, "failed", e.what());
        return;
    }
    job->didPush("configuration");
    ask(job->address, *config, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        auto answer = answerOf(content, nk_message::SET_CONFIG_RSP, error);
        if (!answer) {
            finish(job, "failed", "configuration push: " + error);
            return;
        }
        const std::string held = static_cast<nk_messageSetConfigRsp&>(*answer).getChecksum().str();
        if (held != job->desired.csCfg) {
            finish(job, "failed",
                   "configuration checksum mismatch: panel holds " + held + ", sent " + job->desired.csCfg);
            return;
        }
        m_devices[job->address].csCfg = held;
        nextStep(job);
    });
}

void Reconciler::pushSchedules(std::shared_ptr<Job> job)
{
    std::unique_ptr<nk_messageSetSchedulesReq> set;
    try {
        set = schedulesFromJsonText(*job->desired.schedules);
    } catch (ToolError const& e) {
        finish(job, "failed", e.what());
        return;
    }
    job->didPush("schedules");
    ask(job->address, *set, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        auto answer = answerOf(content, nk_message::SET_SCHEDULES_RSP, error);
        if (!answer) {
            finish(job, "failed", "schedules push: " + error);
            return;
        }
        const std::string held = static_cast<nk_messageSetSchedulesRsp&>(*answer).getChecksum().str();
        if (held != job->desired.csSched) {
            finish(job, "failed", "schedules checksum mismatch: panel holds " + held + ", sent " + job->desired.csSched);
            return;
        }
        m_devices[job->address].csSched = held;
        nextStep(job);
    });
}

void Reconciler::pushName(std::shared_ptr<Job> job)
{
    nk_messageStateReq request(nk_message::VERSION_2);
    request.setTaskNewName(tString(*job->desired.name));
    job->namePushed = true;
    job->didPush("name");
    ask(job->address, request, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        if (!answerOf(content, nk_message::STATE_RSP, error)) {
            finish(job, "failed", "name push: " + error);
            return;
        }
        nextStep(job);
    });
}

void Reconciler::collect(std::shared_ptr<Job> job)
{
    if (!job->collectDue) {
        finish(job, "in sync", std::string());
        return;
    }
    nk_messageEventsReq request(nk_message::VERSION_2);
    ask(job->address, request, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        auto answer = answerOf(content, nk_message::EVENTS_RSP, error);
        if (answer) {
            auto& events = static_cast<nk_messageEventsRsp&>(*answer);
            std::vector<EventRecord> records;
            for (unsigned int i = 0; nk_messageEvent* event = events.getEvent(i); ++i) {
                EventRecord record;
                record.address = job->address;
                record.eventId = event->id();
                record.time = event->timeFirst();
                record.category = event->category();
                record.type = event->type();
                record.text = event->eventMessage().str();
                records.push_back(std::move(record));
            }
            const unsigned int added = m_store.addEvents(records);
            if (added > 0 && m_onChange) m_onChange({{"kind", "events"}, {"address", job->address}, {"new", added}});
        }
        nk_messageStatisticsReq statistics(nk_message::VERSION_1);
        ask(job->address, statistics, [this, job](tBlob* content, std::string const& why) {
                              std::string error = why;
                              auto answer = answerOf(content, nk_message::STATISTICS_RSP, error);
                              if (answer) {
                                  tJson json;
                                  answer->serializeToJson(&json);
                                  StatisticsSample sample;
                                  sample.address = job->address;
                                  sample.time_ms = nowMs();
                                  sample.json = json.getJson(false).str();
                                  m_store.addStatistics(sample);
                                  m_lastCollect_ms[job->address] = sample.time_ms;
                              }
                              collectDisplays(job);
                          });
    });
}

// The panel's display configurations and logical displays, for the dashboard; kept in memory
// with the rest of the last reported state.
void Reconciler::collectDisplays(std::shared_ptr<Job> job)
{
    nk_messageGetDisplayConfigurationReq request(nk_message::VERSION_1);
    ask(job->address, request, [this, job](tBlob* content, std::string const& why) {
        std::string error = why;
        auto answer = answerOf(content, nk_message::GET_DISPLAY_CONFIGURATION_RSP, error);
        if (answer) {
            tJson json;
            answer->serializeToJson(&json);
            m_devices[job->address].displaysJson = json.getJson(false).str();
        }
        finish(job, "in sync", std::string());
    });
}

void Reconciler::finish(std::shared_ptr<Job> job, std::string const& status, std::string const& error)
{
    DeviceRecord& device = m_devices[job->address];
    if (status == "failed") {
        ++device.attempts;
        const long long base = m_options.retryMin.count();
        const long long delay =
            std::min<long long>(base << std::min<unsigned int>(device.attempts - 1, 20), m_options.retryMax.count());
        device.nextAttempt_ms = nowMs() + delay;
        // A panel that went away during the round keeps its work waiting (unless it refused the
        // station, which no waiting mends).
        if (device.online) setStatus(device, "failed", error);
        else if (m_refusedLinks.count(job->address)) settleOffline(device, error);
        else setStatus(device, "pending", error);
    } else {
        device.attempts = 0;
        device.nextAttempt_ms = 0;
        // A panel that went away while its last answers were on the way is offline, not in sync:
        // its presence arrived while the round was busy and left the status to this end.
        if (device.online) setStatus(device, status, error);
        else if (m_refusedLinks.count(job->address)) settleOffline(device, error);
        else setStatus(device, "offline", error);
    }
    save(device);
    m_busy.erase(job->address);
    --m_inFlight;
    if (m_again.erase(job->address) > 0) {
        device.attempts = 0;
        enqueue(job->address);
    }
    pump();
}

void Reconciler::tick()
{
    const long long now = nowMs();
    const long long pollEvery = std::chrono::duration_cast<std::chrono::milliseconds>(m_options.statePollInterval).count();
    for (auto& entry : m_devices) {
        DeviceRecord& device = entry.second;
        if (!device.online || m_busy.count(entry.first) || m_queued.count(entry.first)) continue;
        if (device.status == "failed") {
            if (now >= device.nextAttempt_ms) enqueue(entry.first);
            continue;
        }
        auto last = m_lastPoll_ms.find(entry.first);
        if (last == m_lastPoll_ms.end() || now - last->second >= pollEvery) enqueue(entry.first);
    }
    m_timer.expires_after(std::chrono::seconds(1));
    m_timer.async_wait([this](std::error_code ec) {
        if (!ec) tick();
    });
}

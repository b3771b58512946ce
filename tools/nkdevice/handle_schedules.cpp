#include "handlers.h"

namespace
{
// The merge of a received set into the one in force, its file and its checksum: the costly
// part of a large set, done by work() away from the links.
class SchedulesJob : public DeviceJob
{
public:
    explicit SchedulesJob(std::unique_ptr<nk_messageSetSchedulesReq> request) : m_request(std::move(request)) {}

    void start(Device& device) override
    {
        m_merged.reset(new nk_messageSetSchedulesReq(m_request->version()));
        m_merged->setSchedulesFrom(&device.schedules());
    }

    void work() override
    {
        // Unchanged schedules keep their run-time marks; changed ones are replaced and those
        // the station no longer sends are dropped.
        m_merged->setSchedulesFromWithoutClear(m_request.get());
        // The body is written in the version the station used, so that the checksum reported
        // after a restart is the one it was given.
        m_written = m_merged->serializeMsg(&m_bytes);
        m_checksum = m_merged->checksum(m_request->version());
    }

    void finish(Device& device, tBlob& answer) override
    {
        ++device.counters().scheduleUpdates;
        if (!m_written || !device.replaceSchedules(std::move(m_merged), m_request->version(), m_bytes)) {
            // No answer: a checksum would confirm what a restart would lose.
            device.recordEvent(Device::EVENT_ERROR, Device::CATEGORY_ERROR, "schedules could not be stored");
            return;
        }
        nk_messageSetSchedulesRsp reply(m_request->version());
        reply.setChecksum(m_checksum);
        nk_serializer bytes;
        if (reply.serializeMsg(&bytes)) answer.append(bytes);
    }

    std::string what() const override { return "schedule set"; }

private:
    std::unique_ptr<nk_messageSetSchedulesReq> m_request;
    std::unique_ptr<nk_messageSetSchedulesReq> m_merged;
    nk_serializer m_bytes;
    bool m_written = false;
    tString m_checksum;
};
}

std::unique_ptr<DeviceJob> schedulesJob(std::unique_ptr<nk_messageSetSchedulesReq> request)
{
    return std::unique_ptr<DeviceJob>(new SchedulesJob(std::move(request)));
}

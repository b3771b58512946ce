#ifndef NK_MESSAGESETCONFIG_H
#define NK_MESSAGESETCONFIG_H

#include <vector>

#include "nk_message.h"
#include "tCriticalSection.h"
#include "tFrame.h"
#include "tTimeSlot.h"

// SET_CONFIG_REQ (5): the whole configuration of one display device. The same object is the
// device's stored configuration: it can be copied from a received one, summarised by a
// checksum, and edited concurrently through the _ts and frame operations. Two locks, one for
// the time slots and one for the frames, are never held together. The plain numeric fields
// are read and written without a lock.
class NK_API nk_messageSetConfigReq : public nk_message
{
public:
    explicit nk_messageSetConfigReq(teVersion v);
    // Reads the body once; a short body leaves the sending defaults in the fields not reached.
    nk_messageSetConfigReq(nk_serializer* ser, teVersion v);
    ~nk_messageSetConfigReq() override;
    nk_messageSetConfigReq(nk_messageSetConfigReq const&) = delete;
    nk_messageSetConfigReq& operator=(nk_messageSetConfigReq const&) = delete;

    // Frames are part of the body from version 3 on.
    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    // SHA-1 text of the compact JSON form: what the device reports in SET_CONFIG_RSP.
    tString checksum(teVersion version);
    // Copies every field, the time slots with the sleep switch and the frames of other.
    // Version and type stay.
    void setConfigFrom(nk_messageSetConfigReq* other);

    tString operatingModeName() const;
    tString heatingModeName() const;

    unsigned short getCurrentDisplaySwConfig() const { return curDispSwCfg; }
    void setDisplaySwConfiguration(unsigned short cfg) { curDispSwCfg = cfg; }
    unsigned short getDefaultLogicalDisplay() const { return defaultLogicalDisplay; }
    void setDefaultLogicalDisplay(unsigned short id) { defaultLogicalDisplay = id; }
    unsigned short getSlideShowInterval_s() const { return slideshowInterval_sec; }
    // Keeps the interval at 5 s or more. Values from the wire and from JSON are stored as
    // they come: peers rely on seeing what they sent.
    void setSlideShowInterval_s(unsigned short s) { slideshowInterval_sec = s < 5 ? 5 : s; }

    bool sleep_getUserEnabled() const;
    void sleep_setUserEnabled(bool enable);

    tString const& device_getName() const { return m_deviceName; }
    // True only when the name changed.
    bool device_setName(tString const& name);

    void timeSlot_clear_ts();
    void timeSlot_remove_ts(unsigned int index);
    unsigned int timeSlot_count_ts() const;
    bool timeSlot_get_ts(unsigned int index, tTimeSlot* out) const;
    bool timeSlot_set_ts(unsigned int index, tTimeSlot const& slot);
    tTimeSlot* timeSlot_add_ts(tString const& name, unsigned int start, unsigned int stop, bool first, bool second);
    tTimeSlot* timeSlot_add_ts(tString const& name, unsigned int start, unsigned int stop, unsigned int activity);
    bool timeslots_get(tTimeslots* out) const;
    bool timeslots_set(tTimeslots* in);
    // Seconds until the next slot begins; 0 when one runs now or none will start.
    unsigned int timeSlot_durationToNextTimeSlotFromTime_sec_ts(tTime& t) const;

    // Adds or updates a frame. An id below 10 asks for a fresh id; an id in use updates that
    // frame; any other id is stored as given (frames restored from the wire or JSON).
    void frm_change_ts(tString const& name, unsigned short left, unsigned short top, unsigned short width,
                       unsigned short height, unsigned short id, unsigned short logDisp,
                       unsigned short realtimeTimeout);
    bool frm_remove(unsigned short id);
    void frm_clear();
    unsigned short frm_count() const;
    // A copy; a default frame past the end.
    tFrame frm_get(unsigned short index) const;
    bool frm_getById(unsigned short id, tFrame* out) const;
    std::vector<int> frm_getListOfFrameIds() const;
    // The stored frame without locking, for code that already holds the frame lock.
    tFrame* frame_get(unsigned int index) const;
    bool frame_get_ts(unsigned int index, tFrame* out) const;
    // The first id from max(hint, 10) upwards (wrapping within 16 bits) that no frame uses.
    unsigned short getNewFrameId(unsigned short hint) const;

    unsigned int updateTime = 46800;  // seconds from midnight (13:00:00)
    signed char minUpdateTemp = -20;
    unsigned char balanceTime = 3;
    signed char updateTemp = 5;
    unsigned char opMode = 0;    // 0 normal, 1 dpi, 2 slideshow, 3 dynamic
    unsigned char heatMode = 1;  // 0 tempering, 1 inCaseOfUpdate
    unsigned short curDispSwCfg = 0;
    unsigned short defaultLogicalDisplay = 0;
    unsigned short slideshowInterval_sec = 5;

private:
    bool serializeTimeSlots(nk_serializer* ser, nk_serializer::teSerDirection dir);
    bool serializeFrames(nk_serializer* ser, nk_serializer::teSerDirection dir);

    tString m_deviceName;
    tTimeslots m_timeslots;
    mutable tCriticalSection m_timeslotLock;
    std::vector<tFrame*> m_frames;
    mutable tCriticalSection m_frameLock;
};

// SET_CONFIG_RSP (6): the checksum of the configuration the device now holds.
class NK_API nk_messageSetConfigRsp : public nk_message
{
public:
    explicit nk_messageSetConfigRsp(teVersion v);
    nk_messageSetConfigRsp(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    tString const& getChecksum() const { return m_checksum; }
    void setChecksum(tString const& cs) { m_checksum = cs; }

private:
    tString m_checksum;
};

#endif

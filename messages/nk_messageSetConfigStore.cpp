// The configuration's lists: time slots under the time-slot lock, frames under the frame
// lock. No operation here holds both.
#include <bitset>

#include "nk_messageSetConfig.h"

// The sleep switch lives in the time-slot list that timeslots_set replaces wholesale, so
// it is read and written under the same lock.
bool nk_messageSetConfigReq::sleep_getUserEnabled() const
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.getSleepUserEnabled();
}

void nk_messageSetConfigReq::sleep_setUserEnabled(bool enable)
{
    tCriticalSectionLock lock(m_timeslotLock);
    m_timeslots.setSleepUserEnable(enable);
}

void nk_messageSetConfigReq::timeSlot_clear_ts()
{
    tCriticalSectionLock lock(m_timeslotLock);
    m_timeslots.clear();
}

void nk_messageSetConfigReq::timeSlot_remove_ts(unsigned int index)
{
    tCriticalSectionLock lock(m_timeslotLock);
    m_timeslots.remove(index);
}

unsigned int nk_messageSetConfigReq::timeSlot_count_ts() const
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.count();
}

bool nk_messageSetConfigReq::timeSlot_get_ts(unsigned int index, tTimeSlot* out) const
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.get(index, out);
}

bool nk_messageSetConfigReq::timeSlot_set_ts(unsigned int index, tTimeSlot const& slot)
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.setTimeslot(index, slot);
}

tTimeSlot* nk_messageSetConfigReq::timeSlot_add_ts(tString const& name, unsigned int start, unsigned int stop,
                                                   bool first, bool second)
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.add(name, start, stop, first, second);
}

tTimeSlot* nk_messageSetConfigReq::timeSlot_add_ts(tString const& name, unsigned int start, unsigned int stop,
                                                   unsigned int activity)
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.add(name, start, stop, activity);
}

bool nk_messageSetConfigReq::timeslots_get(tTimeslots* out) const
{
    if (out == nullptr) return false;
    tCriticalSectionLock lock(m_timeslotLock);
    *out = m_timeslots;
    return true;
}

bool nk_messageSetConfigReq::timeslots_set(tTimeslots* in)
{
    if (in == nullptr) return false;
    tCriticalSectionLock lock(m_timeslotLock);
    m_timeslots = *in;
    return true;
}

unsigned int nk_messageSetConfigReq::timeSlot_durationToNextTimeSlotFromTime_sec_ts(tTime& t) const
{
    tCriticalSectionLock lock(m_timeslotLock);
    return m_timeslots.durationToNextTimeSlot(t);
}

unsigned short nk_messageSetConfigReq::getNewFrameId(unsigned short hint) const
{
    unsigned short candidate = hint < 10 ? 10 : hint;
    // One pass marks the ids in use; stepping through the marks gives the same first free id
    // as re-scanning the list for every candidate, in linear instead of quadratic time.
    std::bitset<65536> used;
    {
        tCriticalSectionLock lock(m_frameLock);
        for (tFrame const* f : m_frames) used.set(f->id());
    }
    for (unsigned int steps = 0; steps < used.size() && used.test(candidate); ++steps)
        candidate = static_cast<unsigned short>(candidate + 1);
    return candidate;
}

void nk_messageSetConfigReq::frm_change_ts(tString const& name, unsigned short left, unsigned short top,
                                           unsigned short width, unsigned short height, unsigned short id,
                                           unsigned short logDisp, unsigned short realtimeTimeout)
{
    if (id <= 9) {
        // Taken before the frame lock below, never while holding it.
        id = getNewFrameId(10);
    } else {
        tCriticalSectionLock lock(m_frameLock);
        for (tFrame* f : m_frames) {
            if (f->id() == id) {
                *f = tFrame(name, left, top, width, height, id, logDisp, realtimeTimeout);
                return;
            }
        }
    }
    if (id == 0) return;  // every id is in use
    tCriticalSectionLock lock(m_frameLock);
    m_frames.push_back(new tFrame(name, left, top, width, height, id, logDisp, realtimeTimeout));
}

bool nk_messageSetConfigReq::frm_remove(unsigned short id)
{
    tCriticalSectionLock lock(m_frameLock);
    for (auto it = m_frames.begin(); it != m_frames.end(); ++it) {
        if ((*it)->id() == id) {
            delete *it;
            m_frames.erase(it);
            return true;
        }
    }
    return false;
}

void nk_messageSetConfigReq::frm_clear()
{
    tCriticalSectionLock lock(m_frameLock);
    for (tFrame* f : m_frames) delete f;
    m_frames.clear();
}

// Locked although a momentary size would do: an unlocked read of the vector's size while
// another thread appends is a data race.
unsigned short nk_messageSetConfigReq::frm_count() const
{
    tCriticalSectionLock lock(m_frameLock);
    return static_cast<unsigned short>(m_frames.size());
}

tFrame nk_messageSetConfigReq::frm_get(unsigned short index) const
{
    tFrame f;
    frame_get_ts(index, &f);
    return f;
}

bool nk_messageSetConfigReq::frm_getById(unsigned short id, tFrame* out) const
{
    if (out == nullptr) return false;
    tCriticalSectionLock lock(m_frameLock);
    for (tFrame const* f : m_frames) {
        if (f->id() == id) {
            *out = *f;
            return true;
        }
    }
    return false;
}

std::vector<int> nk_messageSetConfigReq::frm_getListOfFrameIds() const
{
    tCriticalSectionLock lock(m_frameLock);
    std::vector<int> ids;
    ids.reserve(m_frames.size());
    for (tFrame const* f : m_frames) ids.push_back(f->id());
    return ids;
}

tFrame* nk_messageSetConfigReq::frame_get(unsigned int index) const
{
    return index < m_frames.size() ? m_frames[index] : nullptr;
}

bool nk_messageSetConfigReq::frame_get_ts(unsigned int index, tFrame* out) const
{
    if (out == nullptr) return false;
    tCriticalSectionLock lock(m_frameLock);
    tFrame const* f = frame_get(index);
    if (f == nullptr) return false;
    *out = *f;
    return true;
}

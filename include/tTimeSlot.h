#ifndef NK_TTIMESLOT_H
#define NK_TTIMESLOT_H

#include <vector>

#include "nkExport.h"
#include "tString.h"
#include "tTime.h"

// One named daily time slot: seconds from midnight, both bounds inclusive, and a flag word
// (bit 0 first activity, bit 1 second activity; other bits are carried as given).
class NK_API tTimeSlot
{
public:
    tTimeSlot() = default;
    tTimeSlot(tString const& name, unsigned int start, unsigned int stop, bool first, bool second);
    tTimeSlot(tString const& name, unsigned int start, unsigned int stop, unsigned int activity);

    void setActivity(bool first, bool second);

    tString const& name() const { return m_name; }
    unsigned int startTime() const { return m_start; }
    unsigned int stopTime() const { return m_stop; }
    unsigned int activity() const { return m_activity; }

    // Slots do not run across midnight: a slot whose start lies after its stop is never
    // active. Peers plan their slots around this, so it stays.
    bool activeAtTime(tTime* t) const;
    // Seconds until the slot next begins; 0xFFFFFFFF for a null time and at the very second
    // of the start (the slot then counts as begun and activeAtTime covers it).
    unsigned int delayToStart(tTime* t) const;

private:
    tString m_name;
    unsigned int m_start = 0;
    unsigned int m_stop = 0;
    unsigned int m_activity = 0;
};

// The owning list of time slots (insertion order) with the user's sleep switch.
class NK_API tTimeslots
{
public:
    tTimeslots() = default;
    tTimeslots(tTimeslots const& other) { set(other); }
    tTimeslots& operator=(tTimeslots const& other);
    ~tTimeslots() { clear(); }

    // Deep copy, sleep switch included.
    void set(tTimeslots const& other);
    void clear();

    tTimeSlot* add(tString const& name, unsigned int start, unsigned int stop, bool first, bool second);
    tTimeSlot* add(tString const& name, unsigned int start, unsigned int stop, unsigned int activity);
    // Out-of-range indexes do nothing.
    void remove(unsigned int index);
    unsigned int count() const { return static_cast<unsigned int>(m_slots.size()); }
    // The stored slot, or null past the end.
    tTimeSlot* get(unsigned int index) const;
    // Copies the slot into out; false for a null out or an index past the end.
    bool get(unsigned int index, tTimeSlot* out) const;
    bool setTimeslot(unsigned int index, tTimeSlot const& slot);

    bool getSleepUserEnabled() const { return m_sleepUserEnable; }
    void setSleepUserEnable(bool enable) { m_sleepUserEnable = enable; }

    // Seconds from t until the next slot begins. 0 both when a slot runs at t and when no
    // slot will start (an empty list included): either way there is nothing to wait for.
    unsigned int durationToNextTimeSlot(tTime& t) const;

private:
    bool m_sleepUserEnable = false;
    std::vector<tTimeSlot*> m_slots;
};

#endif

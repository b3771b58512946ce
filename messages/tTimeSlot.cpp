#include "tTimeSlot.h"

namespace
{
const unsigned int s_noDelay = 0xFFFFFFFFu;
const unsigned int s_secondsPerDay = 86400;
}

tTimeSlot::tTimeSlot(tString const& name, unsigned int start, unsigned int stop, bool first, bool second)
    : m_name(name), m_start(start), m_stop(stop), m_activity((first ? 1u : 0u) | (second ? 2u : 0u))
{
}

tTimeSlot::tTimeSlot(tString const& name, unsigned int start, unsigned int stop, unsigned int activity)
    : m_name(name), m_start(start), m_stop(stop), m_activity(activity)
{
}

void tTimeSlot::setActivity(bool first, bool second)
{
    m_activity = (m_activity & ~3u) | (first ? 1u : 0u) | (second ? 2u : 0u);
}

bool tTimeSlot::activeAtTime(tTime* t) const
{
    if (t == nullptr) return false;
    unsigned int s = t->dayTimeSeconds();
    return m_start <= s && s <= m_stop;
}

unsigned int tTimeSlot::delayToStart(tTime* t) const
{
    if (t == nullptr) return s_noDelay;
    unsigned int s = t->dayTimeSeconds();
    if (s < m_start) return m_start - s;
    if (s == m_start) return s_noDelay;
    return m_start - s + s_secondsPerDay;  // tomorrow's start; s < 86400, so no wrap
}

tTimeslots& tTimeslots::operator=(tTimeslots const& other)
{
    set(other);
    return *this;
}

void tTimeslots::set(tTimeslots const& other)
{
    if (&other == this) return;
    m_sleepUserEnable = other.m_sleepUserEnable;
    clear();
    m_slots.reserve(other.m_slots.size());
    for (tTimeSlot const* s : other.m_slots)
        if (s != nullptr) add(s->name(), s->startTime(), s->stopTime(), s->activity());
}

void tTimeslots::clear()
{
    for (tTimeSlot* s : m_slots) delete s;
    m_slots.clear();
}

tTimeSlot* tTimeslots::add(tString const& name, unsigned int start, unsigned int stop, bool first, bool second)
{
    m_slots.push_back(new tTimeSlot(name, start, stop, first, second));
    return m_slots.back();
}

tTimeSlot* tTimeslots::add(tString const& name, unsigned int start, unsigned int stop, unsigned int activity)
{
    m_slots.push_back(new tTimeSlot(name, start, stop, activity));
    return m_slots.back();
}

void tTimeslots::remove(unsigned int index)
{
    if (index >= m_slots.size()) return;
    delete m_slots[index];
    m_slots.erase(m_slots.begin() + index);
}

tTimeSlot* tTimeslots::get(unsigned int index) const { return index < m_slots.size() ? m_slots[index] : nullptr; }

bool tTimeslots::get(unsigned int index, tTimeSlot* out) const
{
    tTimeSlot const* s = get(index);
    if (out == nullptr || s == nullptr) return false;
    *out = *s;
    return true;
}

bool tTimeslots::setTimeslot(unsigned int index, tTimeSlot const& slot)
{
    tTimeSlot* s = get(index);
    if (s == nullptr) return false;
    *s = slot;
    return true;
}

unsigned int tTimeslots::durationToNextTimeSlot(tTime& t) const
{
    unsigned int best = s_noDelay;
    tTimeSlot scratch;
    for (unsigned int i = 0; get(i, &scratch); ++i) {
        if (scratch.activeAtTime(&t)) return 0;
        unsigned int d = scratch.delayToStart(&t);
        if (d != s_noDelay && d < best) best = d;
    }
    return best == s_noDelay ? 0 : best;
}

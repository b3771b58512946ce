#include "nk_messageSchedule.h"

nk_messageScheduleEntry::nk_messageScheduleEntry(unsigned long long id, tString const& name, unsigned int duration,
                                                 unsigned long long imageId, bool handled)
    : m_id(id), m_name(name), m_duration(duration), m_imageId(imageId), m_handled(handled)
{
}

bool nk_messageScheduleEntry::compare(nk_messageScheduleEntry* other) const
{
    return other != nullptr && m_id == other->m_id && m_name == other->m_name && m_duration == other->m_duration &&
           m_imageId == other->m_imageId;
}

bool compareScheduleEntries(nk_messageScheduleEntry*& a, nk_messageScheduleEntry*& b) { return a->id() > b->id(); }

bool compareSchedules(nk_messageSchedule*& a, nk_messageSchedule*& b) { return a->id() > b->id(); }

nk_messageSchedule::nk_messageSchedule(unsigned long long id, tString const& name, long long startTime,
                                       long long stopTime, unsigned int flags, unsigned short showOnLogicalDisplay)
    : m_id(id),
      m_name(name),
      m_startTime(startTime),
      m_stopTime(stopTime),
      m_flags(flags),
      m_showOnLogicalDisplay(showOnLogicalDisplay),
      m_entries(false)
{
}

nk_messageSchedule::~nk_messageSchedule() { clear(); }

nk_messageScheduleEntry* nk_messageSchedule::getScheduleEntry(unsigned int index) const
{
    return index < m_entries.size() ? m_entries[index] : nullptr;
}

nk_messageScheduleEntry* nk_messageSchedule::addScheduleEntry(unsigned long long id, tString const& name,
                                                              unsigned int duration, unsigned long long imageId,
                                                              bool handled)
{
    m_entries.push_back(new nk_messageScheduleEntry(id, name, duration, imageId, handled));
    return m_entries.back();
}

void nk_messageSchedule::clear()
{
    for (nk_messageScheduleEntry* e : m_entries) delete e;
    m_entries.clear();
}

void nk_messageSchedule::sort() { m_entries.sort(compareScheduleEntries); }

bool nk_messageSchedule::compare(nk_messageSchedule* other) const
{
    if (other == nullptr) return false;
    if (m_id != other->m_id || m_name != other->m_name || m_startTime != other->m_startTime ||
        m_stopTime != other->m_stopTime || m_flags != other->m_flags ||
        m_showOnLogicalDisplay != other->m_showOnLogicalDisplay || count() != other->count())
        return false;
    for (unsigned int i = 0; i < count(); ++i) {
        nk_messageScheduleEntry* mine = m_entries[i];
        nk_messageScheduleEntry* theirs = other->m_entries[i];
        if (mine == nullptr || theirs == nullptr || !mine->compare(theirs)) return false;
    }
    return true;
}

unsigned long long nk_messageSchedule::lastEntryImageId() const
{
    if (m_entries.empty() || m_entries.back() == nullptr) return 0;
    return m_entries.back()->imageId();
}

unsigned long long nk_messageSchedule::overallDuration() const
{
    unsigned long long sum = 0;
    for (nk_messageScheduleEntry const* e : m_entries)
        if (e != nullptr) sum += e->duration();
    return sum;
}

void nk_messageSchedule::markAllEntriesHandled()
{
    for (nk_messageScheduleEntry* e : m_entries)
        if (e != nullptr) e->setHandled();
}

bool nk_messageSchedule::scheduleEntryIsLastEntry(nk_messageScheduleEntry* entry) const
{
    return entry != nullptr && !m_entries.empty() && m_entries.back() == entry && loopSchedule() == 0;
}

bool nk_messageSchedule::scheduleExpired(long long now) const
{
    long long end;
    switch (type()) {
    case 0:
    case 2:
    case 4:
        // Unsigned addition: the sum wraps like the 64-bit addition peers do, without the
        // undefined behaviour of a signed overflow.
        end = static_cast<long long>(static_cast<unsigned long long>(m_startTime) + overallDuration());
        break;
    case 6: end = m_stopTime; break;
    default: return true;
    }
    return end < now;
}

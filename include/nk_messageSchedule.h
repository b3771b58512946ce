#ifndef NK_MESSAGESCHEDULE_H
#define NK_MESSAGESCHEDULE_H

#include "nkExport.h"
#include "tString.h"
#include "tVector.h"

// One image of a schedule's play list, shown for duration seconds. The handled mark is the
// device's run-time note that the entry was shown: never serialized, never compared.
class NK_API nk_messageScheduleEntry
{
public:
    nk_messageScheduleEntry(unsigned long long id, tString const& name, unsigned int duration,
                            unsigned long long imageId, bool handled);

    unsigned long long id() const { return m_id; }
    tString name() const { return m_name; }
    unsigned int duration() const { return m_duration; }
    unsigned long long imageId() const { return m_imageId; }
    bool handled() const { return m_handled; }
    void setHandled() { m_handled = true; }

    // Equal id, name, duration and imageId; false for null.
    bool compare(nk_messageScheduleEntry* other) const;

private:
    unsigned long long m_id;
    tString m_name;
    unsigned int m_duration;
    unsigned long long m_imageId;
    bool m_handled;
};

// A named, timed play list that owns its entries. Not synchronised: callers serialise
// access to one schedule (only sort takes the entry list's own lock).
class NK_API nk_messageSchedule
{
public:
    // Bit 0 of flags: loop. Bits 1-3: type, kept unshifted (0, 2, ..., 14). Bits 4-31 are
    // carried but not interpreted.
    static const unsigned int s_flagLoop = 0x01;
    static const unsigned int s_maskType = 0x0E;

    nk_messageSchedule(unsigned long long id, tString const& name, long long startTime, long long stopTime,
                       unsigned int flags, unsigned short showOnLogicalDisplay);
    ~nk_messageSchedule();
    nk_messageSchedule(nk_messageSchedule const&) = delete;
    nk_messageSchedule& operator=(nk_messageSchedule const&) = delete;

    unsigned long long id() const { return m_id; }
    tString name() const { return m_name; }
    long long startTime() const { return m_startTime; }
    long long stopTime() const { return m_stopTime; }
    unsigned int flags() const { return m_flags; }
    unsigned short showOnLogicalDisplay() const { return m_showOnLogicalDisplay; }
    // The masked type bits, deliberately not shifted down: every rule compares with the even
    // values 0 to 14, as peers do.
    unsigned int type() const { return m_flags & s_maskType; }
    unsigned int loopSchedule() const { return m_flags & s_flagLoop; }

    unsigned int count() const { return static_cast<unsigned int>(m_entries.size()); }
    // Null past the end.
    nk_messageScheduleEntry* getScheduleEntry(unsigned int index) const;
    // Appends a new entry (duplicate ids are allowed); the schedule owns it.
    nk_messageScheduleEntry* addScheduleEntry(unsigned long long id, tString const& name, unsigned int duration,
                                              unsigned long long imageId, bool handled);
    void clear();
    // Entries in ascending id order; equal ids keep their order.
    void sort();

    // Equal fields and equal entries position by position; false for null.
    bool compare(nk_messageSchedule* other) const;

    unsigned long long lastEntryImageId() const;
    unsigned long long overallDuration() const;
    void markAllEntriesHandled();
    // True only for the very object in the last position of a schedule that does not loop.
    bool scheduleEntryIsLastEntry(nk_messageScheduleEntry* entry) const;
    // Types 0, 2, 4 end one pass of all entries after startTime (looping or not); type 6
    // ends at stopTime; every other type counts as expired. Not expired at the end itself.
    bool scheduleExpired(long long now) const;

private:
    unsigned long long m_id;
    tString m_name;
    long long m_startTime;
    long long m_stopTime;
    unsigned int m_flags;
    unsigned short m_showOnLogicalDisplay;
    tVector_TS<nk_messageScheduleEntry*> m_entries;
};

// Comparators for tVector_TS sorts: true when a's id is greater than b's (ascending order).
NK_API bool compareScheduleEntries(nk_messageScheduleEntry*& a, nk_messageScheduleEntry*& b);
NK_API bool compareSchedules(nk_messageSchedule*& a, nk_messageSchedule*& b);

#endif

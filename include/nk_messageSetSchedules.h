#ifndef NK_MESSAGESETSCHEDULES_H
#define NK_MESSAGESETSCHEDULES_H

#include "nk_message.h"
#include "nk_messageSchedule.h"
#include "tStringList.h"
#include "tVector.h"

// SET_SCHEDULES_REQ (9): a device's complete set of schedules, and on the device the store
// of the set in force (merge, lookups, checksum). The message owns its schedules. Not
// synchronised: callers serialise access to one object (only sorts take the list's lock).
class NK_API nk_messageSetSchedulesReq : public nk_message
{
public:
    explicit nk_messageSetSchedulesReq(teVersion v);
    // Reads the body once; what was read before a failure stays.
    nk_messageSetSchedulesReq(nk_serializer* ser, teVersion v);
    ~nk_messageSetSchedulesReq() override;
    nk_messageSetSchedulesReq(nk_messageSetSchedulesReq const&) = delete;
    nk_messageSetSchedulesReq& operator=(nk_messageSetSchedulesReq const&) = delete;

    // Stop times are part of the body from version 2 on. Reading appends to the list.
    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    // Refused (false, the set unchanged) when it would create more entries than
    // maxJsonEntries(): every schedule read gets all entries of the root "entries" array.
    bool serializeFromJson(tJson* json) override;

    // The most schedule entries one JSON read may create, for every set of the process.
    static const unsigned int DEFAULT_MAX_JSON_ENTRIES = 1000000;
    static void setMaxJsonEntries(unsigned int entries);
    static unsigned int maxJsonEntries();

    void clear();
    unsigned int count() const { return static_cast<unsigned int>(m_schedules.size()); }
    // Null past the end.
    nk_messageSchedule* getSchedule(unsigned int index) const;
    // Takes ownership of a non-null schedule; null is ignored and returned.
    nk_messageSchedule* addSchedule(nk_messageSchedule* schedule);
    nk_messageSchedule* addSchedule_(unsigned long long id, tString const& name, long long startTime,
                                     long long stopTime, unsigned int flags, unsigned short showOnLogicalDisplay);
    // Times as "YYYY-MM-DD hh:mm:ss.fff" text (see getStartTimeFromString).
    nk_messageSchedule* addSchedule_(unsigned long long id, tString const& name, tString const& startTime,
                                     tString const& stopTime, unsigned int flags, unsigned short showOnLogicalDisplay);
    // "YYYY-MM-DD hh:mm:ss.fff" (UTC) as Unix seconds cut to 32 bits; never fails (missing or
    // non-numeric parts are 0, fields wrap at 8 bits, the year at 16).
    static unsigned int getStartTimeFromString(tString const& text);

    // Schedules ascending by id, then each schedule's entries ascending by id.
    void sort();
    // The first schedule with schedule's id (the id alone is the identity), or null.
    nk_messageSchedule* schedulePresent(nk_messageSchedule* schedule) const;
    // Deletes the schedule if this very object is in the list; anything else is left alone.
    void removeSchedule(nk_messageSchedule* schedule);
    nk_messageSchedule* getScheduleForEntry(nk_messageScheduleEntry* entry) const;
    // Every entry's image id in list order, duplicates and zeros included.
    void getRequiredImageUidList(tUidList& list) const;

    // Deep copy of other (every handled mark false); a null other changes nothing.
    void setSchedulesFrom(nk_messageSetSchedulesReq* other);
    // Merges other into this set; true when a schedule that other lacks was dropped.
    bool setSchedulesFromWithoutClear(nk_messageSetSchedulesReq* other);
    // SHA-1 text of the set's body in the given version's layout, sorted; what the device
    // reports in SET_SCHEDULES_RSP. Empty when the set cannot be written.
    tString checksum(teVersion version) const;

private:
    static nk_messageSchedule* copyOf(nk_messageSchedule const* schedule);
    void appendCopyOf(nk_messageSchedule const* schedule);
    bool mergeItself();
    void copyFrom(nk_messageSetSchedulesReq const& other);

    tVector_TS<nk_messageSchedule*> m_schedules;
    static unsigned int s_u32MaxJsonEntries;
};

// SET_SCHEDULES_RSP (10): the checksum of the schedule set the device now holds.
class NK_API nk_messageSetSchedulesRsp : public nk_message
{
public:
    explicit nk_messageSetSchedulesRsp(teVersion v);
    nk_messageSetSchedulesRsp(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    tString getChecksum() const { return m_checksum; }
    void setChecksum(tString const& checksum) { m_checksum = checksum; }

private:
    tString m_checksum;
};

#endif

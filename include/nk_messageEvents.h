#ifndef NK_MESSAGEEVENTS_H
#define NK_MESSAGEEVENTS_H

#include "nk_message.h"
#include "tStringList.h"
#include "tVector.h"

// One entry of a device's event log: a plain value that the events response owns,
// reads and writes field by field.
class NK_API nk_messageEvent
{
public:
    // subEvents may be null; its entries are copied and the caller keeps the list.
    nk_messageEvent(unsigned int timeFirst, unsigned int timeLast, unsigned int id, unsigned short type,
                    tString eventMessage, unsigned char category, tStringList* subEvents,
                    unsigned int occurrence, tString refImage);
    nk_messageEvent(nk_messageEvent const& other);
    nk_messageEvent& operator=(nk_messageEvent const& other);
    ~nk_messageEvent();

    // Copies every field of other (the sub-event list is replaced, not extended).
    void set(nk_messageEvent const& other);

    unsigned int timeFirst() const { return m_timeFirst; }
    unsigned int timeLast() const { return m_timeLast; }
    unsigned int id() const { return m_id; }
    unsigned short type() const { return m_type; }
    tString const& eventMessage() const { return m_eventMessage; }
    // The const split and the spelling of occurence are part of the published interface.
    unsigned char category() { return m_category; }
    unsigned int subEventCount() { return m_subEvents.count(); }
    // No range check: past the end this is the empty text, which the binary writer relies on.
    tString subEvent(unsigned int i) { return m_subEvents.get(i); }
    tStringList subEventList() { return m_subEvents; }
    unsigned int occurence() { return m_occurrence; }
    tString refImage() { return m_refImage; }

private:
    unsigned int m_timeFirst = 0;
    unsigned int m_timeLast = 0;
    unsigned int m_id = 0;
    unsigned short m_type = 0;
    tString m_eventMessage;
    unsigned char m_category = 0;
    tStringList m_subEvents;
    unsigned int m_occurrence = 0;
    tString m_refImage;
};

// EVENTS_REQ (3): asks a device for its event log. Body: the task number (u8).
class NK_API nk_messageEventsReq : public nk_message
{
public:
    explicit nk_messageEventsReq(teVersion v);
    nk_messageEventsReq(nk_serializer* ser, teVersion v);
    ~nk_messageEventsReq() override;

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    unsigned char task = 0;
};

// EVENTS_RSP (4): the event log, echoing the request's task number. The response owns its
// records and shows each one to the release callback just before destroying it.
class NK_API nk_messageEventsRsp : public nk_message
{
public:
    // A fixed underlying type, so that any number a caller passes is a valid value (one
    // beyond SORT_ID_ASC sorts nothing) rather than undefined behaviour.
    enum teSortCriteria : unsigned int
    {
        SORT_TIME_FIRST_DESC = 0,
        SORT_TIME_FIRST_ASC = 1,
        SORT_TIME_LAST_DESC = 2,
        SORT_TIME_LAST_ASC = 3,
        SORT_ID_DESC = 4,
        SORT_ID_ASC = 5,
    };

    typedef void (*tReleaseFcn)(void* context, nk_messageEvent* event);

    // The most records the field-wise addEvent (and so every parse) keeps.
    static const unsigned int MAX_EVENTS = 2000;

    nk_messageEventsRsp(teVersion v, void* context, tReleaseFcn callback);
    nk_messageEventsRsp(nk_serializer* ser, teVersion v);
    ~nk_messageEventsRsp() override;
    nk_messageEventsRsp(nk_messageEventsRsp const&) = delete;
    nk_messageEventsRsp& operator=(nk_messageEventsRsp const&) = delete;

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    // Destroys every record (callback first), leaving the list empty.
    void clear();
    // Appends a new record; then drops records from the front until at most MAX_EVENTS remain.
    nk_messageEvent* addEvent(unsigned int timeFirst, unsigned int timeLast, unsigned int id, unsigned short type,
                              tString eventMessage, unsigned char category, tStringList* subEvents,
                              unsigned int occurrence, tString refImage);
    // Appends a copy of *event without the limit (deliberately); null gives null.
    nk_messageEvent* addEvent(nk_messageEvent* event);
    // Borrowed pointer, null past the end.
    nk_messageEvent* getEvent(unsigned int index) const;
    bool getEvent(nk_messageEvent& out, unsigned int index);
    unsigned int eventCount() const { return static_cast<unsigned int>(m_events.size()) - m_dropped; }
    // Replaces the records by copies of other's; the task number stays.
    void setFrom(nk_messageEventsRsp const& other);

    // Stable; the criterion passes through the process-wide l_eSortCriteria, so sorts must
    // not run concurrently. A criterion above 5 changes nothing.
    void sort(teSortCriteria criterion);
    static bool sortCompare(nk_messageEvent*& a, nk_messageEvent*& b);
    // "#FF6600" for category 0, "#FFFF66" for 1, empty otherwise.
    static tString categoryColor(unsigned char category);

    static teSortCriteria l_eSortCriteria;

    unsigned char task = 0;

private:
    void release(nk_messageEvent* event);
    // Removes the slots of records already dropped from the front.
    void compactFront();

    // Records dropped by the limit leave a null slot at the front; the slots are removed in
    // batches, so the limit costs O(1) per add instead of moving the whole list every time.
    // Live records are m_events[m_dropped ...].
    tVector<nk_messageEvent*> m_events;
    unsigned int m_dropped = 0;
    void* m_context = nullptr;
    tReleaseFcn m_callback = nullptr;
};

#endif

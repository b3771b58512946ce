#include "nk_messageEvents.h"

#include <utility>

nk_messageEvent::nk_messageEvent(unsigned int timeFirst, unsigned int timeLast, unsigned int id, unsigned short type,
                                 tString eventMessage, unsigned char category, tStringList* subEvents,
                                 unsigned int occurrence, tString refImage)
    : m_timeFirst(timeFirst),
      m_timeLast(timeLast),
      m_id(id),
      m_type(type),
      m_eventMessage(std::move(eventMessage)),
      m_category(category),
      m_occurrence(occurrence),
      m_refImage(std::move(refImage))
{
    if (subEvents != nullptr) m_subEvents.add(*subEvents);
}

nk_messageEvent::nk_messageEvent(nk_messageEvent const& other) { set(other); }

nk_messageEvent& nk_messageEvent::operator=(nk_messageEvent const& other)
{
    set(other);
    return *this;
}

nk_messageEvent::~nk_messageEvent() = default;

void nk_messageEvent::set(nk_messageEvent const& other)
{
    if (&other == this) return;
    m_timeFirst = other.m_timeFirst;
    m_timeLast = other.m_timeLast;
    m_id = other.m_id;
    m_type = other.m_type;
    m_eventMessage = other.m_eventMessage;
    m_category = other.m_category;
    m_subEvents = other.m_subEvents;
    m_occurrence = other.m_occurrence;
    m_refImage = other.m_refImage;
}

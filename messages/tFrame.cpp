#include "tFrame.h"

tFrame::tFrame(tString const& name, unsigned short left, unsigned short top, unsigned short width,
               unsigned short height, unsigned short id, unsigned short logDisp, unsigned short realtimeTimeout)
    : m_name(name),
      m_left(left),
      m_top(top),
      m_width(width),
      m_height(height),
      m_id(id),
      m_logDisp(logDisp),
      m_realtimeTimeout(realtimeTimeout)
{
}

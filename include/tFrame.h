#ifndef NK_TFRAME_H
#define NK_TFRAME_H

#include "nkExport.h"
#include "tString.h"

// A named rectangle on one logical display, with the lifetime of real-time content shown
// in it. Ids 0 to 9 are reserved: the configuration never stores a frame under them.
class NK_API tFrame
{
public:
    tFrame() = default;
    tFrame(tString const& name, unsigned short left, unsigned short top, unsigned short width,
           unsigned short height, unsigned short id, unsigned short logDisp, unsigned short realtimeTimeout);

    void set(tFrame const& other) { *this = other; }

    tString const& name() const { return m_name; }
    unsigned short left() const { return m_left; }
    unsigned short top() const { return m_top; }
    unsigned short width() const { return m_width; }
    unsigned short height() const { return m_height; }
    unsigned short id() const { return m_id; }
    unsigned short logDisp() const { return m_logDisp; }
    unsigned short realtimeTimeout() const { return m_realtimeTimeout; }

private:
    tString m_name;
    unsigned short m_left = 0;
    unsigned short m_top = 0;
    unsigned short m_width = 64;
    unsigned short m_height = 64;
    unsigned short m_id = 0;
    unsigned short m_logDisp = 0;
    unsigned short m_realtimeTimeout = 120;
};

#endif

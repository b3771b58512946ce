#ifndef NK_FRAME_BULK_STORE_INTERNAL_H
#define NK_FRAME_BULK_STORE_INTERNAL_H

#include <bitset>
#include <unordered_map>
#include <vector>

#include "tFrame.h"

// Stores many frames one after the other with the rules of frm_change_ts (an id below 10
// asks for the first free id from 10 upwards, wrapping within 16 bits; an id in use updates
// that frame; any other id is added), in time linear in the frames: it keeps the ids in use
// and where the search for a free id got to, instead of scanning the list for every frame.
// The caller holds the frame lock for the store's whole life, so nothing else changes the list.
class tFrameBulkStore
{
public:
    explicit tFrameBulkStore(std::vector<tFrame*>& frames) : m_frames(frames)
    {
        for (tFrame* f : frames) {
            m_used.set(f->id());
            m_byId.emplace(f->id(), f);  // the first frame with an id is the one updated
        }
    }

    void change(tFrame const& frame)
    {
        unsigned short id = frame.id();
        if (id <= 9) {
            id = freshId();
            if (id == 0) return;  // every id is in use
        } else {
            auto found = m_byId.find(id);
            if (found != m_byId.end()) {
                *found->second = frame;
                return;
            }
        }
        tFrame* stored = new tFrame(frame.name(), frame.left(), frame.top(), frame.width(), frame.height(), id,
                                    frame.logDisp(), frame.realtimeTimeout());
        m_frames.push_back(stored);
        m_used.set(id);
        m_byId.emplace(id, stored);
    }

private:
    // Ids are only ever added while the store lives, so the first free id from 10 upwards
    // never moves down: the search resumes where it stopped.
    unsigned short freshId()
    {
        while (m_nextFromTen <= 0xFFFF && m_used.test(m_nextFromTen)) ++m_nextFromTen;
        if (m_nextFromTen <= 0xFFFF) return static_cast<unsigned short>(m_nextFromTen);
        for (unsigned short id = 0; id < 10; ++id)  // the search wraps past 65535
            if (!m_used.test(id)) return id;
        return 10;  // every id in use: the scan ends where it began, and a frame is added under it
    }

    std::vector<tFrame*>& m_frames;
    std::bitset<65536> m_used;
    std::unordered_map<unsigned short, tFrame*> m_byId;
    unsigned int m_nextFromTen = 10;
};

#endif

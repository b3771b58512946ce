#ifndef NK_TOOLS_REQUEST_READER_H
#define NK_TOOLS_REQUEST_READER_H

#include <memory>
#include <string>

#include "nkProtocol.h"

// One received request as the device takes it. The message rules say how far a body is
// read: a body longer than the layout the device knows (a newer revision's extra fields) is
// read as far as that layout goes; a version above the newest layout of its family is read
// and answered as that newest layout, so an answer never carries a version the device does
// not know. A body cut short is taken only by requests that change nothing (the missing
// fields keep their defaults); one that would change the device is refused.
struct ReadRequest
{
    std::unique_ptr<nk_message> message;  // null when refused
    std::string refusal;                  // why, for the event log
    unsigned int type = 0;
    unsigned int version = 0;             // as received
};

ReadRequest readRequest(tBlob const& content);

// The newest layout revision the device knows for a request family (and its answer).
nk_message::teVersion newestLayout(nk_message::teType type);

#endif

#ifndef NK_MESSAGETIME_H
#define NK_MESSAGETIME_H

#include "nk_message.h"

// TIME (11): the sender's clock in seconds.
class NK_API nk_messageTime : public nk_message
{
public:
    explicit nk_messageTime(teVersion v);  // takes the clock now
    nk_messageTime(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    unsigned int currentTime = 0;
};

#endif

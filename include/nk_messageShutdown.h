#ifndef NK_MESSAGESHUTDOWN_H
#define NK_MESSAGESHUTDOWN_H

#include "nk_message.h"

// SHUTDOWN (12): orders the receiver to shut down. Empty body.
class NK_API nk_messageShutdown : public nk_message
{
public:
    explicit nk_messageShutdown(teVersion v);
    nk_messageShutdown(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;
};

#endif

#ifndef NK_MESSAGEGENERIC_H
#define NK_MESSAGEGENERIC_H

#include "nk_message.h"

// GENERIC_REQ (28) and GENERIC_RSP (29): two free texts each, binary only. Their JSON
// form is deliberately an empty object and their JSON reader accepts anything.
class NK_API nk_messageGenericReq : public nk_message
{
public:
    nk_messageGenericReq(teVersion v, tString const& text1, tString const& text2);
    nk_messageGenericReq(nk_serializer* ser, teVersion v);

    void set(tString const& text1, tString const& text2);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    tString text1;
    tString text2;
};

class NK_API nk_messageGenericRsp : public nk_message
{
public:
    nk_messageGenericRsp(teVersion v, tString const& text1, tString const& text2);
    nk_messageGenericRsp(nk_serializer* ser, teVersion v);

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

    tString text1;
    tString text2;
};

#endif

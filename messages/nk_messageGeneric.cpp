#include "nk_messageGeneric.h"

namespace
{
bool serializeTexts(nk_serializer* ser, nk_serializer::teSerDirection dir, tString& text1, tString& text2)
{
    return ser != nullptr && ser->string(text1, dir) && ser->string(text2, dir);
}
}

nk_messageGenericReq::nk_messageGenericReq(teVersion v, tString const& t1, tString const& t2)
    : nk_message(GENERIC_REQ, v), text1(t1), text2(t2)
{
}

nk_messageGenericReq::nk_messageGenericReq(nk_serializer* ser, teVersion v) : nk_message(GENERIC_REQ, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

void nk_messageGenericReq::set(tString const& t1, tString const& t2)
{
    text1 = t1;
    text2 = t2;
}

bool nk_messageGenericReq::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return serializeTexts(ser, dir, text1, text2);
}

// The generic messages travel in binary only: their JSON form is deliberately empty and
// their reader accepts anything, unchanged.
bool nk_messageGenericReq::serializeToJson(tJson*) { return true; }
bool nk_messageGenericReq::serializeFromJson(tJson*) { return true; }

nk_messageGenericRsp::nk_messageGenericRsp(teVersion v, tString const& t1, tString const& t2)
    : nk_message(GENERIC_RSP, v), text1(t1), text2(t2)
{
}

nk_messageGenericRsp::nk_messageGenericRsp(nk_serializer* ser, teVersion v) : nk_message(GENERIC_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

bool nk_messageGenericRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    return serializeTexts(ser, dir, text1, text2);
}

bool nk_messageGenericRsp::serializeToJson(tJson*) { return true; }
bool nk_messageGenericRsp::serializeFromJson(tJson*) { return true; }

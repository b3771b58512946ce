#include "nk_message.h"

#include <algorithm>

#include "SHA1.h"

namespace
{
nk_message::tLogFcn s_logHook = nullptr;

char const* const s_typeNames[] = {
    "invalid",
    "STATE_REQ",
    "STATE_RSP",
    "EVENTS_REQ",
    "EVENTS_RSP",
    "SET_CONFIG_REQ",
    "SET_CONFIG_RSP",
    "GET_DISPLAY_CONFIGURATION_REQ",
    "GET_DISPLAY_CONFIGURATION_RSP",
    "SET_SCHEDULES_REQ",
    "SET_SCHEDULES_RSP",
    "TIME",
    "SHUTDOWN",
    "IMAGE",
    "STATISTICS_REQ",
    "STATISTICS_RSP",
    "TAVO_AUTHORIZE_REQ",
    "TAVO_AUTHORIZE_RSP",
    "TAVO_DEVICE_LIST_REQ",
    "TAVO_DEVICE_LIST_RSP",
    "TAVO_CONFIG_LIST_REQ",
    "TAVO_CONFIG_LIST_RSP",
    "TAVO_REMOVE_REQ",
    "TAVO_REMOVE_RSP",
    "TAVO_ADD_REQ",
    "TAVO_ADD_RSP",
    "TAVO_ASSIGNMENT_REQ",
    "TAVO_ASSIGNMENT_RSP",
    "GENERIC_REQ",
    "GENERIC_RSP",
};
}

// Pure, yet defined: a subclass may hand its body to the base, which has none to write.
bool nk_message::serialize(nk_serializer*, nk_serializer::teSerDirection) { return false; }

bool nk_message::serializeMsg(nk_serializer* ser)
{
    if (ser == nullptr) return false;
    unsigned short type = m_type;
    unsigned short version = m_version;
    ser->u16(type, nk_serializer::SER_WRITE);
    ser->u16(version, nk_serializer::SER_WRITE);
    return serialize(ser, nk_serializer::SER_WRITE);
}

tString nk_message::getJson()
{
    tJson json;
    if (!serializeToJson(&json)) return tString();
    return json.getJson(false);
}

tString nk_message::typeName(teType type)
{
    unsigned int t = type;
    return t < sizeof(s_typeNames) / sizeof(s_typeNames[0]) ? tString(s_typeNames[t]) : tString("invalid");
}

void nk_message::registerLog(tLogFcn fcn) { s_logHook = fcn; }

void nk_message::log(char const* format, ...)
{
    if (format == nullptr || s_logHook == nullptr) return;
    va_list args;
    va_start(args, format);
    s_logHook(format, args);
    va_end(args);
}

bool sortU64(unsigned long long& a, unsigned long long& b) { return a > b; }

tString nk_message::vectorU64Checksum(std::vector<unsigned long long> const& values)
{
    // Sorting before de-duplicating gives the same text as keeping first occurrences and
    // then sorting (equal values are indistinguishable), in n log n instead of n squared.
    std::vector<unsigned long long> unique(values.begin(), values.end());
    std::sort(unique.begin(), unique.end());
    unique.erase(std::unique(unique.begin(), unique.end()), unique.end());

    tString text;
    for (unsigned long long v : unique) text += tString::fromUInt64(v);
    SHA1 sha;
    sha.Input(text);
    return sha.Result();
}

void nk_message::jsonEnvelope(tJson* json, char const* action, bool response)
{
    json->clear();
    json->addString("action", action);
    json->addString("type", response ? "response" : "request");
    json->addInt("tv", 1);
}

bool nk_message::jsonEnvelopeMatches(tJson* json, char const* action, bool response)
{
    if (json == nullptr) return false;
    if (json->getString("action") != action) return false;
    if (json->getString("type") != (response ? "response" : "request")) return false;
    return json->getInt("tv", 0) >= 1;
}

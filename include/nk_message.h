#ifndef NK_MESSAGE_H
#define NK_MESSAGE_H

#include <cstdarg>
#include <vector>

#include "nkExport.h"
#include "nk_serializer.h"
#include "tJson.h"
#include "tString.h"

// Base of every message: a 4-byte header (type, version; u16 each, little-endian) in front
// of the body that the subclass writes, a JSON form with the envelope
// {"action", "type", "tv": 1}, the factory and shared services.
class NK_API nk_message
{
public:
    enum teType : unsigned short
    {
        STATE_REQ = 1,
        STATE_RSP = 2,
        EVENTS_REQ = 3,
        EVENTS_RSP = 4,
        SET_CONFIG_REQ = 5,
        SET_CONFIG_RSP = 6,
        GET_DISPLAY_CONFIGURATION_REQ = 7,
        GET_DISPLAY_CONFIGURATION_RSP = 8,
        SET_SCHEDULES_REQ = 9,
        SET_SCHEDULES_RSP = 10,
        TIME = 11,
        SHUTDOWN = 12,
        IMAGE = 13,
        STATISTICS_REQ = 14,
        STATISTICS_RSP = 15,
        TAVO_AUTHORIZE_REQ = 16,
        TAVO_AUTHORIZE_RSP = 17,
        TAVO_DEVICE_LIST_REQ = 18,
        TAVO_DEVICE_LIST_RSP = 19,
        TAVO_CONFIG_LIST_REQ = 20,
        TAVO_CONFIG_LIST_RSP = 21,
        TAVO_REMOVE_REQ = 22,
        TAVO_REMOVE_RSP = 23,
        TAVO_ADD_REQ = 24,
        TAVO_ADD_RSP = 25,
        TAVO_ASSIGNMENT_REQ = 26,
        TAVO_ASSIGNMENT_RSP = 27,
        GENERIC_REQ = 28,
        GENERIC_RSP = 29,
    };

    // Layout revision of a body. Any 16-bit value is carried; 0 to 3 select layouts.
    enum teVersion : unsigned short
    {
        VERSION_0 = 0,
        VERSION_1 = 1,
        VERSION_2 = 2,
        VERSION_3 = 3,
    };

    typedef void (*tLogFcn)(char const* format, va_list args);

    // The body in the given direction (no header). Pure, with a base body that returns false.
    virtual bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) = 0;
    virtual ~nk_message() = default;
    virtual bool serializeToJson(tJson* json) = 0;
    virtual bool serializeFromJson(tJson* json) = 0;

    teType type() const { return static_cast<teType>(m_type); }
    teVersion version() const { return static_cast<teVersion>(m_version); }

    // Header, then body; the only way a message becomes bytes for sending.
    bool serializeMsg(nk_serializer* ser);
    // The compact JSON text, or the empty text when the message has no JSON form.
    tString getJson();

    // Builds the message that blob holds; the caller owns it. Null for a buffer shorter than
    // the header or an unhandled type. A body that fails to parse still gives an object.
    static nk_message* getMessage(tBlob* blob);
    static tString typeName(teType type);
    tString typeName() const { return typeName(type()); }

    static void registerLog(tLogFcn fcn);
    static void log(char const* format, ...) __attribute__((format(printf, 1, 2)));

    // SHA-1 text of the ascending, de-duplicated values written as decimal text with no
    // separator ({1, 23} and {123} are the same text, deliberately).
    static tString vectorU64Checksum(std::vector<unsigned long long> const& values);

protected:
    nk_message(teType type, teVersion version) : m_type(type), m_version(version) {}
    void setVersion(teVersion v) { m_version = v; }

    // The JSON envelope: clears json and adds "action", "type", "tv": 1.
    static void jsonEnvelope(tJson* json, char const* action, bool response);
    // True when json carries the given action and type words and a "tv" of at least 1.
    static bool jsonEnvelopeMatches(tJson* json, char const* action, bool response);

private:
    unsigned short m_type;
    unsigned short m_version;
};

// Comparator for tVector<unsigned long long>: true when a is greater than b (ascending sort).
NK_API bool sortU64(unsigned long long& a, unsigned long long& b);

#endif

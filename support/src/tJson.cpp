#include "tJson.h"

#include <cstdint>
#include <limits>
#include <new>

#include <nlohmann/json.hpp>

#include "base64.h"

using Json = nlohmann::ordered_json;

struct tJson::Impl
{
    Json value = Json::object();
};

namespace
{
// Printing and copying a value recurse once per nesting level, so text from the link
// may not nest deeper than this.
constexpr unsigned kMaxDepth = 512;

bool nestingWithinLimit(std::string const& text)
{
    unsigned depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) return false;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

Json const* member(Json const& object, char const* key)
{
    if (!key || !object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}
}

tJson::tJson() : m_p(new Impl) {}

tJson::tJson(tJson const& other) : m_p(new Impl(*other.m_p)) {}

tJson& tJson::operator=(tJson const& other)
{
    if (this != &other) {
        try {
            m_p->value = other.m_p->value;
        } catch (...) {
            m_p->value = Json::object();
        }
    }
    return *this;
}

tJson::~tJson()
{
    delete m_p;
}

bool tJson::parse(tString const& text)
{
    m_p->value = Json::object();
    if (!nestingWithinLimit(text.str())) return false;
    try {
        Json parsed = Json::parse(text.str(), nullptr, false);
        if (!parsed.is_object()) return false;
        m_p->value = std::move(parsed);
        return true;
    } catch (...) {
        m_p->value = Json::object();
        return false;
    }
}

tString tJson::getJson(bool pretty) const
{
    try {
        // Invalid UTF-8 in a string becomes U+FFFD rather than an exception: a text must
        // always come out, and a peer could not read the raw bytes anyway.
        return tString(m_p->value.dump(pretty ? 4 : -1, ' ', false, Json::error_handler_t::replace));
    } catch (...) {
        return tString();
    }
}

void tJson::clear()
{
    m_p->value = Json::object();
}

bool tJson::isEmpty() const
{
    return m_p->value.empty();
}

bool tJson::has(char const* key) const
{
    return member(m_p->value, key) != nullptr;
}

void tJson::addString(char const* key, tString const& value)
{
    if (!key) return;
    try {
        m_p->value[key] = value.str();
    } catch (...) {
    }
}

long long tJson::addInt(char const* key, long long value)
{
    if (!key) return value;
    try {
        m_p->value[key] = static_cast<std::int64_t>(value);
    } catch (...) {
    }
    return value;
}

unsigned long long tJson::addUInt(char const* key, unsigned long long value)
{
    if (!key) return value;
    try {
        m_p->value[key] = static_cast<std::uint64_t>(value);
    } catch (...) {
    }
    return value;
}

void tJson::addBool(char const* key, bool value)
{
    if (!key) return;
    try {
        m_p->value[key] = value;
    } catch (...) {
    }
}

void tJson::addBinary(char const* key, tBlob const& value)
{
    addString(key, base64::encode(value.getBuffer(), value.size()));
}

void tJson::addStringArray(char const* key, tStringList const& values)
{
    if (!key) return;
    try {
        Json array = Json::array();
        for (unsigned int i = 0; i < values.count(); ++i) array.push_back(values.get(i).str());
        m_p->value[key] = std::move(array);
    } catch (...) {
    }
}

void tJson::addObject(char const* key, tJson const& object)
{
    if (!key) return;
    try {
        m_p->value[key] = object.m_p->value;
    } catch (...) {
    }
}

void tJson::addToArray(char const* key, tJson const& object)
{
    if (!key) return;
    try {
        Json& slot = m_p->value[key];
        if (!slot.is_array()) slot = Json::array();
        slot.push_back(object.m_p->value);
    } catch (...) {
    }
}

tString tJson::getString(char const* key, tString const& def) const
{
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_string()) return def;
    return tString(v->get_ref<std::string const&>());
}

long long tJson::getInt(char const* key, long long def) const
{
    Json const* v = member(m_p->value, key);
    if (!v) return def;
    if (v->is_number_unsigned()) {
        std::uint64_t u = v->get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<long long>::max())) return def;
        return static_cast<long long>(u);
    }
    if (v->is_number_integer()) return v->get<std::int64_t>();
    return def;
}

unsigned long long tJson::getUInt(char const* key, unsigned long long def) const
{
    Json const* v = member(m_p->value, key);
    if (!v) return def;
    if (v->is_number_unsigned()) return v->get<std::uint64_t>();
    if (v->is_number_integer()) {
        std::int64_t s = v->get<std::int64_t>();
        return s < 0 ? def : static_cast<unsigned long long>(s);
    }
    return def;
}

bool tJson::getBool(char const* key, bool def) const
{
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_boolean()) return def;
    return v->get<bool>();
}

bool tJson::getBinary(char const* key, tBlob& out) const
{
    out.clear();
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_string()) return false;
    return base64::decode(tString(v->get_ref<std::string const&>()), out);
}

bool tJson::getStringArray(char const* key, tStringList& out) const
{
    out.clear();
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_array()) return false;
    try {
        for (auto const& element : *v)
            if (element.is_string()) out.add(tString(element.get_ref<std::string const&>()));
    } catch (...) {
        out.clear();
        return false;
    }
    return true;
}

bool tJson::getObject(char const* key, tJson& out) const
{
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_object()) return false;
    try {
        out.m_p->value = *v;
    } catch (...) {
        out.clear();
        return false;
    }
    return true;
}

bool tJson::getArrayObject(char const* key, unsigned int index, tJson& out) const
{
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_array() || index >= v->size()) return false;
    Json const& element = (*v)[index];
    if (!element.is_object()) return false;
    try {
        out.m_p->value = element;
    } catch (...) {
        out.clear();
        return false;
    }
    return true;
}

unsigned int tJson::getArraySize(char const* key) const
{
    Json const* v = member(m_p->value, key);
    if (!v || !v->is_array()) return 0;
    return static_cast<unsigned int>(v->size());
}

#include "tJson.h"

#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "base64.h"

using Json = nlohmann::ordered_json;

namespace
{
// Up to this many members a linear search is as quick as a hash and costs no memory.
constexpr std::size_t kLinearMembers = 8;

// The member at a position (the ordered map's own operator[] takes a key).
Json::object_t::value_type& memberAt(Json::object_t& m, std::size_t i)
{
    return static_cast<Json::object_t::Container&>(m)[i];
}
Json::object_t::value_type const& memberAt(Json::object_t const& m, std::size_t i)
{
    return static_cast<Json::object_t::Container const&>(m)[i];
}
}

// The ordered map keeps members in insertion order (part of every checksummed text) but
// finds them by linear search; beside it, the positions of the top-level members of a
// larger object, kept current by every change made through tJson (the only way the top
// level is ever changed), so a lookup or an add costs the same for any number of members.
struct tJson::Impl
{
    Json value = Json::object();
    std::unordered_map<std::string, std::size_t> index;  // complete above kLinearMembers, else empty

    Json::object_t& members() { return value.get_ref<Json::object_t&>(); }
    Json::object_t const& members() const { return value.get_ref<Json::object_t const&>(); }

    // After value was replaced as a whole.
    void reindex()
    {
        index.clear();
        if (members().size() <= kLinearMembers) return;
        index.reserve(members().size());
        for (std::size_t i = 0; i < members().size(); ++i) index.emplace(memberAt(members(), i).first, i);
    }

    Json const* find(char const* key) const
    {
        if (key == nullptr) return nullptr;
        Json::object_t const& m = members();
        if (m.size() > kLinearMembers) {
            auto it = index.find(key);
            return it == index.end() ? nullptr : &memberAt(m, it->second).second;
        }
        for (auto const& member : m)
            if (member.first == key) return &member.second;
        return nullptr;
    }

    // The member key, created as null at the end when it is new. A member set twice keeps
    // its first position.
    Json& slot(char const* key)
    {
        if (Json const* existing = find(key)) return const_cast<Json&>(*existing);
        Json::object_t& m = members();
        m.emplace_back(key, Json());
        if (m.size() == kLinearMembers + 1)
            reindex();
        else if (m.size() > kLinearMembers)
            index.emplace(key, m.size() - 1);
        return m.back().second;
    }

    void assign(Json const& v)
    {
        value = v;
        reindex();
    }
};

namespace
{
// Builds the value of a text as the library's own reader does (a member given twice keeps
// its first position and its last value), but finds a repeated key through a hash of each
// open object's keys instead of the ordered map's linear search, so an object of K members
// is read in O(K) rather than O(K^2).
class tOrderedBuilder : public nlohmann::json_sax<Json>
{
public:
    explicit tOrderedBuilder(Json& root) : m_root(root) {}

    bool null() override { return place(Json(nullptr)) != nullptr; }
    bool boolean(bool v) override { return place(Json(v)) != nullptr; }
    bool number_integer(number_integer_t v) override { return place(Json(v)) != nullptr; }
    bool number_unsigned(number_unsigned_t v) override { return place(Json(v)) != nullptr; }
    bool number_float(number_float_t v, string_t const&) override { return place(Json(v)) != nullptr; }
    bool string(string_t& v) override { return place(Json(std::move(v))) != nullptr; }
    bool binary(binary_t& v) override { return place(Json::binary(std::move(v))) != nullptr; }
    bool start_object(std::size_t) override { return open(Json::object()); }
    bool start_array(std::size_t) override { return open(Json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& k) override
    {
        Json::object_t& object = m_open.back()->get_ref<Json::object_t&>();
        auto known = m_keys.back().emplace(k, object.size());
        if (known.second) object.emplace_back(std::move(k), Json());
        m_member = &memberAt(object, known.first->second).second;
        return true;
    }
    bool parse_error(std::size_t, std::string const&, nlohmann::detail::exception const&) override { return false; }

private:
    // Where the value goes: the root, the end of the open array, or the member just named.
    Json* place(Json&& v)
    {
        if (m_open.empty()) {
            m_root = std::move(v);
            return &m_root;
        }
        Json& container = *m_open.back();
        if (container.is_array()) {
            container.push_back(std::move(v));
            return &container.back();
        }
        *m_member = std::move(v);
        return m_member;
    }
    bool open(Json&& v)
    {
        // A container's own slot never moves while it is open: only its last member or
        // element is ever written, and the enclosing one gets nothing new until it closes.
        m_open.push_back(place(std::move(v)));
        m_keys.emplace_back();
        return true;
    }
    bool close()
    {
        m_open.pop_back();
        m_keys.pop_back();
        return true;
    }

    Json& m_root;
    std::vector<Json*> m_open;
    std::vector<std::unordered_map<std::string, std::size_t>> m_keys;  // per open container
    Json* m_member = nullptr;
};
}

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
}

tJson::tJson() : m_p(new Impl) {}

tJson::tJson(tJson const& other) : m_p(new Impl(*other.m_p)) {}

tJson& tJson::operator=(tJson const& other)
{
    if (this != &other) {
        try {
            m_p->value = other.m_p->value;
            m_p->index = other.m_p->index;
        } catch (...) {
            m_p->value = Json::object();
            m_p->index.clear();
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
    clear();
    if (!nestingWithinLimit(text.str())) return false;
    try {
        Json parsed;
        tOrderedBuilder builder(parsed);
        if (!Json::sax_parse(text.str(), &builder) || !parsed.is_object()) return false;
        m_p->value = std::move(parsed);
        m_p->reindex();
        return true;
    } catch (...) {
        clear();
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
    m_p->index.clear();
}

bool tJson::isEmpty() const
{
    return m_p->value.empty();
}

bool tJson::has(char const* key) const
{
    return m_p->find(key) != nullptr;
}

void tJson::addString(char const* key, tString const& value)
{
    if (!key) return;
    try {
        m_p->slot(key) = value.str();
    } catch (...) {
    }
}

long long tJson::addInt(char const* key, long long value)
{
    if (!key) return value;
    try {
        m_p->slot(key) = static_cast<std::int64_t>(value);
    } catch (...) {
    }
    return value;
}

unsigned long long tJson::addUInt(char const* key, unsigned long long value)
{
    if (!key) return value;
    try {
        m_p->slot(key) = static_cast<std::uint64_t>(value);
    } catch (...) {
    }
    return value;
}

void tJson::addBool(char const* key, bool value)
{
    if (!key) return;
    try {
        m_p->slot(key) = value;
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
        m_p->slot(key) = std::move(array);
    } catch (...) {
    }
}

void tJson::addObject(char const* key, tJson const& object)
{
    if (!key) return;
    try {
        m_p->slot(key) = object.m_p->value;
    } catch (...) {
    }
}

void tJson::addToArray(char const* key, tJson const& object)
{
    if (!key) return;
    try {
        Json& slot = m_p->slot(key);
        if (!slot.is_array()) slot = Json::array();
        slot.push_back(object.m_p->value);
    } catch (...) {
    }
}

tString tJson::getString(char const* key, tString const& def) const
{
    Json const* v = m_p->find(key);
    if (!v || !v->is_string()) return def;
    return tString(v->get_ref<std::string const&>());
}

long long tJson::getInt(char const* key, long long def) const
{
    Json const* v = m_p->find(key);
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
    Json const* v = m_p->find(key);
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
    Json const* v = m_p->find(key);
    if (!v || !v->is_boolean()) return def;
    return v->get<bool>();
}

bool tJson::getBinary(char const* key, tBlob& out) const
{
    out.clear();
    Json const* v = m_p->find(key);
    if (!v || !v->is_string()) return false;
    return base64::decode(tString(v->get_ref<std::string const&>()), out);
}

bool tJson::getStringArray(char const* key, tStringList& out) const
{
    out.clear();
    Json const* v = m_p->find(key);
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
    Json const* v = m_p->find(key);
    if (!v || !v->is_object()) return false;
    try {
        out.m_p->assign(*v);
    } catch (...) {
        out.clear();
        return false;
    }
    return true;
}

bool tJson::getArrayObject(char const* key, unsigned int index, tJson& out) const
{
    Json const* v = m_p->find(key);
    if (!v || !v->is_array() || index >= v->size()) return false;
    Json const& element = (*v)[index];
    if (!element.is_object()) return false;
    try {
        out.m_p->assign(element);
    } catch (...) {
        out.clear();
        return false;
    }
    return true;
}

unsigned int tJson::getArraySize(char const* key) const
{
    Json const* v = m_p->find(key);
    if (!v || !v->is_array()) return 0;
    return static_cast<unsigned int>(v->size());
}

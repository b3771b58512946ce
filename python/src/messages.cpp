// Message classes for Python. Fields are given as keywords named like the members of each
// message's JSON form, so a station script and a JSON file speak the same names; the few fields
// that only exist in the binary body (and the plain texts of the generic messages) are extra
// keywords. Every field is checked after it was taken, so a value of the wrong type, out of
// range or misspelt raises an exception that names it instead of quietly becoming a default.
#include "bindings.h"

#include <pybind11/stl.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <type_traits>
#include <typeindex>

#include "nkProtocol.h"

namespace nkpy
{
namespace
{
typedef nk_message M;

// What a class accepts beyond its JSON members, and what it does with them.
struct Extras
{
    std::set<std::string> names;
    std::function<void(nk_message&, py::dict const&)> apply;
    // JSON members that the reader takes but the writer puts differently, so they cannot be
    // compared after the fact.
    std::set<std::string> unverifiable;
    // Lists that the JSON form leaves out while they are empty.
    std::set<std::string> lists;
};

Extras listsOnly(std::set<std::string> lists)
{
    Extras e;
    e.lists = std::move(lists);
    return e;
}

std::map<std::type_index, std::pair<std::string, Extras>>& registry()
{
    static std::map<std::type_index, std::pair<std::string, Extras>> classes;
    return classes;
}

py::object jsonModule() { return py::module_::import("json"); }

py::dict dictOf(nk_message& msg)
{
    tString text = msg.getJson();
    if (text.isEmpty()) return py::dict();
    return jsonModule().attr("loads")(bytesOf(text));
}

// Bytes become base64 text, the JSON form of binary members.
py::object jsonable(py::handle value)
{
    if (py::isinstance<py::bytes>(value) || py::isinstance<py::bytearray>(value)) {
        return py::module_::import("base64").attr("b64encode")(value).attr("decode")("ascii");
    }
    if (py::isinstance<py::dict>(value)) {
        py::dict out;
        for (auto item : value.cast<py::dict>()) out[item.first] = jsonable(item.second);
        return std::move(out);
    }
    if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
        py::list out;
        for (auto item : value) out.append(jsonable(item));
        return std::move(out);
    }
    return py::reinterpret_borrow<py::object>(value);
}

std::string reprOf(py::handle value) { return py::repr(value).cast<std::string>(); }

// The message must show every given value where it was given; members it adds are its own.
void verify(std::string const& cls, std::string const& path, py::handle given, py::handle taken,
            Extras const& extras, std::string const& key)
{
    if (extras.unverifiable.count(key)) return;
    auto refuse = [&](std::string const& why) {
        throw py::value_error(cls + ": field '" + path + "' = " + reprOf(given) + " was not taken (" + why + ")");
    };
    if (py::isinstance<py::dict>(given)) {
        if (!py::isinstance<py::dict>(taken)) refuse("an object is not expected here");
        py::dict t = taken.cast<py::dict>();
        for (auto item : given.cast<py::dict>()) {
            std::string k = py::str(item.first);
            if (!t.contains(item.first)) refuse("it has no member '" + k + "'");
            verify(cls, path + "." + k, item.second, t[item.first], extras, k);
        }
        return;
    }
    if (py::isinstance<py::list>(given)) {
        if (!py::isinstance<py::list>(taken)) refuse("a list is not expected here");
        py::list g = given.cast<py::list>(), t = taken.cast<py::list>();
        if (g.size() != t.size()) refuse(std::to_string(t.size()) + " of " + std::to_string(g.size()) + " items kept");
        for (size_t i = 0; i < g.size(); ++i)
            verify(cls, path + "[" + std::to_string(i) + "]", g[i], t[i], extras, key);
        return;
    }
    // Times may be given as calendar text; the message keeps the seconds.
    if (py::isinstance<py::str>(given) && py::isinstance<py::int_>(taken) &&
        (key == "startTime" || key == "stopTime"))
        return;
    if (!given.equal(taken)) refuse("wrong type or out of range; the message holds " + reprOf(taken));
}

void applyFields(nk_message& msg, py::dict const& fields)
{
    auto const& entry = registry().at(std::type_index(typeid(msg)));
    std::string const& cls = entry.first;
    Extras const& extras = entry.second;

    py::dict current = dictOf(msg);
    py::dict given, extra;
    for (auto item : fields) {
        std::string k = py::str(item.first);
        if (extras.names.count(k)) {
            extra[item.first] = item.second;
        } else if (k == "action" || k == "type" || k == "tv") {
            // An envelope read from a file may come along; it must belong to this class.
            if (!current.contains(item.first) || (k != "tv" && !py::object(current[item.first]).equal(py::reinterpret_borrow<py::object>(item.second))))
                throw py::value_error(cls + ": " + k + " " + reprOf(item.second) + " does not belong to this message");
        } else if (current.contains(item.first) || extras.lists.count(k)) {
            given[item.first] = jsonable(item.second);
        } else {
            std::string known;
            for (auto c : current) {
                std::string n = py::str(c.first);
                if (n != "action" && n != "type" && n != "tv") known += (known.empty() ? "" : ", ") + n;
            }
            for (auto const& n : extras.lists)
                if (!current.contains(py::str(n))) known += (known.empty() ? "" : ", ") + n;
            for (auto const& n : extras.names) known += (known.empty() ? "" : ", ") + n;
            throw py::type_error(cls + " has no field '" + k + "' (fields: " + (known.empty() ? "none" : known) + ")");
        }
    }
    if (py::len(given) > 0) {
        for (auto item : given) current[item.first] = item.second;
        std::string text = jsonModule().attr("dumps")(current, py::arg("ensure_ascii") = false).cast<std::string>();
        tJson json;
        if (!json.parse(tString(text.data(), static_cast<unsigned int>(text.size()))))
            throw py::value_error(cls + ": the fields do not form a JSON object");
        if (!msg.serializeFromJson(&json)) throw py::value_error(cls + ": the message refused its JSON form");
        py::dict taken = dictOf(msg);
        for (auto item : given) {
            std::string k = py::str(item.first);
            if (taken.contains(item.first))
                verify(cls, k, item.second, taken[item.first], extras, k);
            else if (py::len(item.second) != 0)
                throw py::value_error(cls + ": field '" + k + "' was not taken (the message holds none)");
        }
    }
    if (py::len(extra) > 0) extras.apply(msg, extra);
}

template <class T>
py::class_<T, nk_message> bindMessage(py::module_& m, char const* name, char const* doc,
                                      std::function<T*(M::teVersion)> make, Extras extras = Extras())
{
    registry()[std::type_index(typeid(T))] = {name, std::move(extras)};
    py::class_<T, nk_message> cls(m, name, doc);
    cls.def(py::init([make](unsigned short version, py::kwargs fields) {
                std::unique_ptr<T> msg(make(static_cast<M::teVersion>(version)));
                applyFields(*msg, fields);
                return msg.release();
            }),
            py::arg("version") = 0);
    return cls;
}

template <class T> T& as(nk_message& msg) { return static_cast<T&>(msg); }

unsigned int u32(py::handle v, char const* what)
{
    unsigned long long n;
    try {
        n = v.cast<unsigned long long>();
    } catch (py::cast_error const&) {
        throw py::type_error(std::string(what) + " must be an int, not " + reprOf(v));
    }
    if (n > 0xFFFFFFFFull) throw py::value_error(std::string(what) + " out of range for 32 bits: " + reprOf(v));
    return static_cast<unsigned int>(n);
}

// A member of a record given as a dict, of the type the record holds, or its default.
template <class T> T field(py::dict const& d, char const* key, T def, std::string const& where)
{
    if (!d.contains(key)) return def;
    py::object v = d[key];
    const std::string name = where + "." + key;
    if (std::is_same<T, bool>::value) {
        if (!py::isinstance<py::bool_>(v)) throw py::type_error(name + " must be a bool, not " + reprOf(v));
        return v.cast<T>();
    }
    if (!py::isinstance<py::int_>(v) || py::isinstance<py::bool_>(v))
        throw py::type_error(name + " must be an int, not " + reprOf(v));
    try {
        return v.cast<T>();
    } catch (py::cast_error const&) {
        throw py::value_error(name + " is out of range: " + reprOf(v));
    }
}

void checkKeys(py::dict const& d, std::string const& where, std::set<std::string> const& known)
{
    for (auto item : d) {
        std::string k = py::str(item.first);
        if (!known.count(k)) throw py::type_error(where + " has no member '" + k + "'");
    }
}

bool handled(unsigned int type) { return (type >= 1 && type <= 15) || type == 28 || type == 29; }

py::object parse(py::buffer data, bool strict)
{
    tBlob blob = blobFrom(data);
    if (blob.size() < 4)
        throw py::value_error("message too short: " + std::to_string(blob.size()) + " bytes, the header alone is 4");
    unsigned char const* p = blob.getBuffer();
    const unsigned int type = p[0] | (p[1] << 8), version = p[2] | (p[3] << 8);
    if (!handled(type))
        throw py::value_error("unhandled message type " + std::to_string(type) + " (" +
                              std::string(M::typeName(static_cast<M::teType>(type)).c_str()) + "), version " +
                              std::to_string(version));
    std::unique_ptr<nk_message> msg;
    bool readBack = true;
    {
        py::gil_scoped_release unlocked;
        msg.reset(M::getMessage(&blob));
        if (msg && strict) {
            nk_serializer again;
            readBack = msg->serializeMsg(&again) && again.size() == blob.size() &&
                       std::equal(again.getBuffer(), again.getBuffer() + again.size(), blob.getBuffer());
        }
    }
    if (!msg) throw py::value_error("message type " + std::to_string(type) + " could not be read");
    if (!readBack)
        throw py::value_error(std::string(msg->typeName().c_str()) + " version " + std::to_string(version) +
                              ": the body of " + std::to_string(blob.size() - 4) +
                              " bytes does not read back as sent (cut short, or bytes left over); "
                              "parse(..., strict=False) takes what it can");
    return py::cast(msg.release(), py::return_value_policy::take_ownership);
}

py::bytes toBytes(nk_message& msg)
{
    nk_serializer ser;
    bool ok;
    {
        py::gil_scoped_release unlocked;
        ok = msg.serializeMsg(&ser);
    }
    if (!ok) throw py::value_error(std::string(msg.typeName().c_str()) + ": the body could not be written");
    return bytesOf(ser);
}

std::string className(nk_message& msg)
{
    auto it = registry().find(std::type_index(typeid(msg)));
    return it == registry().end() ? "Message" : it->second.first;
}

py::dict fileDict(nk_msgFile& f)
{
    py::dict d;
    d["uid"] = f.id();
    d["name"] = py::str(std::string(f.name().c_str()));
    d["cs"] = py::str(std::string(f.checksum().c_str()));
    d["mime"] = static_cast<int>(f.mimeType());
    d["content"] = bytesOf(f.content());
    return d;
}
}  // namespace

void bindMessages(py::module_& m)
{
    py::class_<nk_message> base(m, "Message", "A typed, versioned message: the base of every message class");
    base.def_property_readonly("type", [](nk_message& msg) { return static_cast<int>(msg.type()); })
        .def_property_readonly("type_name", [](nk_message& msg) { return std::string(msg.typeName().c_str()); })
        .def_property_readonly("version", [](nk_message& msg) { return static_cast<int>(msg.version()); })
        .def("to_bytes", &toBytes, "The header and body as sent")
        .def("to_json", [](nk_message& msg) { return bytesOf(msg.getJson()).attr("decode")("utf-8", "replace"); },
             "The compact JSON text (empty for the generic messages, which have none)")
        .def("to_dict", &dictOf, "The JSON form as a dict")
        .def("update", [](nk_message& msg, py::kwargs fields) { applyFields(msg, fields); },
             "Set fields by their JSON names, as the constructor does")
        .def_static("parse", &parse, py::arg("data"), py::arg("strict") = true,
                    "The message in these bytes, built by the library's factory. Raises ValueError for a "
                    "short header or an unhandled type; with strict, also when the body does not read back "
                    "exactly as given")
        .def("__getattr__",
             [](nk_message& msg, std::string const& name) -> py::object {
                 py::dict d = dictOf(msg);
                 if (!d.contains(name))
                     throw py::attribute_error(className(msg) + " has no field '" + name + "'");
                 return d[py::str(name)];
             })
        .def("__eq__",
             [](nk_message& a, py::object other) {
                 if (!py::isinstance<nk_message>(other)) return false;
                 nk_message& b = other.cast<nk_message&>();
                 return a.type() == b.type() && toBytes(a).equal(toBytes(b));
             })
        .def("__repr__", [](nk_message& msg) {
            std::string fields = msg.getJson().c_str();
            return className(msg) + "(version=" + std::to_string(msg.version()) + ", " +
                   (fields.empty() ? "{}" : fields) + ")";
        });
    base.attr("__hash__") = py::none();

    m.def("type_name", [](unsigned int t) { return std::string(M::typeName(static_cast<M::teType>(t)).c_str()); },
          py::arg("type"), "The name of a message type number; \"invalid\" for none");
    m.def("vector_u64_checksum",
          [](std::vector<unsigned long long> const& values) {
              return std::string(M::vectorU64Checksum(values).c_str());
          },
          py::arg("values"), "The checksum text of a set of 64-bit ids (order and repetition do not matter)");

    bindMessage<nk_messageTime>(m, "MessageTime", "TIME: the station's clock for the device (currentTime, Unix seconds)",
                                [](M::teVersion v) { return new nk_messageTime(v); });
    bindMessage<nk_messageShutdown>(m, "MessageShutdown", "SHUTDOWN: the device stops",
                                    [](M::teVersion v) { return new nk_messageShutdown(v); });

    auto genericExtras = [](auto* tag) {
        typedef std::remove_pointer_t<decltype(tag)> T;
        Extras e;
        e.names = {"text1", "text2"};
        e.apply = [](nk_message& msg, py::dict const& x) {
            if (x.contains("text1")) as<T>(msg).text1 = textFrom(x["text1"], "text1");
            if (x.contains("text2")) as<T>(msg).text2 = textFrom(x["text2"], "text2");
        };
        return e;
    };
    bindMessage<nk_messageGenericReq>(m, "MessageGenericReq", "GENERIC_REQ: two texts, no JSON form",
                                      [](M::teVersion v) { return new nk_messageGenericReq(v, "", ""); },
                                      genericExtras(static_cast<nk_messageGenericReq*>(nullptr)))
        .def_property_readonly("text1", [](nk_messageGenericReq& g) { return bytesOf(g.text1); })
        .def_property_readonly("text2", [](nk_messageGenericReq& g) { return bytesOf(g.text2); });
    bindMessage<nk_messageGenericRsp>(m, "MessageGenericRsp", "GENERIC_RSP: two texts, no JSON form",
                                      [](M::teVersion v) { return new nk_messageGenericRsp(v, "", ""); },
                                      genericExtras(static_cast<nk_messageGenericRsp*>(nullptr)))
        .def_property_readonly("text1", [](nk_messageGenericRsp& g) { return bytesOf(g.text1); })
        .def_property_readonly("text2", [](nk_messageGenericRsp& g) { return bytesOf(g.text2); });

    bindMessage<nk_messageStateReq>(m, "MessageStateReq", "STATE_REQ: asks for the state; task 1 renames the device",
                                    [](M::teVersion v) { return new nk_messageStateReq(v); });

    Extras stateExtras;
    stateExtras.names = {"second", "legacy"};
    stateExtras.lists = {"images"};
    stateExtras.apply = [](nk_message& msg, py::dict const& x) {
        auto& s = as<nk_messageStateRsp>(msg);
        const unsigned int second = x.contains("second") ? u32(x["second"], "second") : s.second();
        const tString legacy = x.contains("legacy") ? textFrom(x["legacy"], "legacy") : s.legacy();
        s.set(s.serial(), s.ci(), s.csCfg(), s.csSched(), s.omc(), second, s.vc(), s.va(), s.evc(), legacy,
              s.devName(), s.devCus(), s.images());
    };
    bindMessage<nk_messageStateRsp>(m, "MessageStateRsp",
                                    "STATE_RSP: serial, names, both checksums, flags and the images held; "
                                    "'second' and 'legacy' exist only in the binary body",
                                    [](M::teVersion v) { return new nk_messageStateRsp(v); }, stateExtras)
        .def_property_readonly("second", &nk_messageStateRsp::second)
        .def_property_readonly("legacy", [](nk_messageStateRsp& s) { return bytesOf(s.legacy()); })
        .def("image_present", &nk_messageStateRsp::imageUidPresent, py::arg("uid"));

    bindMessage<nk_messageStatisticsReq>(m, "MessageStatisticsReq", "STATISTICS_REQ",
                                         [](M::teVersion v) { return new nk_messageStatisticsReq(v); });
    // The JSON reader takes only imgUpdateCount (peers rely on it leaving the rest alone), so
    // energy and temperatures are set through the class's own setter.
    Extras statExtras;
    statExtras.names = {"energy", "energy_Wh", "energy_mWh", "tempCaseMin", "tempCaseMinTime", "tempCaseMax",
                        "tempCaseMaxTime"};
    statExtras.apply = [](nk_message& msg, py::dict const& x) {
        auto& s = as<nk_messageStatisticsRsp>(msg);
        const std::string w = "MessageStatisticsRsp";
        double energy;
        if (x.contains("energy")) {
            if (x.contains("energy_Wh") || x.contains("energy_mWh"))
                throw py::type_error(w + ": give energy or energy_Wh and energy_mWh, not both");
            energy = x["energy"].cast<double>();
            if (!(energy >= 0.0 && energy < 4294967296.0))
                throw py::value_error(w + ": energy out of range: " + reprOf(x["energy"]));
        } else {
            const unsigned int wh = field<unsigned int>(x, "energy_Wh", s.energy_Wh(), w);
            const unsigned int mwh = field<unsigned int>(x, "energy_mWh", s.energy_mWh(), w);
            if (mwh > 999) throw py::value_error(w + ": energy_mWh must be below 1000, not " + std::to_string(mwh));
            // Half a milliwatt hour above the value, so that the setter's truncation lands on it.
            energy = wh + (mwh + 0.5) / 1000.0;
        }
        s.set(s.imgUpdateCount(), energy, field<short>(x, "tempCaseMin", s.tempCaseMin(), w),
              field<unsigned int>(x, "tempCaseMinTime", s.tempCaseMinTime(), w),
              field<short>(x, "tempCaseMax", s.tempCaseMax(), w),
              field<unsigned int>(x, "tempCaseMaxTime", s.tempCaseMaxTime(), w));
    };
    bindMessage<nk_messageStatisticsRsp>(m, "MessageStatisticsRsp",
                                         "STATISTICS_RSP: image updates, energy and case temperatures; "
                                         "'energy' sets energy_Wh and energy_mWh from watt hours",
                                         [](M::teVersion v) { return new nk_messageStatisticsRsp(v); }, statExtras)
        .def_property_readonly("energy", &nk_messageStatisticsRsp::energyConsumption_Wh);

    bindMessage<nk_messageGetDisplayConfigurationReq>(
        m, "MessageGetDisplayConfigurationReq", "GET_DISPLAY_CONFIGURATION_REQ",
        [](M::teVersion v) { return new nk_messageGetDisplayConfigurationReq(v); });
    bindMessage<nk_messageGetDisplayConfigurationRsp>(
        m, "MessageGetDisplayConfigurationRsp",
        "GET_DISPLAY_CONFIGURATION_RSP: display configurations (dispConfigs) and their logical displays (logDisps); "
        "an id with the bit 0x8000 is the current one",
        [](M::teVersion v) { return new nk_messageGetDisplayConfigurationRsp(v); }, listsOnly({"dispConfigs"}));

    bindMessage<nk_messageSetConfigReq>(m, "MessageSetConfigReq",
                                        "SET_CONFIG_REQ: a device configuration with time slots and frames",
                                        [](M::teVersion v) { return new nk_messageSetConfigReq(v); },
                                        listsOnly({"timeslots", "frames"}))
        .def(
            "checksum",
            [](nk_messageSetConfigReq& c, py::object version) {
                M::teVersion v = version.is_none() ? c.version() : static_cast<M::teVersion>(version.cast<unsigned short>());
                return std::string(c.checksum(v).c_str());
            },
            py::arg("version") = py::none(), "The configuration checksum a device reports (its own version by default)");
    bindMessage<nk_messageSetConfigRsp>(m, "MessageSetConfigRsp", "SET_CONFIG_RSP: the checksum (cs) the device holds",
                                        [](M::teVersion v) { return new nk_messageSetConfigRsp(v); });

    // Schedules are built here rather than through the JSON reader, which takes every schedule's
    // entries from one array at the root of the document (a quirk peers keep).
    Extras scheduleExtras;
    scheduleExtras.names = {"schedules"};
    scheduleExtras.apply = [](nk_message& msg, py::dict const& x) {
        auto& set = as<nk_messageSetSchedulesReq>(msg);
        set.clear();
        size_t i = 0;
        for (auto item : x["schedules"]) {
            const std::string where = "schedules[" + std::to_string(i++) + "]";
            if (!py::isinstance<py::dict>(item)) throw py::type_error(where + " must be a dict");
            py::dict d = item.cast<py::dict>();
            checkKeys(d, where, {"uid", "name", "startTime", "stopTime", "flags", "frame", "entries"});
            nk_messageSchedule* schedule = nullptr;
            const unsigned long long uid = field<unsigned long long>(d, "uid", 0ull, where);
            const tString name = d.contains("name") ? textFrom(d["name"], (where + ".name").c_str()) : tString();
            const unsigned int flags = field<unsigned int>(d, "flags", 0u, where);
            // The logical display the schedule shows on; its JSON name is "frame".
            const unsigned short display = field<unsigned short>(d, "frame", static_cast<unsigned short>(0), where);
            auto isText = [&](char const* k) { return d.contains(k) && py::isinstance<py::str>(d[k]); };
            if (isText("startTime") || isText("stopTime")) {
                auto text = [&](char const* k) {
                    if (!d.contains(k)) return tString("0");
                    if (isText(k)) return textFrom(d[k], k);
                    return tString(std::to_string(field<long long>(d, k, 0ll, where)));
                };
                schedule = set.addSchedule_(uid, name, text("startTime"), text("stopTime"), flags, display);
            } else {
                schedule = set.addSchedule_(uid, name, field<long long>(d, "startTime", 0ll, where),
                                            field<long long>(d, "stopTime", 0ll, where), flags, display);
            }
            if (!d.contains("entries")) continue;
            size_t k = 0;
            for (auto e : d["entries"]) {
                const std::string at = where + ".entries[" + std::to_string(k++) + "]";
                if (!py::isinstance<py::dict>(e)) throw py::type_error(at + " must be a dict");
                py::dict entry = e.cast<py::dict>();
                checkKeys(entry, at, {"uid", "name", "duration", "imageUid", "handled"});
                schedule->addScheduleEntry(
                    field<unsigned long long>(entry, "uid", 0ull, at),
                    entry.contains("name") ? textFrom(entry["name"], (at + ".name").c_str()) : tString(),
                    field<unsigned int>(entry, "duration", 0u, at), field<unsigned long long>(entry, "imageUid", 0ull, at),
                    field<bool>(entry, "handled", false, at));
            }
        }
    };
    bindMessage<nk_messageSetSchedulesReq>(
        m, "MessageSetSchedulesReq",
        "SET_SCHEDULES_REQ: schedules and their entries; a schedule's 'frame' sets its logical display",
        [](M::teVersion v) { return new nk_messageSetSchedulesReq(v); }, scheduleExtras)
        .def(
            "checksum",
            [](nk_messageSetSchedulesReq& s, py::object version) {
                M::teVersion v = version.is_none() ? s.version() : static_cast<M::teVersion>(version.cast<unsigned short>());
                return std::string(s.checksum(v).c_str());
            },
            py::arg("version") = py::none(), "The schedules checksum a device reports (its own version by default)")
        .def("required_image_ids", [](nk_messageSetSchedulesReq& s) {
            tUidList ids;
            s.getRequiredImageUidList(ids);
            return std::vector<unsigned long long>(ids.begin(), ids.end());
        });
    bindMessage<nk_messageSetSchedulesRsp>(m, "MessageSetSchedulesRsp",
                                           "SET_SCHEDULES_RSP: the checksum (cs) the device holds",
                                           [](M::teVersion v) { return new nk_messageSetSchedulesRsp(v); });

    bindMessage<nk_messageEventsReq>(m, "MessageEventsReq", "EVENTS_REQ",
                                     [](M::teVersion v) { return new nk_messageEventsReq(v); });
    py::enum_<nk_messageEventsRsp::teSortCriteria>(m, "EventSort")
        .value("TIME_FIRST_DESC", nk_messageEventsRsp::SORT_TIME_FIRST_DESC)
        .value("TIME_FIRST_ASC", nk_messageEventsRsp::SORT_TIME_FIRST_ASC)
        .value("TIME_LAST_DESC", nk_messageEventsRsp::SORT_TIME_LAST_DESC)
        .value("TIME_LAST_ASC", nk_messageEventsRsp::SORT_TIME_LAST_ASC)
        .value("ID_DESC", nk_messageEventsRsp::SORT_ID_DESC)
        .value("ID_ASC", nk_messageEventsRsp::SORT_ID_ASC);
    bindMessage<nk_messageEventsRsp>(m, "MessageEventsRsp", "EVENTS_RSP: the device's event log",
                                     [](M::teVersion v) { return new nk_messageEventsRsp(v, nullptr, nullptr); },
                                     listsOnly({"events"}))
        // The sort criterion is one process-wide value: the GIL stays held so sorts never overlap.
        .def("sort", &nk_messageEventsRsp::sort, py::arg("criterion"))
        .def_static("category_color",
                    [](unsigned char c) { return std::string(nk_messageEventsRsp::categoryColor(c).c_str()); },
                    py::arg("category"));

    Extras imageExtras;
    imageExtras.names = {"files"};
    imageExtras.lists = {"images"};
    imageExtras.apply = [](nk_message& msg, py::dict const& x) {
        auto& image = as<nk_messageImage>(msg);
        for (auto f : x["files"]) {
            py::dict d = f.cast<py::dict>();
            for (char const* k : {"uid", "name", "mime", "content"})
                if (!d.contains(k)) throw py::value_error(std::string("MessageImage: a file needs '") + k + "'");
            tBlob content = blobFrom(d["content"]);
            tString mime = textFrom(d["mime"], "mime");
            if (!image.add(d["uid"].cast<unsigned long long>(), textFrom(d["name"], "name"), mime, &content))
                throw py::value_error("MessageImage: file " + reprOf(d["uid"]) + " was refused (mime type " +
                                      reprOf(d["mime"]) + ")");
        }
    };
    bindMessage<nk_messageImage>(m, "MessageImage",
                                 "IMAGE: images to store or remove; 'files' takes dicts of uid, name, mime "
                                 "(e.g. \"image/png\") and content bytes, and computes each checksum",
                                 [](M::teVersion v) { return new nk_messageImage(v); }, imageExtras)
        .def_property_readonly("files", [](nk_messageImage& image) {
            py::list out;
            for (unsigned int i = 0; i < image.count(); ++i) out.append(fileDict(*image.get(i)));
            return out;
        });
}
}  // namespace nkpy

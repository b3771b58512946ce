#include "http_api.h"

#include <future>

#include <httplib.h>

#include "tool_error.h"

namespace
{
using Json = nlohmann::json;

// Runs f on the polling thread and gives its result (or its exception) to the HTTP thread.
template <typename F>
auto onIo(asio::io_context& io, F f) -> decltype(f())
{
    std::packaged_task<decltype(f())()> task(std::move(f));
    auto result = task.get_future();
    asio::post(io, [&task] { task(); });
    return result.get();
}

// A refusal with its HTTP status and, where one is to blame, the member of the request.
struct ApiError
{
    int status;
    std::string message;
    std::string member;
};

void reply(httplib::Response& res, int status, Json const& body)
{
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

void refuse(httplib::Response& res, ApiError const& e)
{
    Json body = {{"error", e.message}};
    if (!e.member.empty()) body["member"] = e.member;
    reply(res, e.status, body);
}

// Numbers a JavaScript client would round (above 2^53) are given as decimal text as well.
void addId(Json& object, char const* key, std::uint64_t value)
{
    object[key] = value;
    object[std::string(key) + "Text"] = std::to_string(value);
}

unsigned int addressOf(std::string const& text)
{
    if (text.size() > 10 || std::stoull(text) > 0xFFFFFFFDull)
        throw ApiError{400, "address " + text + " is beyond 4294967293", "address"};
    return static_cast<unsigned int>(std::stoull(text));
}

long long queryNumber(httplib::Request const& req, char const* name, long long fallback, long long min, long long max)
{
    if (!req.has_param(name)) return fallback;
    const std::string text = req.get_param_value(name);
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos)
        throw ApiError{400, std::string(name) + " must be a whole number, not '" + text + "'", name};
    const long long value = std::stoll(text);
    if (value < min || value > max)
        throw ApiError{400, std::string(name) + " out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")",
                       name};
    return value;
}

Json imageSetJson(std::vector<DesiredImage> const& images)
{
    Json set = Json::array();
    for (DesiredImage const& image : images) {
        Json member;
        addId(member, "uid", image.uid);
        member["image"] = image.image;
        set.push_back(member);
    }
    return set;
}

// The mobile link in the low byte of the extended state: bit 0 up, bits 1 to 7 the access network.
Json mobileJson(unsigned long long extState)
{
    static char const* const kLinks[] = {"none", "2G", "3G", "4G", "NB-IoT", "LTE-M", "5G"};
    const unsigned int ran = static_cast<unsigned int>((extState >> 1) & 0x7F);
    return {{"link", ran < sizeof kLinks / sizeof kLinks[0] ? std::string(kLinks[ran]) : "unknown " + std::to_string(ran)},
            {"active", (extState & 1) != 0}};
}

Json deviceJson(DeviceRecord const& d, EffectiveDesired const& desired)
{
    Json images = Json::array();
    for (std::uint64_t id : d.images) {
        Json image;
        addId(image, "id", id);
        // The content this station pushed under that uid, when it did.
        auto pushed = d.pushedImages.find(id);
        if (pushed != d.pushedImages.end()) image["image"] = pushed->second;
        images.push_back(image);
    }
    Json out = {{"address", d.address},
                {"group", d.group},
                {"transport", d.transport},
                {"endpoint", d.endpoint.empty() ? Json(nullptr) : Json(d.endpoint)},
                {"online", d.online},
                {"lastSeen", d.lastSeen_ms},
                {"onlineSince", d.onlineSince_ms},
                {"status", d.status},
                {"error", d.lastError},
                {"attempts", d.attempts},
                {"nextAttempt", d.nextAttempt_ms}};
    if (d.reported)
        out["reported"] = {{"serial", d.serial}, {"name", d.name},   {"csCfg", d.csCfg},
                           {"csSched", d.csSched}, {"flags", d.flags}, {"images", images},
                           {"version", d.version}, {"mobile", mobileJson(d.extState)}};
    else
        out["reported"] = nullptr;
    Json want = Json::object();
    if (desired.config) want["csCfg"] = desired.csCfg;
    if (desired.schedules) want["csSched"] = desired.csSched;
    if (desired.name) want["name"] = *desired.name;
    if (desired.images) want["images"] = imageSetJson(*desired.images);
    out["desired"] = want;
    out["difference"] = describeDifference(d, desired);
    Json displays = d.displaysJson.empty() ? Json(nullptr) : Json::parse(d.displaysJson, nullptr, false);
    out["displays"] = displays.is_discarded() ? Json(nullptr) : displays;
    return out;
}

Json imageJson(ImageRecord const& image)
{
    return {{"id", image.id}, {"type", image.type}, {"name", image.name}, {"bytes", image.bytes}, {"created", image.created_ms}};
}

Json desiredJson(std::optional<DesiredState> const& d)
{
    Json out = {{"config", nullptr}, {"schedules", nullptr}, {"name", nullptr}, {"images", nullptr}, {"changed", 0}};
    if (!d) return out;
    if (d->config) out["config"] = Json::parse(*d->config);
    if (d->schedules) out["schedules"] = Json::parse(*d->schedules);
    if (d->name) out["name"] = *d->name;
    if (d->images) out["images"] = imageSetJson(imageSetFromJsonText(*d->images));
    out["changed"] = d->changed_ms;
    return out;
}

// An image uid as a JSON number or, for clients that would round it, as decimal text.
std::uint64_t imageUid(Json const& value, std::string const& where)
{
    std::uint64_t uid = 0;
    if (value.is_number_unsigned()) {
        uid = value.get<std::uint64_t>();
    } else if (value.is_string()) {
        const std::string text = value.get<std::string>();
        if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos ||
            (text.size() == 20 && text > "18446744073709551615"))
            throw ApiError{400, where + ".uid must be a whole number of 64 bits, not \"" + text + "\"", "images"};
        uid = std::stoull(text);
    } else {
        throw ApiError{400, where + ".uid must be a whole number of 64 bits or its decimal text", "images"};
    }
    if (uid == 0) throw ApiError{400, where + ".uid must not be 0 (no image)", "images"};
    return uid;
}

// The shape of an image set; that every content id is held is checked against the store.
std::vector<DesiredImage> parseImageSet(Json const& value)
{
    if (!value.is_array()) throw ApiError{400, "images must be an array of {\"uid\", \"image\"} or null", "images"};
    std::vector<DesiredImage> out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const std::string where = "images[" + std::to_string(i) + "]";
        Json const& member = value[i];
        if (!member.is_object()) throw ApiError{400, where + " must be an object {\"uid\", \"image\"}", "images"};
        for (auto it = member.begin(); it != member.end(); ++it)
            if (it.key() != "uid" && it.key() != "uidText" && it.key() != "image")
                throw ApiError{400, where + ": unknown member \"" + it.key() + "\" (uid, image)", "images"};
        if (!member.contains("uid")) throw ApiError{400, where + ".uid is missing", "images"};
        const std::uint64_t uid = imageUid(member["uid"], where);
        if (!member.contains("image") || !member["image"].is_string() ||
            !ImageStore::isContentId(member["image"].get<std::string>()))
            throw ApiError{400, where + ".image must be the content id of an uploaded image (40 hexadecimal digits)",
                           "images"};
        for (DesiredImage const& earlier : out)
            if (earlier.uid == uid) throw ApiError{400, where + ": uid " + std::to_string(uid) + " is given twice", "images"};
        out.push_back(DesiredImage{uid, member["image"].get<std::string>()});
    }
    return out;
}

// Refuses a desired state whose image set names content the station does not hold.
void checkImagesHeld(FleetStore& store, DesiredState const& desired)
{
    if (!desired.images) return;
    const std::vector<DesiredImage> set = imageSetFromJsonText(*desired.images);
    for (std::size_t i = 0; i < set.size(); ++i)
        if (!store.image(set[i].image))
            throw ApiError{400, "images[" + std::to_string(i) + "].image: unknown image " + set[i].image +
                                    " (upload it with POST /api/images first)",
                           "images"};
}

// Reads and checks a whole desired state; nothing is stored unless every member is right.
DesiredState parseDesired(std::string const& body)
{
    Json given = Json::parse(body, nullptr, false);
    if (given.is_discarded()) throw ApiError{400, "the body is not valid JSON", ""};
    if (!given.is_object()) throw ApiError{400, "the body must be a JSON object", ""};
    DesiredState out;
    for (auto it = given.begin(); it != given.end(); ++it) {
        const std::string& key = it.key();
        Json const& value = it.value();
        if (key == "config") {
            if (value.is_null()) continue;
            if (!value.is_object()) throw ApiError{400, "config must be an object or null", "config"};
            try {
                configFromJson(value.dump(), std::nullopt);
            } catch (ToolError const& e) {
                throw ApiError{400, e.what(), "config"};
            }
            out.config = value.dump();
        } else if (key == "schedules") {
            if (value.is_null()) continue;
            if (!value.is_object()) throw ApiError{400, "schedules must be an object or null", "schedules"};
            try {
                schedulesFromJsonText(value.dump());
            } catch (ToolError const& e) {
                throw ApiError{400, e.what(), "schedules"};
            }
            out.schedules = value.dump();
        } else if (key == "name") {
            if (value.is_null()) continue;
            if (!value.is_string()) throw ApiError{400, "name must be a string or null", "name"};
            const std::string name = value.get<std::string>();
            if (name.size() > 255) throw ApiError{400, "name is longer than 255 bytes", "name"};
            out.name = name;
        } else if (key == "images") {
            if (value.is_null()) continue;
            out.images = imageSetToJsonText(parseImageSet(value));
        } else {
            throw ApiError{400, "unknown member \"" + key + "\" (config, schedules, name, images)", key};
        }
    }
    // Checked together as well: the name goes into the configuration.
    if (out.config && out.name) {
        try {
            configFromJson(*out.config, out.name);
        } catch (ToolError const& e) {
            throw ApiError{400, e.what(), "name"};
        }
    }
    out.changed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return out;
}

bool validGroupName(std::string const& name)
{
    return !name.empty() && name.size() <= 64 &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
               std::string::npos;
}

// Wraps a handler so that refusals and failures become JSON answers.
template <typename H>
httplib::Server::Handler guarded(H handler)
{
    return [handler](httplib::Request const& req, httplib::Response& res) {
        try {
            handler(req, res);
        } catch (ApiError const& e) {
            refuse(res, e);
        } catch (std::exception const& e) {
            refuse(res, ApiError{500, e.what(), ""});
        }
    };
}
}

HttpApi::HttpApi(asio::io_context& io, FleetStore& store, ImageStore& images, Reconciler& reconciler,
                 ChangeLog& changes, std::function<nlohmann::json()> linkStatus)
    : m_io(io),
      m_store(store),
      m_images(images),
      m_reconciler(reconciler),
      m_changes(changes),
      m_linkStatus(std::move(linkStatus)),
      m_server(new httplib::Server)
{
    routes();
}

HttpApi::~HttpApi()
{
    stop();
}

Endpoint HttpApi::listen(Endpoint const& ep)
{
    Endpoint bound = ep;
    if (ep.port == 0) {
        const int port = m_server->bind_to_any_port(ep.host);
        if (port <= 0) throw ToolError("cannot listen on " + ep.text(), EXIT_CONNECT);
        bound.port = static_cast<unsigned short>(port);
    } else if (!m_server->bind_to_port(ep.host, ep.port)) {
        throw ToolError("cannot listen on " + ep.text(), EXIT_CONNECT);
    }
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    return bound;
}

void HttpApi::stop()
{
    m_changes.close();
    if (m_server) m_server->stop();
    if (m_thread.joinable()) m_thread.join();
}

void HttpApi::serveFiles(std::string const& webRoot, std::string const& chartDir)
{
    m_server->set_file_extension_and_mimetype_mapping("js", "text/javascript");
    m_server->set_file_extension_and_mimetype_mapping("mjs", "text/javascript");
    if (!m_server->set_mount_point("/", webRoot)) throw ToolError("no dashboard files in " + webRoot, EXIT_USAGE);
    // The charting library is Debian's; a station without it still serves the rest.
    if (!chartDir.empty()) m_server->set_mount_point("/lib/chart.js", chartDir);
}

void HttpApi::routes()
{
    httplib::Server& s = *m_server;
    // The largest body taken: an image upload (larger ones are answered 413 unread).
    s.set_payload_max_length(64u << 20);

    s.Get("/api/summary", guarded([this](httplib::Request const&, httplib::Response& res) {
        reply(res, 200, onIo(m_io, [this] {
                  Json byStatus = Json::object();
                  unsigned int online = 0;
                  for (auto const& entry : m_reconciler.devices()) {
                      byStatus[entry.second.status] = byStatus.value(entry.second.status, 0) + 1;
                      if (entry.second.online) ++online;
                  }
                  Json summary = {{"devices", m_reconciler.devices().size()},
                                  {"online", online},
                                  {"status", byStatus},
                                  {"working", m_reconciler.inFlight()},
                                  {"queued", m_reconciler.queued()},
                                  {"schemaVersion", m_store.schemaVersion()},
                                  {"lastChange", m_changes.last()}};
                  summary.update(m_linkStatus());
                  return summary;
              }));
    }));

    s.Get("/api/devices", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const std::string status = req.get_param_value("status");
        const std::string group = req.get_param_value("group");
        const std::string online = req.get_param_value("online");
        if (!status.empty() && status != "in sync" && status != "pending" && status != "pushing" &&
            status != "failed" && status != "offline")
            throw ApiError{400, "status must be one of in sync, pending, pushing, failed, offline", "status"};
        if (!online.empty() && online != "true" && online != "false")
            throw ApiError{400, "online must be true or false", "online"};
        const long long limit = queryNumber(req, "limit", 100000, 1, 1000000);
        reply(res, 200, onIo(m_io, [&] {
                  Json list = Json::array();
                  for (auto const& entry : m_reconciler.devices()) {
                      DeviceRecord const& d = entry.second;
                      if ((!status.empty() && d.status != status) || (!group.empty() && d.group != group) ||
                          (!online.empty() && d.online != (online == "true")))
                          continue;
                      if (static_cast<long long>(list.size()) >= limit) break;
                      list.push_back(deviceJson(d, m_reconciler.desiredFor(d)));
                  }
                  return list;
              }));
    }));

    s.Get(R"(/api/devices/(\d+))", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const unsigned int address = addressOf(req.matches[1]);
        reply(res, 200, onIo(m_io, [&] {
                  auto found = m_reconciler.devices().find(address);
                  if (found == m_reconciler.devices().end())
                      throw ApiError{404, "unknown device " + std::to_string(address), "address"};
                  return deviceJson(found->second, m_reconciler.desiredFor(found->second));
              }));
    }));

    // Registers a device before it is first heard of, moves it to another group, or changes how
    // it is reached: {"transport": "tcp", "endpoint": "HOST:PORT"} has the station dial it,
    // {"transport": "mqtt"} leaves it to the broker.
    s.Put(R"(/api/devices/(\d+))", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const unsigned int address = addressOf(req.matches[1]);
        Json given = Json::parse(req.body, nullptr, false);
        if (given.is_discarded() || !given.is_object()) throw ApiError{400, "the body must be a JSON object", ""};
        for (auto it = given.begin(); it != given.end(); ++it)
            if (it.key() != "group" && it.key() != "transport" && it.key() != "endpoint")
                throw ApiError{400, "unknown member \"" + it.key() + "\" (group, transport, endpoint)", it.key()};
        if (given.empty()) throw ApiError{400, "give group, transport or both", ""};
        std::optional<std::string> group;
        if (given.contains("group")) {
            if (!given["group"].is_string() || !validGroupName(given["group"].get<std::string>()))
                throw ApiError{400, "group must be a name of letters, digits, - _ . (1 to 64)", "group"};
            group = given["group"].get<std::string>();
        }
        std::optional<std::string> transport;
        std::string endpoint;
        if (given.contains("transport")) {
            if (!given["transport"].is_string() || (given["transport"] != "tcp" && given["transport"] != "mqtt"))
                throw ApiError{400, "transport must be \"tcp\" or \"mqtt\"", "transport"};
            transport = given["transport"].get<std::string>();
        }
        if (given.contains("endpoint") && transport != std::string("tcp"))
            throw ApiError{400, "an endpoint is given with transport \"tcp\"", "endpoint"};
        if (transport == std::string("tcp")) {
            if (!given.contains("endpoint") || !given["endpoint"].is_string())
                throw ApiError{400, "transport \"tcp\" needs the endpoint the station dials, \"HOST:PORT\"", "endpoint"};
            try {
                endpoint = dialEndpoint(given["endpoint"].get<std::string>()).text();
            } catch (ToolError const& e) {
                throw ApiError{400, e.what(), "endpoint"};
            }
        }
        reply(res, 200, onIo(m_io, [&] {
                  if (group) m_reconciler.setGroup(address, *group);
                  if (transport) m_reconciler.setLink(address, *transport, endpoint);
                  DeviceRecord const& d = m_reconciler.devices().at(address);
                  return deviceJson(d, m_reconciler.desiredFor(d));
              }));
    }));

    s.Get(R"(/api/devices/(\d+)/desired)", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const unsigned int address = addressOf(req.matches[1]);
        reply(res, 200, onIo(m_io, [&] {
                  if (m_reconciler.devices().count(address) == 0)
                      throw ApiError{404, "unknown device " + std::to_string(address), "address"};
                  return desiredJson(m_store.desired(FleetStore::DEVICE, std::to_string(address)));
              }));
    }));

    s.Put(R"(/api/devices/(\d+)/desired)", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const unsigned int address = addressOf(req.matches[1]);
        const DesiredState desired = parseDesired(req.body);
        reply(res, 200, onIo(m_io, [&] {
                  if (m_reconciler.devices().count(address) == 0)
                      throw ApiError{404, "unknown device " + std::to_string(address), "address"};
                  checkImagesHeld(m_store, desired);
                  m_store.putDesired(FleetStore::DEVICE, std::to_string(address), desired);
                  m_reconciler.deviceChanged(address);
                  return desiredJson(desired);
              }));
    }));

    // Checks a desired state as a PUT would, and stores nothing: a page shows the refusal by
    // member, or the checksums the panels will confirm, before the operator saves.
    // The checksums come from the polling thread, whose cache of them is not shared.
    s.Post("/api/validate", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const DesiredState desired = parseDesired(req.body);
        reply(res, 200, onIo(m_io, [&] {
                  checkImagesHeld(m_store, desired);
                  const EffectiveDesired effective = resolveDesired(desired, std::nullopt);
                  Json out = {{"valid", true}};
                  if (effective.config) out["csCfg"] = effective.csCfg;
                  if (effective.schedules) out["csSched"] = effective.csSched;
                  return out;
              }));
    }));

    s.Get("/api/groups", guarded([this](httplib::Request const&, httplib::Response& res) {
        reply(res, 200, onIo(m_io, [&] { return Json(m_store.groups()); }));
    }));

    s.Get(R"(/api/groups/([^/]+)/desired)", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const std::string group = req.matches[1];
        if (!validGroupName(group)) throw ApiError{400, "group must be a name of letters, digits, - _ .", "group"};
        reply(res, 200, onIo(m_io, [&] { return desiredJson(m_store.desired(FleetStore::GROUP, group)); }));
    }));

    s.Put(R"(/api/groups/([^/]+)/desired)", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const std::string group = req.matches[1];
        if (!validGroupName(group)) throw ApiError{400, "group must be a name of letters, digits, - _ .", "group"};
        const DesiredState desired = parseDesired(req.body);
        reply(res, 200, onIo(m_io, [&] {
                  checkImagesHeld(m_store, desired);
                  m_store.putDesired(FleetStore::GROUP, group, desired);
                  m_reconciler.desiredChanged();
                  return desiredJson(desired);
              }));
    }));

    // An image file for the desired state: the body is the file, its type from ?type= or the
    // Content-Type header. Kept once per content; the answer gives its content id.
    s.Post("/api/images", guarded([this](httplib::Request const& req, httplib::Response& res) {
        std::string type = req.has_param("type") ? req.get_param_value("type") : req.get_header_value("Content-Type");
        type = type.substr(0, type.find(';'));
        while (!type.empty() && type.back() == ' ') type.pop_back();
        if (type.rfind("multipart/", 0) == 0)
            throw ApiError{415, "send the file itself as the body, not a multipart form", "type"};
        if (type.empty()) throw ApiError{415, "the image type is missing: give ?type= or a Content-Type", "type"};
        if (req.body.empty()) throw ApiError{400, "the body is empty: it must be the image file", "body"};
        const std::string problem = imageTypeProblem(type, req.body);
        if (!problem.empty())
            throw ApiError{problem.rfind("the content", 0) == 0 ? 400 : 415, problem,
                           problem.rfind("the content", 0) == 0 ? "body" : "type"};
        const std::string name = req.has_param("name") ? req.get_param_value("name") : "image";
        if (name.empty() || name.size() > 255) throw ApiError{400, "name must be 1 to 255 bytes", "name"};
        ImageStore::Added added = onIo(m_io, [&] { return m_images.add(req.body, type, name); });
        if (added.isNew) m_changes.add(Json{{"kind", "image"}, {"id", added.record.id}}.dump());
        reply(res, added.isNew ? 201 : 200, imageJson(added.record));
    }));

    s.Get("/api/images", guarded([this](httplib::Request const&, httplib::Response& res) {
        reply(res, 200, onIo(m_io, [&] {
                  Json list = Json::array();
                  for (ImageRecord const& image : m_store.images()) list.push_back(imageJson(image));
                  return list;
              }));
    }));

    // The file itself, for thumbnails; a content id never names other bytes, so it may be cached.
    s.Get(R"(/api/images/([^/]+))", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const std::string id = req.matches[1];
        if (!ImageStore::isContentId(id))
            throw ApiError{400, "an image id is 40 lower-case hexadecimal digits, not '" + id + "'", "id"};
        const std::optional<ImageRecord> image = onIo(m_io, [&] { return m_store.image(id); });
        std::string content;
        if (!image || !m_images.read(id, content)) throw ApiError{404, "unknown image " + id, "id"};
        res.set_header("Cache-Control", "max-age=31536000, immutable");
        res.set_content(std::move(content), image->type);
    }));

    s.Get("/api/events", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const long long since = queryNumber(req, "since", 0, 0, (1LL << 62));
        const long long limit = queryNumber(req, "limit", 1000, 1, 100000);
        const long long category = queryNumber(req, "category", -1, 0, 255);
        const long long address = queryNumber(req, "address", -1, 0, 0xFFFFFFFDll);
        reply(res, 200, onIo(m_io, [&] {
                  Json list = Json::array();
                  for (EventRecord const& e : m_store.events(since, static_cast<unsigned int>(limit),
                                                             static_cast<int>(category), address)) {
                      Json item = {{"seq", e.seq},   {"address", e.address}, {"time", e.time},
                                   {"category", e.category}, {"type", e.type}, {"text", e.text}};
                      addId(item, "id", e.eventId);
                      list.push_back(item);
                  }
                  return list;
              }));
    }));

    s.Get("/api/statistics", guarded([this](httplib::Request const& req, httplib::Response& res) {
        const long long since = queryNumber(req, "since", 0, 0, (1LL << 62));
        const long long limit = queryNumber(req, "limit", 1000, 1, 100000);
        const long long address = queryNumber(req, "address", -1, 0, 0xFFFFFFFDll);
        reply(res, 200, onIo(m_io, [&] {
                  Json list = Json::array();
                  for (StatisticsSample const& sample :
                       m_store.statistics(since, static_cast<unsigned int>(limit), address))
                      list.push_back({{"seq", sample.seq},
                                      {"address", sample.address},
                                      {"time", sample.time_ms},
                                      {"values", Json::parse(sample.json, nullptr, false)}});
                  return list;
              }));
    }));

    // Server-sent events: one "change" per device status, presence, new events or broker state.
    s.Get("/api/stream", [this](httplib::Request const& req, httplib::Response& res) {
        std::uint64_t from = m_changes.last();
        if (req.has_header("Last-Event-ID")) {
            const std::string text = req.get_header_value("Last-Event-ID");
            if (!text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos)
                from = std::stoull(text);
        }
        auto cursor = std::make_shared<std::uint64_t>(from);
        res.set_header("Cache-Control", "no-cache");
        res.set_chunked_content_provider("text/event-stream", [this, cursor](std::size_t, httplib::DataSink& sink) {
            bool lost = false;
            auto batch = m_changes.after(*cursor, std::chrono::seconds(15), lost);
            if (m_changes.closed()) {
                sink.done();
                return true;
            }
            std::string text;
            if (lost) text += "event: overflow\ndata: {}\n\n";
            for (auto const& change : batch) {
                text += "id: " + std::to_string(change.first) + "\nevent: change\ndata: " + change.second + "\n\n";
                *cursor = change.first;
            }
            if (text.empty()) text = ": keep-alive\n\n";
            return sink.write(text.data(), text.size());
        });
    });
}

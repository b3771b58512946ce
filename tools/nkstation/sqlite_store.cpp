// The fleet store on SQLite: one file in WAL mode, a schema version in user_version and the
// migrations that lead from each version to the next.
#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "fleet_store.h"
#include "tool_error.h"

namespace
{
// Migration i takes the schema from version i to i + 1; a new version only appends.
const char* const kMigrations[] = {
    R"(CREATE TABLE devices (
         address INTEGER PRIMARY KEY,
         grp TEXT NOT NULL DEFAULT 'default',
         transport TEXT NOT NULL DEFAULT 'mqtt',
         last_seen INTEGER NOT NULL DEFAULT 0,
         online INTEGER NOT NULL DEFAULT 0,
         reported INTEGER NOT NULL DEFAULT 0,
         serial INTEGER NOT NULL DEFAULT 0,
         name TEXT NOT NULL DEFAULT '',
         cs_cfg TEXT NOT NULL DEFAULT '',
         cs_sched TEXT NOT NULL DEFAULT '',
         images TEXT NOT NULL DEFAULT '[]',
         flags INTEGER NOT NULL DEFAULT 0,
         version TEXT NOT NULL DEFAULT '',
         status TEXT NOT NULL DEFAULT 'pending',
         last_error TEXT NOT NULL DEFAULT '',
         attempts INTEGER NOT NULL DEFAULT 0,
         next_attempt INTEGER NOT NULL DEFAULT 0);
       CREATE TABLE desired (
         scope INTEGER NOT NULL,
         key TEXT NOT NULL,
         config TEXT,
         schedules TEXT,
         name TEXT,
         changed INTEGER NOT NULL DEFAULT 0,
         PRIMARY KEY (scope, key));
       CREATE TABLE events (
         seq INTEGER PRIMARY KEY AUTOINCREMENT,
         address INTEGER NOT NULL,
         event_id INTEGER NOT NULL,
         time INTEGER NOT NULL,
         category INTEGER NOT NULL,
         type INTEGER NOT NULL,
         text TEXT NOT NULL,
         UNIQUE (address, event_id));
       CREATE TABLE statistics (
         seq INTEGER PRIMARY KEY AUTOINCREMENT,
         address INTEGER NOT NULL,
         time INTEGER NOT NULL,
         json TEXT NOT NULL);)",
    R"(CREATE INDEX devices_by_group ON devices (grp);
       CREATE INDEX events_by_category ON events (category, seq);)",
    // Image sets in the desired state, the files' records, and what was pushed to each panel.
    R"(ALTER TABLE desired ADD COLUMN images TEXT;
       ALTER TABLE devices ADD COLUMN pushed_images TEXT NOT NULL DEFAULT '{}';
       CREATE TABLE images (
         id TEXT PRIMARY KEY,
         type TEXT NOT NULL,
         name TEXT NOT NULL,
         bytes INTEGER NOT NULL,
         created INTEGER NOT NULL);)",
    // Where a panel reached by TCP dial-out (transport 'tcp') is dialled: HOST:PORT.
    R"(ALTER TABLE devices ADD COLUMN endpoint TEXT NOT NULL DEFAULT '';)",
};
const int kSchemaVersion = static_cast<int>(sizeof kMigrations / sizeof kMigrations[0]);

class Statement
{
public:
    Statement(sqlite3* db, char const* sql)
    {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK)
            throw ToolError(std::string("store: ") + sqlite3_errmsg(db), EXIT_FAILURE_OTHER);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement& bind(int i, long long v)
    {
        sqlite3_bind_int64(m_stmt, i, v);
        return *this;
    }
    Statement& bind(int i, std::string const& v)
    {
        sqlite3_bind_text(m_stmt, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int i, std::optional<std::string> const& v)
    {
        if (v) return bind(i, *v);
        sqlite3_bind_null(m_stmt, i);
        return *this;
    }
    void reset() { sqlite3_reset(m_stmt); }
    // True while a row is there.
    bool step()
    {
        const int rc = sqlite3_step(m_stmt);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw ToolError(std::string("store: ") + sqlite3_errmsg(sqlite3_db_handle(m_stmt)), EXIT_FAILURE_OTHER);
    }
    long long integer(int i) { return sqlite3_column_int64(m_stmt, i); }
    std::string text(int i)
    {
        auto p = reinterpret_cast<char const*>(sqlite3_column_text(m_stmt, i));
        return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(m_stmt, i))) : std::string();
    }
    std::optional<std::string> optionalText(int i)
    {
        if (sqlite3_column_type(m_stmt, i) == SQLITE_NULL) return std::nullopt;
        return text(i);
    }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

class SqliteStore : public FleetStore
{
public:
    explicit SqliteStore(std::string const& path) : m_path(path)
    {
        if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            const std::string why = m_db ? sqlite3_errmsg(m_db) : "out of memory";
            sqlite3_close(m_db);
            throw ToolError("cannot open store " + path + ": " + why, EXIT_INPUT);
        }
        sqlite3_busy_timeout(m_db, 5000);
        try {
            exec("PRAGMA journal_mode=WAL");
            // A commit reaches the log before it returns, so a killed process loses nothing it
            // confirmed; changes the API confirms are also flushed to the disk (see putDesired).
            exec("PRAGMA synchronous=NORMAL");
            exec("PRAGMA foreign_keys=ON");
            migrate();
        } catch (ToolError const& e) {
            sqlite3_close(m_db);
            throw ToolError("store " + path + ": " + e.what(), EXIT_INPUT);
        }
    }
    ~SqliteStore() override { sqlite3_close(m_db); }

    int schemaVersion() override
    {
        Statement s(m_db, "PRAGMA user_version");
        return s.step() ? static_cast<int>(s.integer(0)) : 0;
    }

    std::vector<DeviceRecord> devices() override
    {
        std::vector<DeviceRecord> out;
        Statement s(m_db, kSelectDevice);
        while (s.step()) out.push_back(readDevice(s));
        return out;
    }

    std::optional<DeviceRecord> device(unsigned int address) override
    {
        Statement s(m_db, (std::string(kSelectDevice) + " WHERE address = ?").c_str());
        s.bind(1, static_cast<long long>(address));
        if (!s.step()) return std::nullopt;
        return readDevice(s);
    }

    void putDevice(DeviceRecord const& d) override
    {
        nlohmann::json images = nlohmann::json::array();
        for (std::uint64_t id : d.images) images.push_back(std::to_string(id));
        nlohmann::json pushed = nlohmann::json::object();
        for (auto const& held : d.pushedImages) pushed[std::to_string(held.first)] = held.second;
        Statement s(m_db,
                    "INSERT OR REPLACE INTO devices (address, grp, transport, last_seen, online, reported, serial, "
                    "name, cs_cfg, cs_sched, images, flags, version, status, last_error, attempts, next_attempt, "
                    "pushed_images, endpoint) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
        s.bind(1, static_cast<long long>(d.address)).bind(2, d.group).bind(3, d.transport).bind(4, d.lastSeen_ms);
        s.bind(5, d.online ? 1LL : 0LL).bind(6, d.reported ? 1LL : 0LL).bind(7, static_cast<long long>(d.serial));
        s.bind(8, d.name).bind(9, d.csCfg).bind(10, d.csSched).bind(11, images.dump());
        s.bind(12, static_cast<long long>(d.flags)).bind(13, d.version).bind(14, d.status).bind(15, d.lastError);
        s.bind(16, static_cast<long long>(d.attempts)).bind(17, d.nextAttempt_ms).bind(18, pushed.dump());
        s.bind(19, d.endpoint);
        s.step();
    }

    std::optional<DesiredState> desired(Scope scope, std::string const& key) override
    {
        Statement s(m_db, "SELECT config, schedules, name, changed, images FROM desired WHERE scope = ? AND key = ?");
        s.bind(1, static_cast<long long>(scope)).bind(2, key);
        if (!s.step()) return std::nullopt;
        DesiredState d;
        d.config = s.optionalText(0);
        d.schedules = s.optionalText(1);
        d.name = s.optionalText(2);
        d.changed_ms = s.integer(3);
        d.images = s.optionalText(4);
        return d;
    }

    void putDesired(Scope scope, std::string const& key, DesiredState const& d) override
    {
        // What the API confirms is on the disk before the answer, not only in the log.
        exec("PRAGMA synchronous=FULL");
        try {
            Statement s(m_db, "INSERT OR REPLACE INTO desired (scope, key, config, schedules, name, changed, images) "
                              "VALUES (?,?,?,?,?,?,?)");
            s.bind(1, static_cast<long long>(scope)).bind(2, key).bind(3, d.config).bind(4, d.schedules);
            s.bind(5, d.name).bind(6, d.changed_ms).bind(7, d.images);
            s.step();
        } catch (...) {
            exec("PRAGMA synchronous=NORMAL");
            throw;
        }
        exec("PRAGMA synchronous=NORMAL");
    }

    std::vector<std::string> groups() override
    {
        std::vector<std::string> out;
        Statement s(m_db, "SELECT key FROM desired WHERE scope = 0 UNION SELECT grp FROM devices ORDER BY 1");
        while (s.step()) out.push_back(s.text(0));
        return out;
    }

    void putImage(ImageRecord const& image) override
    {
        // Confirmed by the API like a desired state: on the disk before the answer.
        exec("PRAGMA synchronous=FULL");
        try {
            Statement s(m_db, "INSERT OR REPLACE INTO images (id, type, name, bytes, created) VALUES (?,?,?,?,?)");
            s.bind(1, image.id).bind(2, image.type).bind(3, image.name);
            s.bind(4, static_cast<long long>(image.bytes)).bind(5, image.created_ms);
            s.step();
        } catch (...) {
            exec("PRAGMA synchronous=NORMAL");
            throw;
        }
        exec("PRAGMA synchronous=NORMAL");
    }

    std::optional<ImageRecord> image(std::string const& id) override
    {
        Statement s(m_db, (std::string(kSelectImage) + " WHERE id = ?").c_str());
        s.bind(1, id);
        if (!s.step()) return std::nullopt;
        return readImage(s);
    }

    std::vector<ImageRecord> images() override
    {
        std::vector<ImageRecord> out;
        Statement s(m_db, (std::string(kSelectImage) + " ORDER BY created, id").c_str());
        while (s.step()) out.push_back(readImage(s));
        return out;
    }

    unsigned int addEvents(std::vector<EventRecord> const& events) override
    {
        if (events.empty()) return 0;
        exec("BEGIN");
        unsigned int added = 0;
        try {
            Statement s(m_db, "INSERT OR IGNORE INTO events (address, event_id, time, category, type, text) "
                              "VALUES (?,?,?,?,?,?)");
            for (EventRecord const& e : events) {
                s.reset();
                s.bind(1, static_cast<long long>(e.address)).bind(2, static_cast<long long>(e.eventId));
                s.bind(3, e.time).bind(4, static_cast<long long>(e.category)).bind(5, static_cast<long long>(e.type));
                s.bind(6, e.text);
                s.step();
                added += static_cast<unsigned int>(sqlite3_changes(m_db));
            }
            exec("COMMIT");
        } catch (...) {
            exec("ROLLBACK");
            throw;
        }
        return added;
    }

    std::vector<EventRecord> events(long long since, unsigned int limit, int category, long long address) override
    {
        std::vector<EventRecord> out;
        Statement s(m_db, "SELECT seq, address, event_id, time, category, type, text FROM events "
                          "WHERE seq > ? AND (? < 0 OR category = ?) AND (? < 0 OR address = ?) ORDER BY seq LIMIT ?");
        s.bind(1, since).bind(2, static_cast<long long>(category)).bind(3, static_cast<long long>(category));
        s.bind(4, address).bind(5, address).bind(6, static_cast<long long>(limit));
        while (s.step()) {
            EventRecord e;
            e.seq = s.integer(0);
            e.address = static_cast<unsigned int>(s.integer(1));
            e.eventId = static_cast<std::uint64_t>(s.integer(2));
            e.time = s.integer(3);
            e.category = static_cast<unsigned int>(s.integer(4));
            e.type = static_cast<unsigned int>(s.integer(5));
            e.text = s.text(6);
            out.push_back(std::move(e));
        }
        return out;
    }

    void addStatistics(StatisticsSample const& sample) override
    {
        Statement s(m_db, "INSERT INTO statistics (address, time, json) VALUES (?,?,?)");
        s.bind(1, static_cast<long long>(sample.address)).bind(2, sample.time_ms).bind(3, sample.json);
        s.step();
    }

    std::vector<StatisticsSample> statistics(long long since, unsigned int limit, long long address) override
    {
        std::vector<StatisticsSample> out;
        Statement s(m_db, "SELECT seq, address, time, json FROM statistics WHERE seq > ? AND (? < 0 OR address = ?) "
                          "ORDER BY seq LIMIT ?");
        s.bind(1, since).bind(2, address).bind(3, address).bind(4, static_cast<long long>(limit));
        while (s.step()) {
            StatisticsSample sample;
            sample.seq = s.integer(0);
            sample.address = static_cast<unsigned int>(s.integer(1));
            sample.time_ms = s.integer(2);
            sample.json = s.text(3);
            out.push_back(std::move(sample));
        }
        return out;
    }

private:
    static constexpr char const* kSelectDevice =
        "SELECT address, grp, transport, last_seen, online, reported, serial, name, cs_cfg, cs_sched, images, flags, "
        "version, status, last_error, attempts, next_attempt, pushed_images, endpoint FROM devices";
    static constexpr char const* kSelectImage = "SELECT id, type, name, bytes, created FROM images";

    static ImageRecord readImage(Statement& s)
    {
        ImageRecord image;
        image.id = s.text(0);
        image.type = s.text(1);
        image.name = s.text(2);
        image.bytes = static_cast<std::uint64_t>(s.integer(3));
        image.created_ms = s.integer(4);
        return image;
    }

    static DeviceRecord readDevice(Statement& s)
    {
        DeviceRecord d;
        d.address = static_cast<unsigned int>(s.integer(0));
        d.group = s.text(1);
        d.transport = s.text(2);
        d.lastSeen_ms = s.integer(3);
        d.online = s.integer(4) != 0;
        d.reported = s.integer(5) != 0;
        d.serial = static_cast<unsigned int>(s.integer(6));
        d.name = s.text(7);
        d.csCfg = s.text(8);
        d.csSched = s.text(9);
        const nlohmann::json images = nlohmann::json::parse(s.text(10), nullptr, false);
        if (images.is_array())
            for (auto const& id : images)
                if (id.is_string()) d.images.push_back(std::stoull(id.get<std::string>()));
        d.flags = static_cast<unsigned int>(s.integer(11));
        d.version = s.text(12);
        d.status = s.text(13);
        d.lastError = s.text(14);
        d.attempts = static_cast<unsigned int>(s.integer(15));
        d.nextAttempt_ms = s.integer(16);
        const nlohmann::json pushed = nlohmann::json::parse(s.text(17), nullptr, false);
        if (pushed.is_object())
            for (auto it = pushed.begin(); it != pushed.end(); ++it)
                if (it.value().is_string()) d.pushedImages[std::stoull(it.key())] = it.value().get<std::string>();
        d.endpoint = s.text(18);
        return d;
    }

    void exec(char const* sql)
    {
        char* error = nullptr;
        if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
            const std::string why = error ? error : "unknown error";
            sqlite3_free(error);
            throw ToolError("store: " + why, EXIT_FAILURE_OTHER);
        }
    }

    void migrate()
    {
        const int version = schemaVersion();
        if (version > kSchemaVersion)
            throw ToolError("schema version " + std::to_string(version) + " is newer than this nkstation (" +
                                std::to_string(kSchemaVersion) + ")",
                            EXIT_INPUT);
        for (int v = version; v < kSchemaVersion; ++v) {
            exec("BEGIN IMMEDIATE");
            try {
                exec(kMigrations[v]);
                exec(("PRAGMA user_version = " + std::to_string(v + 1)).c_str());
                exec("COMMIT");
            } catch (...) {
                sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
                throw;
            }
        }
    }

    std::string m_path;
    sqlite3* m_db = nullptr;
};
}

std::unique_ptr<FleetStore> openSqliteStore(std::string const& path)
{
    return std::unique_ptr<FleetStore>(new SqliteStore(path));
}

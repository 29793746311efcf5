#include "cloud_db.h"

#include "nk/log.h"

namespace nkemu {

namespace {

constexpr int kBusyTimeoutMs = 5000;

// The device document is the truth; the other columns index it for lookups and paging.
constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS devices (
    id TEXT PRIMARY KEY,
    mac TEXT UNIQUE,
    created INTEGER NOT NULL,
    is_box INTEGER NOT NULL DEFAULT 0,
    fields TEXT NOT NULL
);
DROP INDEX IF EXISTS devices_by_creation;
CREATE INDEX IF NOT EXISTS devices_in_order ON devices (created, id);
CREATE UNIQUE INDEX IF NOT EXISTS devices_one_box ON devices (is_box) WHERE is_box = 1;
CREATE TABLE IF NOT EXISTS additional_info (
    device_id TEXT NOT NULL REFERENCES devices (id) ON DELETE CASCADE,
    type TEXT NOT NULL,
    data TEXT NOT NULL,
    updated INTEGER NOT NULL,
    PRIMARY KEY (device_id, type)
);
CREATE TABLE IF NOT EXISTS user_agents (
    device_id TEXT NOT NULL REFERENCES devices (id) ON DELETE CASCADE,
    user_agent TEXT NOT NULL,
    updated INTEGER NOT NULL,
    PRIMARY KEY (device_id, user_agent)
);
CREATE TABLE IF NOT EXISTS faults (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    kind TEXT NOT NULL,
    value INTEGER NOT NULL,
    text TEXT NOT NULL,
    command TEXT NOT NULL,
    remaining INTEGER NOT NULL
);
)sql";

constexpr const char* kDeviceColumns = "SELECT id, mac, created, is_box, fields FROM devices ";

// One prepared statement; a failed prepare or bind makes every later step fail (logged).
class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK)
            NK_LOG(nk::log::ERROR, "sqlite prepare: {:s}", sqlite3_errmsg(db));
        stmt_.reset(raw);
    }

    Statement& bind(int index, const std::string& text) {
        return check(stmt_ && sqlite3_bind_text(stmt_.get(), index, text.data(),
                                                static_cast<int>(text.size()),
                                                SQLITE_TRANSIENT) == SQLITE_OK);
    }
    Statement& bind(int index, std::int64_t value) {
        return check(stmt_ && sqlite3_bind_int64(stmt_.get(), index, value) == SQLITE_OK);
    }
    Statement& bind_null(int index) {
        return check(stmt_ && sqlite3_bind_null(stmt_.get(), index) == SQLITE_OK);
    }

    // SQLITE_ROW, SQLITE_DONE, or an error code (logged).
    int step() {
        if (!stmt_ || failed_)
            return SQLITE_ERROR;
        const int rc = sqlite3_step(stmt_.get());
        if (rc != SQLITE_ROW && rc != SQLITE_DONE)
            NK_LOG(nk::log::ERROR, "sqlite step: {:s}", sqlite3_errmsg(db_));
        return rc;
    }
    bool run() { return step() == SQLITE_DONE; }

    std::string text(int column) const {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_.get(), column));
        return text ? text : "";
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_.get(), column); }
    int changes() const { return sqlite3_changes(db_); }

private:
    struct Finalizer {
        void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
    };
    Statement& check(bool ok) {
        if (!ok && !failed_) {
            NK_LOG(nk::log::ERROR, "sqlite bind: {:s}", sqlite3_errmsg(db_));
            failed_ = true;
        }
        return *this;
    }

    sqlite3* db_;
    std::unique_ptr<sqlite3_stmt, Finalizer> stmt_;
    bool failed_ = false;
};

bool read_device(const Statement& row, CloudDevice& out) {
    out.id = row.text(0);
    out.mac = row.text(1);
    out.created = row.integer(2);
    out.is_box = row.integer(3) != 0;
    const std::string fields = row.text(4);
    json_error_t error;
    out.fields.reset(json_loadb(fields.data(), fields.size(), 0, &error));
    if (!json_is_object(out.fields.get())) {
        NK_LOG(nk::log::ERROR, "device {:s}: stored fields do not parse: {:s}", out.id, error.text);
        return false;
    }
    return true;
}

Statement& bind_device(Statement& stmt, const CloudDevice& device) {
    stmt.bind(1, device.id);
    if (device.mac.empty()) {
        stmt.bind_null(2);
    } else {
        stmt.bind(2, device.mac);
    }
    return stmt.bind(3, device.created)
        .bind(4, std::int64_t{device.is_box ? 1 : 0})
        .bind(5, nk::json_dump_compact(device.fields.get()));
}

bool read_fault(const Statement& row, Fault& out) {
    const std::optional<FaultKind> kind = fault_kind_from_name(row.text(1));
    if (!kind) {
        NK_LOG(nk::log::ERROR, "fault {:d}: unknown kind '{:s}'", row.integer(0), row.text(1));
        return false;
    }
    out.id = row.integer(0);
    out.kind = *kind;
    out.value = row.integer(2);
    out.text = row.text(3);
    out.command = row.text(4);
    out.remaining = row.integer(5);
    return true;
}

}  // namespace

std::optional<CloudDb> CloudDb::open(const std::string& file) {
    sqlite3* raw = nullptr;
    const int rc =
        sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    CloudDb db(raw);  // closes the handle on every path, also a failed open's
    if (rc != SQLITE_OK) {
        NK_LOG(nk::log::ERROR, "cannot open {:s}: {:s}", file,
               raw ? sqlite3_errmsg(raw) : "out of memory");
        return std::nullopt;
    }
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    if (!db.exec("PRAGMA journal_mode = WAL; PRAGMA foreign_keys = ON;") || !db.exec(kSchema))
        return std::nullopt;
    return db;
}

bool CloudDb::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &error) == SQLITE_OK)
        return true;
    NK_LOG(nk::log::ERROR, "sqlite: {:s}", error ? error : sqlite3_errmsg(db_.get()));
    sqlite3_free(error);
    return false;
}

CloudDb::Transaction::Transaction(CloudDb& db) : db_(db), open_(db.exec("BEGIN IMMEDIATE")) {}

CloudDb::Transaction::~Transaction() {
    if (open_)
        db_.exec("ROLLBACK");
}

bool CloudDb::Transaction::commit() {
    if (!open_ || !db_.exec("COMMIT"))
        return false;
    open_ = false;
    return true;
}

bool CloudDb::find_one(const char* sql, const std::string& key, std::optional<CloudDevice>& out) {
    out.reset();
    Statement stmt(db_.get(), sql);
    if (!key.empty())
        stmt.bind(1, key);
    const int rc = stmt.step();
    if (rc == SQLITE_DONE)
        return true;
    CloudDevice device;
    if (rc != SQLITE_ROW || !read_device(stmt, device))
        return false;
    out = std::move(device);
    return true;
}

bool CloudDb::find_by_mac(const std::string& mac, std::optional<CloudDevice>& out) {
    return find_one((std::string(kDeviceColumns) + "WHERE mac = ?1").c_str(), mac, out);
}

bool CloudDb::find_by_id(const std::string& id, std::optional<CloudDevice>& out) {
    return find_one((std::string(kDeviceColumns) + "WHERE id = ?1").c_str(), id, out);
}

bool CloudDb::find_box(std::optional<CloudDevice>& out) {
    return find_one((std::string(kDeviceColumns) + "WHERE is_box = 1").c_str(), "", out);
}

bool CloudDb::insert(const CloudDevice& device) {
    Statement stmt(db_.get(),
                   "INSERT INTO devices (id, mac, created, is_box, fields) "
                   "VALUES (?1, ?2, ?3, ?4, ?5)");
    return bind_device(stmt, device).run();
}

bool CloudDb::update(const CloudDevice& device) {
    Statement stmt(db_.get(),
                   "UPDATE devices SET mac = ?2, created = ?3, is_box = ?4, fields = ?5 "
                   "WHERE id = ?1");
    return bind_device(stmt, device).run();
}

bool CloudDb::remove(const std::string& id, bool& removed) {
    Statement stmt(db_.get(), "DELETE FROM devices WHERE id = ?1");
    if (!stmt.bind(1, id).run())
        return false;
    removed = stmt.changes() > 0;
    return true;
}

bool CloudDb::count_devices(std::int64_t& out) {
    Statement stmt(db_.get(), "SELECT count(*) FROM devices");
    if (stmt.step() != SQLITE_ROW)
        return false;
    out = stmt.integer(0);
    return true;
}

bool CloudDb::list_devices(std::int64_t offset, std::int64_t limit, std::vector<CloudDevice>& out) {
    out.clear();
    Statement stmt(
        db_.get(),
        (std::string(kDeviceColumns) + "ORDER BY created, id LIMIT ?1 OFFSET ?2").c_str());
    stmt.bind(1, limit).bind(2, offset);
    int rc = SQLITE_ERROR;
    while ((rc = stmt.step()) == SQLITE_ROW) {
        CloudDevice device;
        if (!read_device(stmt, device))
            return false;
        out.push_back(std::move(device));
    }
    return rc == SQLITE_DONE;
}

bool CloudDb::store_additional_info(const std::string& id, const std::string& type,
                                    const std::string& data, std::int64_t now) {
    Statement stmt(db_.get(),
                   "INSERT OR REPLACE INTO additional_info (device_id, type, data, updated) "
                   "VALUES (?1, ?2, ?3, ?4)");
    return stmt.bind(1, id).bind(2, type).bind(3, data).bind(4, now).run();
}

bool CloudDb::store_user_agent(const std::string& id, const std::string& user_agent,
                               std::int64_t now) {
    Statement stmt(db_.get(),
                   "INSERT INTO user_agents (device_id, user_agent, updated) VALUES (?1, ?2, ?3) "
                   "ON CONFLICT (device_id, user_agent) DO UPDATE SET updated = excluded.updated");
    return stmt.bind(1, id).bind(2, user_agent).bind(3, now).run();
}

namespace {

bool read_infos(Statement& stmt, std::vector<StoredInfo>& out) {
    out.clear();
    int rc = SQLITE_ERROR;
    while ((rc = stmt.step()) == SQLITE_ROW)
        out.push_back({stmt.text(0), stmt.text(1), stmt.integer(2)});
    return rc == SQLITE_DONE;
}

}  // namespace

bool CloudDb::additional_info(const std::string& id, std::vector<StoredInfo>& out) {
    Statement stmt(db_.get(),
                   "SELECT type, data, updated FROM additional_info WHERE device_id = ?1 "
                   "ORDER BY type");
    stmt.bind(1, id);
    return read_infos(stmt, out);
}

bool CloudDb::user_agents(const std::string& id, std::vector<StoredInfo>& out) {
    Statement stmt(db_.get(),
                   "SELECT user_agent, '', updated FROM user_agents WHERE device_id = ?1 "
                   "ORDER BY rowid");
    stmt.bind(1, id);
    return read_infos(stmt, out);
}

bool CloudDb::add_fault(Fault& fault) {
    Statement stmt(db_.get(),
                   "INSERT INTO faults (kind, value, text, command, remaining) "
                   "VALUES (?1, ?2, ?3, ?4, ?5)");
    stmt.bind(1, std::string(fault_kind_name(fault.kind)))
        .bind(2, fault.value)
        .bind(3, fault.text)
        .bind(4, fault.command)
        .bind(5, fault.remaining);
    if (!stmt.run())
        return false;
    fault.id = sqlite3_last_insert_rowid(db_.get());
    return true;
}

bool CloudDb::list_faults(std::vector<Fault>& out) {
    out.clear();
    Statement stmt(db_.get(),
                   "SELECT id, kind, value, text, command, remaining FROM faults ORDER BY id");
    int rc = SQLITE_ERROR;
    while ((rc = stmt.step()) == SQLITE_ROW) {
        Fault fault;
        if (!read_fault(stmt, fault))
            return false;
        out.push_back(std::move(fault));
    }
    return rc == SQLITE_DONE;
}

bool CloudDb::clear_faults() {
    return exec("DELETE FROM faults");
}

bool CloudDb::take_fault(const std::string& command, std::optional<Fault>& out) {
    out.reset();
    Transaction tx(*this);
    if (!tx.ok())
        return false;
    Fault fault;
    {
        Statement stmt(db_.get(),
                       "SELECT id, kind, value, text, command, remaining FROM faults WHERE "
                       "remaining != 0 AND (command = '' OR command = ?1) ORDER BY id LIMIT 1");
        const int rc = stmt.bind(1, command).step();
        if (rc == SQLITE_DONE)
            return tx.commit();
        if (rc != SQLITE_ROW || !read_fault(stmt, fault))
            return false;
    }
    if (fault.remaining > 0) {
        Statement use(db_.get(), fault.remaining == 1
                                     ? "DELETE FROM faults WHERE id = ?1"
                                     : "UPDATE faults SET remaining = remaining - 1 WHERE id = ?1");
        if (!use.bind(1, fault.id).run())
            return false;
    }
    if (!tx.commit())
        return false;
    out = std::move(fault);
    return true;
}

}  // namespace nkemu

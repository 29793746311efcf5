#include "nk/devmgmt.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>
#include <utility>

#include "nk/constants.h"
#include "nk/json.h"
#include "nk/log.h"
#include "nk/nkerrno.h"

namespace nk::devMgmt {

namespace {

using nk::sockutl::address;
using nk::sockutl::macaddr;

constexpr std::size_t kMapSizeDefault = std::size_t{64} << 20;
constexpr mdb_mode_t kFileMode = 0644;

// ---------------------------------------------------------------------------------------------
// The record's JSON form

struct TextField {
    const char* key;
    std::string Device::*member;
};

struct IntField {
    const char* key;
    int Device::*member;
};

constexpr TextField kTextFields[] = {
    {"device_id", &Device::device_id},
    {"local_id", &Device::local_id},
    {"profile_id", &Device::profile_id},
    {"display_name", &Device::display_name},
    {"friendly_name", &Device::friendly_name},
    {"device_type", &Device::device_type},
    {"device_os", &Device::device_os},
    {"device_os_version", &Device::device_os_version},
    {"device_model", &Device::device_model},
    {"mac_vendor", &Device::mac_vendor},
    {"box_device_id", &Device::box_device_id},
    {"box_detected_name", &Device::box_detected_name},
    {"box_detected_name_history", &Device::box_detected_name_history},
};

constexpr IntField kIntFields[] = {
    {"blocked", &Device::blocked},
    {"upnp_enabled", &Device::upnp_enabled},
    {"onguest", &Device::onguest},
    {"scan_level", &Device::scan_level},
    {"va_scan_level", &Device::va_scan_level},
    {"onbox", &Device::onbox},
};

constexpr const char* kCreatedKey = "created";
constexpr const char* kAppsKey = "apps";
constexpr const char* kMacipsKey = "macips";

// Length of the well-formed UTF-8 sequence starting at text[i], 0 when there is none.
std::size_t utf8_sequence(std::string_view text, std::size_t i) {
    const auto byte = [&text](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned lead = byte(i);
    if (lead < 0x80)
        return 1;
    const std::size_t len = lead >= 0xC2 && lead <= 0xDF   ? 2
                            : lead >= 0xE0 && lead <= 0xEF ? 3
                            : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                           : 0;
    if (len == 0 || i + len > text.size())
        return 0;
    for (std::size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80)
            return 0;
    }
    // Overlong forms, UTF-16 surrogates and code points above U+10FFFF.
    const unsigned second = byte(i + 1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
        return 0;
    }
    return len;
}

std::string valid_utf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t len = utf8_sequence(text, i);
        if (len == 0) {
            out += "\xEF\xBF\xBD";  // U+FFFD
            ++i;
        } else {
            out.append(text.substr(i, len));
            i += len;
        }
    }
    return out;
}

// jansson takes valid UTF-8 only. Names heard on the network are not always valid, and a bad
// byte must not cost the whole record, so it becomes U+FFFD.
json_t* text_value(std::string_view text) {
    if (json_t* value = json_stringn(text.data(), text.size()))
        return value;
    NK_LOG(3, "device record: replacing invalid UTF-8 in a text field");
    const std::string fixed = valid_utf8(text);
    return json_stringn(fixed.data(), fixed.size());
}

json_t* apps_json(const std::map<std::string, int>& apps) {
    json_t* object = json_object();
    for (const auto& [name, value] : apps) {
        json_object_set_new(object, valid_utf8(name).c_str(), json_integer(value));
    }
    return object;
}

json_t* macips_json(const std::map<macaddr, std::vector<address>>& macips) {
    json_t* object = json_object();
    for (const auto& [mac, ips] : macips) {
        json_t* list = json_array();
        for (const address& ip : ips)
            json_array_append_new(list, json_string(ip.to_string().c_str()));
        json_object_set_new(object, mac.to_string().c_str(), list);
    }
    return object;
}

bool absent(const json_t* value) {
    return value == nullptr || json_is_null(value);
}

bool wrong_type(const char* key, const char* expected) {
    NK_LOG(0, "device record: \"{}\" is not {}", key, expected);
    return false;
}

std::optional<int> as_int(const json_t* value) {
    if (!json_is_integer(value))
        return std::nullopt;
    const json_int_t n = json_integer_value(value);
    if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    return static_cast<int>(n);
}

// jansson's iteration takes non-const objects; nothing here modifies them.
json_t* mutable_json(const json_t* json) {
    return const_cast<json_t*>(json);
}  // NOLINT

bool read_texts(const json_t* json, Device& out) {
    for (const TextField& field : kTextFields) {
        const json_t* value = json_object_get(json, field.key);
        if (absent(value))
            continue;
        if (!json_is_string(value))
            return wrong_type(field.key, "a string");
        (out.*field.member).assign(json_string_value(value), json_string_length(value));
    }
    return true;
}

bool read_numbers(const json_t* json, Device& out) {
    for (const IntField& field : kIntFields) {
        const json_t* value = json_object_get(json, field.key);
        if (absent(value))
            continue;
        const std::optional<int> n = as_int(value);
        if (!n)
            return wrong_type(field.key, "an int");
        out.*field.member = *n;
    }
    const json_t* created = json_object_get(json, kCreatedKey);
    if (absent(created))
        return true;
    if (!json_is_integer(created))
        return wrong_type(kCreatedKey, "an integer");
    out.created = json_integer_value(created);
    return true;
}

bool read_apps(const json_t* json, Device& out) {
    const json_t* apps = json_object_get(json, kAppsKey);
    if (absent(apps))
        return true;
    if (!json_is_object(apps))
        return wrong_type(kAppsKey, "an object");
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(mutable_json(apps), name, value) {
        const std::optional<int> n = as_int(value);
        if (!n)
            return wrong_type(kAppsKey, "an object of ints");
        out.apps[name] = *n;
    }
    return true;
}

// The addresses of one MAC; entries that are no address are dropped.
std::vector<address> read_addresses(const json_t* list, const char* mac) {
    std::vector<address> ips;
    std::size_t i = 0;
    json_t* entry = nullptr;
    json_array_foreach(mutable_json(list), i, entry) {
        const std::optional<address> ip =
            json_is_string(entry) ? address::parse(json_string_value(entry)) : std::nullopt;
        if (ip) {
            ips.push_back(*ip);
        } else {
            NK_LOG(1, "device record: skipping a bad address of {}", mac);
        }
    }
    return ips;
}

bool read_macips(const json_t* json, Device& out) {
    const json_t* macips = json_object_get(json, kMacipsKey);
    if (absent(macips))
        return true;
    if (!json_is_object(macips))
        return wrong_type(kMacipsKey, "an object");
    const char* text = nullptr;
    json_t* list = nullptr;
    json_object_foreach(mutable_json(macips), text, list) {
        const std::optional<macaddr> mac = macaddr::parse(text);
        if (!mac || !mac->is_valid() || !json_is_array(list)) {
            NK_LOG(1, "device record: skipping MAC entry \"{}\"", text);
            continue;
        }
        out.macips[*mac] = read_addresses(list, text);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// The environment

std::string table_dir() {
    const char* dir = std::getenv(kDevmgmtDirEnv);
    return dir != nullptr && *dir != '\0' ? dir : kDevmgmtDirDefault;
}

std::size_t map_size() {
    const char* text = std::getenv(kDevmgmtMapSizeEnv);
    if (text == nullptr || *text == '\0')
        return kMapSizeDefault;
    char* end = nullptr;
    errno = 0;
    const unsigned long long size = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || *text == '-' || size == 0) {
        NK_LOG(1, "ignoring bad {}=\"{}\"", kDevmgmtMapSizeEnv, text);
        return kMapSizeDefault;
    }
    return static_cast<std::size_t>(size);
}

// A full map fails every write until space is freed: one line per run of the same error, not
// one per record and retry.
std::atomic<int> g_last_failure{MDB_SUCCESS};

// LMDB's own codes are negative; the rest are errno values.
int errno_of(int rc) {
    if (rc > 0)
        return rc;
    return rc == MDB_MAP_FULL || rc == MDB_MAP_RESIZED ? ENOSPC : EIO;
}

bool ok(int rc, std::string_view what, std::string_view context) {
    if (rc == MDB_SUCCESS)
        return true;
    nk::_set_nkerrno(errno_of(rc));
    const bool repeated = g_last_failure.exchange(rc) == rc;
    NK_LOG(repeated ? log::DEBUG : log::ERROR, "device table: {} {}: {}", what, context,
           mdb_strerror(rc));
    return false;
}

bool written(int rc, std::string_view what, std::string_view context) {
    if (!ok(rc, what, context))
        return false;
    if (g_last_failure.exchange(MDB_SUCCESS) != MDB_SUCCESS)
        NK_LOG(log::INFO, "device table: writes succeed again");
    return true;
}

struct EnvClose {
    void operator()(MDB_env* env) const { mdb_env_close(env); }
};
using EnvPtr = std::unique_ptr<MDB_env, EnvClose>;

struct TxnAbort {
    void operator()(MDB_txn* txn) const { mdb_txn_abort(txn); }
};
using TxnPtr = std::unique_ptr<MDB_txn, TxnAbort>;

struct CursorClose {
    void operator()(MDB_cursor* cursor) const { mdb_cursor_close(cursor); }
};
using CursorPtr = std::unique_ptr<MDB_cursor, CursorClose>;

// Handles a child inherited from its parent. LMDB forbids using them after fork(), and closing
// one would drop the child's own lock on the lock file, so they are kept, untouched.
void abandon(MDB_env* env) {
    static std::mutex mutex;
    static std::vector<MDB_env*> inherited;
    const std::lock_guard lock(mutex);
    inherited.push_back(env);
}

// One LMDB environment opened by this process.
class Env {
public:
    Env(EnvPtr env, MDB_dbi dbi, std::string dir)
        : env_(std::move(env)), dbi_(dbi), dir_(std::move(dir)), pid_(::getpid()) {}
    ~Env() {
        if (pid_ != ::getpid())
            abandon(env_.release());
    }
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;

    MDB_env* get() const { return env_.get(); }
    MDB_dbi dbi() const { return dbi_; }
    bool serves(const std::string& dir) const { return pid_ == ::getpid() && dir_ == dir; }

private:
    EnvPtr env_;
    MDB_dbi dbi_;
    std::string dir_;
    pid_t pid_;
};

// LMDB opens its files with O_CLOEXEC where the system has it; this makes sure of the data file.
void set_cloexec(MDB_env* env) {
    int fd = -1;
    if (mdb_env_get_fd(env, &fd) != MDB_SUCCESS || fd < 0)
        return;
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0)
        ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

// Reader slots of processes that died inside a read transaction would pin old pages forever.
void clear_stale_readers(MDB_env* env, const std::string& dir) {
    int dead = 0;
    if (ok(mdb_reader_check(env, &dead), "reader check", dir) && dead > 0) {
        NK_LOG(1, "device table {}: cleared {} stale reader slot(s)", dir, dead);
    }
}

std::optional<MDB_dbi> open_dbi(MDB_env* env, const std::string& dir) {
    MDB_txn* raw = nullptr;
    if (!ok(mdb_txn_begin(env, nullptr, MDB_RDONLY, &raw), "begin", dir))
        return std::nullopt;
    TxnPtr txn(raw);
    MDB_dbi dbi = 0;
    if (!ok(mdb_dbi_open(txn.get(), nullptr, 0, &dbi), "open database", dir) ||
        !ok(mdb_txn_commit(txn.release()), "commit", dir)) {
        return std::nullopt;
    }
    return dbi;
}

std::shared_ptr<Env> open_env(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        NK_LOG(0, "device table: cannot create {}: {}", dir, ec.message());
        return nullptr;
    }
    MDB_env* raw = nullptr;
    if (!ok(mdb_env_create(&raw), "create environment", dir))
        return nullptr;
    EnvPtr env(raw);
    // MDB_NOTLS: read transactions belong to their object, not to a thread, so the daemon's
    // threads may each read, and hold a snapshot while they write.
    if (!ok(mdb_env_set_mapsize(env.get(), map_size()), "set map size", dir) ||
        !ok(mdb_env_open(env.get(), dir.c_str(), MDB_NOTLS, kFileMode), "open", dir)) {
        return nullptr;
    }
    set_cloexec(env.get());
    clear_stale_readers(env.get(), dir);
    const std::optional<MDB_dbi> dbi = open_dbi(env.get(), dir);
    if (!dbi)
        return nullptr;
    NK_LOG(3, "device table {} open", dir);
    return std::make_shared<Env>(std::move(env), *dbi, dir);
}

struct Table {
    std::mutex mutex;
    std::shared_ptr<Env> current;
    // Every environment still in use (a snapshot may outlive close_table()), so that one
    // directory is never open twice in the process, which LMDB does not allow.
    std::vector<std::weak_ptr<Env>> open;
};

Table& table() {
    static Table t;
    return t;
}

std::shared_ptr<Env> find_open(std::vector<std::weak_ptr<Env>>& open, const std::string& dir) {
    for (auto it = open.begin(); it != open.end();) {
        std::shared_ptr<Env> env = it->lock();
        if (!env) {
            it = open.erase(it);
        } else if (env->serves(dir)) {
            return env;
        } else {
            ++it;
        }
    }
    return nullptr;
}

// The environment of NK_DEVMGMT_DIR, opened on first use and again when the directory changed
// or the process is a fork's child.
std::shared_ptr<Env> acquire() {
    const std::string dir = table_dir();
    Table& t = table();
    std::shared_ptr<Env> previous;  // released after the lock: its destructor may close it
    const std::lock_guard lock(t.mutex);
    if (t.current && t.current->serves(dir))
        return t.current;
    std::shared_ptr<Env> env = find_open(t.open, dir);
    if (!env) {
        env = open_env(dir);
        if (!env)
            return nullptr;
        t.open.push_back(env);
    }
    previous = std::exchange(t.current, env);
    return env;
}

// ---------------------------------------------------------------------------------------------
// Records

MDB_val as_val(std::string_view text) {
    return MDB_val{text.size(), const_cast<char*>(text.data())};  // NOLINT: LMDB only reads it
}

std::string_view as_view(const MDB_val& val) {
    return {static_cast<const char*>(val.mv_data), val.mv_size};
}

bool usable_key(const Env& env, std::string_view id) {
    if (id.empty()) {
        NK_LOG(0, "device table: empty device id");
        return false;
    }
    const auto max = static_cast<std::size_t>(mdb_env_get_maxkeysize(env.get()));
    if (id.size() > max) {
        NK_LOG(0, "device table: device id of {} bytes exceeds the limit of {}", id.size(), max);
        return false;
    }
    return true;
}

TxnPtr begin(const Env& env, unsigned flags) {
    MDB_txn* txn = nullptr;
    const int rc = mdb_txn_begin(env.get(), nullptr, flags, &txn);
    if (!ok(rc, "begin", (flags & MDB_RDONLY) != 0 ? "read" : "write"))
        return nullptr;
    return TxnPtr(txn);
}

// The key is authoritative for the id.
std::optional<Device> decode(std::string_view key, std::string_view value) {
    json_error_t error{};
    const json_ptr json(json_loadb(value.data(), value.size(), JSON_ALLOW_NUL, &error));
    Device device;
    if (!json) {
        NK_LOG(0, "device table: record {} is not JSON: {}", key, error.text);
        return std::nullopt;
    }
    if (!device.from_json(json.get())) {
        NK_LOG(0, "device table: record {} is malformed", key);
        return std::nullopt;
    }
    device.device_id = key;
    return device;
}

std::optional<Device> read_record(const Env& env, MDB_txn* txn, std::string_view id) {
    MDB_val key = as_val(id);
    MDB_val value{};
    const int rc = mdb_get(txn, env.dbi(), &key, &value);
    if (rc == MDB_NOTFOUND) {
        NK_LOG(3, "device table: no record {}", id);
        return std::nullopt;
    }
    if (!ok(rc, "read", id))
        return std::nullopt;
    return decode(id, as_view(value));
}

std::vector<Device> read_all(const Env& env, MDB_txn* txn) {
    std::vector<Device> devices;
    MDB_cursor* raw = nullptr;
    if (!ok(mdb_cursor_open(txn, env.dbi(), &raw), "open cursor", ""))
        return devices;
    const CursorPtr cursor(raw);
    MDB_val key{};
    MDB_val value{};
    int rc = mdb_cursor_get(raw, &key, &value, MDB_FIRST);
    for (; rc == MDB_SUCCESS; rc = mdb_cursor_get(raw, &key, &value, MDB_NEXT)) {
        if (std::optional<Device> device = decode(as_view(key), as_view(value))) {
            devices.push_back(std::move(*device));
        }
    }
    if (rc != MDB_NOTFOUND)
        ok(rc, "list", "");
    return devices;
}

std::optional<Device> find_local_id(const Env& env, MDB_txn* txn, const std::string& local_id) {
    if (local_id.empty()) {
        NK_LOG(0, "device table: lookup by an empty local id");
        return std::nullopt;
    }
    for (Device& device : read_all(env, txn)) {
        if (device.local_id == local_id)
            return std::move(device);
    }
    return std::nullopt;
}

}  // namespace

// -------------------------------------------------------------------------------------------------

json_t* Device::to_json() const {
    json_t* json = json_object();
    for (const TextField& field : kTextFields) {
        json_object_set_new(json, field.key, text_value(this->*field.member));
    }
    for (const IntField& field : kIntFields) {
        json_object_set_new(json, field.key, json_integer(this->*field.member));
    }
    json_object_set_new(json, kCreatedKey, json_integer(created));
    json_object_set_new(json, kAppsKey, apps_json(apps));
    json_object_set_new(json, kMacipsKey, macips_json(macips));
    return json;
}

bool Device::from_json(const json_t* json) {
    if (!json_is_object(json)) {
        NK_LOG(0, "device record: not a JSON object");
        return false;
    }
    Device parsed;
    if (!read_texts(json, parsed) || !read_numbers(json, parsed) || !read_apps(json, parsed) ||
        !read_macips(json, parsed)) {
        return false;
    }
    *this = std::move(parsed);
    return true;
}

bool operator==(const Device& a, const Device& b) {
    for (const TextField& field : kTextFields) {
        if (a.*field.member != b.*field.member)
            return false;
    }
    for (const IntField& field : kIntFields) {
        if (a.*field.member != b.*field.member)
            return false;
    }
    return a.created == b.created && a.apps == b.apps && a.macips == b.macips;
}

bool Device::write_to_shmem() const {
    const std::shared_ptr<Env> env = acquire();
    if (!env || !usable_key(*env, device_id))
        return false;
    const json_ptr json(to_json());
    const json_text text(json ? json_dumps(json.get(), JSON_COMPACT) : nullptr);
    if (!text) {
        NK_LOG(0, "device table: cannot encode record {}", device_id);
        return false;
    }
    TxnPtr txn = begin(*env, 0);
    if (!txn)
        return false;
    MDB_val key = as_val(device_id);
    MDB_val current{};
    if (mdb_get(txn.get(), env->dbi(), &key, &current) == MDB_SUCCESS &&
        std::string_view(static_cast<const char*>(current.mv_data), current.mv_size) ==
            text.get()) {
        return true;  // unchanged: no commit, so no sync either
    }
    MDB_val value = as_val(text.get());
    return ok(mdb_put(txn.get(), env->dbi(), &key, &value, 0), "store", device_id) &&
           written(mdb_txn_commit(txn.release()), "commit", device_id);
}

bool Device::load_from_shmem(bool lock, bool by_id) {
    const std::shared_ptr<Env> env = acquire();
    if (!env || (by_id && !usable_key(*env, device_id)))
        return false;
    // A write transaction waits for, and then excludes, every writer.
    const TxnPtr txn = begin(*env, lock ? 0 : MDB_RDONLY);
    if (!txn)
        return false;
    std::optional<Device> found =
        by_id ? read_record(*env, txn.get(), device_id) : find_local_id(*env, txn.get(), local_id);
    if (!found)
        return false;
    *this = std::move(*found);
    return true;
}

bool Device::delete_shmem() const {
    const std::shared_ptr<Env> env = acquire();
    if (!env || !usable_key(*env, device_id))
        return false;
    TxnPtr txn = begin(*env, 0);
    if (!txn)
        return false;
    MDB_val key = as_val(device_id);
    const int rc = mdb_del(txn.get(), env->dbi(), &key, nullptr);
    if (rc == MDB_NOTFOUND) {
        NK_LOG(3, "device table: no record {} to delete", device_id);
        return false;
    }
    return ok(rc, "delete", device_id) &&
           written(mdb_txn_commit(txn.release()), "commit", device_id);
}

std::vector<Device> Device::list() {
    const std::optional<Snapshot> snapshot = Snapshot::take();
    return snapshot ? snapshot->list() : std::vector<Device>{};
}

// -------------------------------------------------------------------------------------------------

struct Snapshot::Impl {
    std::shared_ptr<Env> env;
    TxnPtr txn;  // declared last: ends before the environment may close
};

Snapshot::Snapshot(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Snapshot::~Snapshot() = default;
Snapshot::Snapshot(Snapshot&& other) noexcept = default;
Snapshot& Snapshot::operator=(Snapshot&& other) noexcept = default;

std::optional<Snapshot> Snapshot::take() {
    std::shared_ptr<Env> env = acquire();
    if (!env)
        return std::nullopt;
    TxnPtr txn = begin(*env, MDB_RDONLY);
    if (!txn)
        return std::nullopt;
    return Snapshot(std::make_unique<Impl>(Impl{std::move(env), std::move(txn)}));
}

std::optional<Device> Snapshot::get(std::string_view device_id) const {
    if (!impl_ || !usable_key(*impl_->env, device_id))
        return std::nullopt;
    return read_record(*impl_->env, impl_->txn.get(), device_id);
}

std::vector<Device> Snapshot::list() const {
    if (!impl_)
        return {};
    return read_all(*impl_->env, impl_->txn.get());
}

void close_table() {
    Table& t = table();
    std::shared_ptr<Env> previous;  // released after the lock
    const std::lock_guard lock(t.mutex);
    previous = std::move(t.current);
}

}  // namespace nk::devMgmt

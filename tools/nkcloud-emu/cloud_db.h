// The emulated cloud's state in SQLite: devices, what BOXes reported about them, faults.
// The server and the operator commands open the same file at once (WAL, busy time-out).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cloud_device.h"
#include "fault.h"

namespace nkemu {

// What a BOX reported about a device: one kind of additional info, or one user agent.
struct StoredInfo {
    std::string type;  // "fingerprint", "avahi", ...; for a user agent, the user agent
    std::string data;  // compact JSON; empty for a user agent
    std::int64_t updated = 0;
};

class CloudDb {
public:
    // Opens or creates the database and its schema; empty on failure (logged).
    static std::optional<CloudDb> open(const std::string& file);

    // A write transaction, taken at once so that a concurrent writer waits for the busy
    // time-out instead of failing later. Rolled back unless committed.
    class Transaction {
    public:
        explicit Transaction(CloudDb& db);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        bool ok() const { return open_; }
        bool commit();

    private:
        CloudDb& db_;
        bool open_ = false;
    };

    // Lookups return false on a database failure; `out` stays empty when nothing matches.
    bool find_by_mac(const std::string& mac, std::optional<CloudDevice>& out);
    bool find_by_id(const std::string& id, std::optional<CloudDevice>& out);
    bool find_box(std::optional<CloudDevice>& out);
    bool insert(const CloudDevice& device);
    bool update(const CloudDevice& device);
    // `removed` tells whether the device existed.
    bool remove(const std::string& id, bool& removed);

    // Every device, the BOX's own included (the cloud lists it among its devices).
    bool count_devices(std::int64_t& out);
    // Ordered by creation, then id.
    bool list_devices(std::int64_t offset, std::int64_t limit, std::vector<CloudDevice>& out);

    bool store_additional_info(const std::string& id, const std::string& type,
                               const std::string& data, std::int64_t now);
    bool store_user_agent(const std::string& id, const std::string& user_agent, std::int64_t now);
    // By type, and user agents by first report.
    bool additional_info(const std::string& id, std::vector<StoredInfo>& out);
    bool user_agents(const std::string& id, std::vector<StoredInfo>& out);

    bool add_fault(Fault& fault);  // sets its id
    bool list_faults(std::vector<Fault>& out);
    bool clear_faults();
    // The first stored fault that applies to `command`, using up one of its requests.
    // Takes its own transaction: not within another.
    bool take_fault(const std::string& command, std::optional<Fault>& out);

private:
    struct Closer {
        void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
    };
    explicit CloudDb(sqlite3* db) : db_(db) {}
    bool exec(const char* sql);
    bool find_one(const char* sql, const std::string& key, std::optional<CloudDevice>& out);

    std::unique_ptr<sqlite3, Closer> db_;
};

}  // namespace nkemu

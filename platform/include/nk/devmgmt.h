// The shared device table: one record per device id, in an LMDB environment that every
// process of the box maps (NK_DEVMGMT_DIR, on tmpfs by default).
#pragma once

#include <jansson.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nk/sockutl.h"

namespace nk::devMgmt {

struct Device {
    std::string device_id;
    std::string local_id;
    std::string profile_id;
    std::string display_name;
    std::string friendly_name;
    std::string device_type;
    std::string device_os;
    std::string device_os_version;
    std::string device_model;
    std::string mac_vendor;
    std::string box_device_id;
    std::string box_detected_name;
    std::string box_detected_name_history;  // a JSON array of strings, as text
    std::map<std::string, int> apps;
    std::int64_t created = 0;
    int blocked = 0;
    int upnp_enabled = 0;
    int onguest = 0;
    int scan_level = 0;
    int va_scan_level = 0;
    int onbox = 0;
    // Every MAC of the device with its addresses (possibly none).
    std::map<nk::sockutl::macaddr, std::vector<nk::sockutl::address>> macips;

    // Stores the record under its device id; false (logged) on any failure, a full map too.
    bool write_to_shmem() const;
    // Reads the record of `device_id` (by_id; otherwise the first record, by device id,
    // with this `local_id`) into this one; false when absent. `lock` reads inside a write
    // transaction, ordered with all writers, which the daemon never needs.
    bool load_from_shmem(bool lock, bool by_id);
    // False when absent.
    bool delete_shmem() const;
    // Every record of the table, ordered by device id.
    static std::vector<Device> list();

    // The record's stored form: a compact JSON object. from_json fails on a non-object
    // or a field of the wrong type, leaving this record as it was.
    json_t* to_json() const;
    bool from_json(const json_t* json);

    friend bool operator==(const Device& a, const Device& b);
    friend bool operator!=(const Device& a, const Device& b) { return !(a == b); }
};

// A consistent read-only view of the whole table as it was when taken. It holds an LMDB read
// transaction: writers go on meanwhile, and this view does not see them. Move-only; it may
// change threads but must not be used by two at once.
class Snapshot {
public:
    // Empty when the table cannot be opened (logged).
    static std::optional<Snapshot> take();
    ~Snapshot();
    Snapshot(Snapshot&& other) noexcept;
    Snapshot& operator=(Snapshot&& other) noexcept;
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    // The record stored under `device_id`; empty when absent or unreadable.
    std::optional<Device> get(std::string_view device_id) const;
    // Every readable record, ordered by device id.
    std::vector<Device> list() const;

private:
    struct Impl;
    explicit Snapshot(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// The environment variable that overrides the map size (bytes, default 64 MiB) of an
// environment this process creates or opens next; meant for tests that fill the map.
inline constexpr const char* kDevmgmtMapSizeEnv = "NK_DEVMGMT_MAPSIZE";

// Closes the process's environment (tests re-point NK_DEVMGMT_DIR between cases). The
// table is reopened on next use; NK_DEVMGMT_DIR is read again on every use, so changing it
// is enough to switch tables.
void close_table();

}  // namespace nk::devMgmt

// The shared device table: one record per device id, in an LMDB environment that every
// process of the box maps (NK_DEVMGMT_DIR, on tmpfs by default).
#pragma once

#include <jansson.h>

#include <cstdint>
#include <map>
#include <string>
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
    // Reads the record of `device_id` (by_id) into this one; `lock` takes the table's
    // writer lock for the read, which the daemon never needs.
    bool load_from_shmem(bool lock, bool by_id);
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

// Closes the process's environment (tests re-point NK_DEVMGMT_DIR between cases).
void close_table();

}  // namespace nk::devMgmt

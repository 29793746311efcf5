// The storage of devices: a record in the shared device table and a marker under /devices,
// written together or retried from the storage backlog.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device.h"

// What storing a device achieved: its record in the device table, then its marker under
// /devices; `error` is the system error of the first half that failed.
struct StoreOutcome {
    bool table = false;
    bool marker = false;
    int error = 0;
    bool complete() const { return table && marker; }
};

// Markers of many devices, written together with one flush to disk: a first load stores
// hundreds, and a flush each would take seconds.
class MarkerBatch {
public:
    void add(const Device& device, bool flag);
    // Writes what was added; the outcome of each marker, in the order added, is complete or
    // carries its error (logged as a single write's would be).
    std::vector<StoreOutcome> flush();
    // Forgets what was added for the device.
    void discard(const std::string& device_id);

private:
    std::vector<std::pair<std::string, std::string>> markers_;
    std::vector<std::pair<std::string, bool>> devices_;  // id and flag, beside each marker
};

// While one exists, the markers of every device stored go into one batch, flushed when the
// outermost ends: a pass that registers or updates many devices pays one flush, not one each,
// and the answers queued behind it wait that much less. A crash loses the markers of the pass
// in flight (the cloud's list restores them at the next start), never a half-written one.
class DeferredMarkers {
public:
    DeferredMarkers();
    ~DeferredMarkers();
    DeferredMarkers(const DeferredMarkers&) = delete;
    DeferredMarkers& operator=(const DeferredMarkers&) = delete;
};

// With a batch, or while markers are deferred, the marker is added to a batch and written by
// its flush.
StoreOutcome store_device(const Device& device, bool flag, MarkerBatch* batch = nullptr);

// A device's marker under /devices and its record in the device table; true when the record
// was written (a failed marker is logged but does not change the result). Whatever fails of
// storing or removing joins the storage backlog, which retry_storage_backlog() works off.
bool write_device_to_storage(const Device& device, bool flag);
// False when the device is still stored, in part or whole.
bool remove_device_from_storage(const Device& device);
// Stores again, once due, what failed to be stored or removed; run by the loop.
void retry_storage_backlog();
std::optional<Device> load_device_from_storage(const std::string& device_id);
bool load_devices_from_storage(std::vector<Device>& out);

#include "device_storage.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "daemon_state.h"
#include "repeat_filter.h"
#include "storage_backlog.h"

namespace {

RepeatFilter g_marker_failures;

// The marker half of an outcome.
void marker_written(StoreOutcome& outcome, const std::string& key, int err) {
    if (err != 0) {
        outcome.marker = false;
        outcome.error = err;
        NK_LOG(g_marker_failures.level_of(err, nk::log::WARN), "{} setKey error: {}", key,
               nk::errno_text(err));
        return;
    }
    outcome.marker = true;
    if (g_marker_failures.recovered())
        NK_LOG(nk::log::INFO, "device markers are written again");
}

// Whatever did not reach both stores stays in the backlog until a retry gets it there.
void note(const std::string& device_id, bool flag, const StoreOutcome& outcome) {
    if (outcome.complete()) {
        g_storage_backlog.written(device_id);
        return;
    }
    const StorageBacklog::Store store =
        outcome.table ? StorageBacklog::Store::Settings : StorageBacklog::Store::Table;
    g_storage_backlog.write_failed(device_id, flag, store, outcome.error, g_now);
}

int s_deferring = 0;     // nesting of DeferredMarkers, main loop only
MarkerBatch s_deferred;  // what they hold

}  // namespace

DeferredMarkers::DeferredMarkers() {
    ++s_deferring;
}

DeferredMarkers::~DeferredMarkers() {
    if (--s_deferring == 0)
        s_deferred.flush();
}

StoreOutcome store_device(const Device& device, bool flag, MarkerBatch* batch) {
    if (batch == nullptr && s_deferring > 0)
        batch = &s_deferred;
    StoreOutcome outcome;
    nk::_set_nkerrno(0);
    if (!device.to_devmgmt_device().write_to_shmem()) {
        outcome.error = nkerrno != 0 ? nkerrno : EIO;
        note(device.cloud.device_id, flag, outcome);
        return outcome;
    }
    outcome.table = true;
    if (batch) {
        batch->add(device, flag);
        outcome.marker = true;  // as far as it goes: the flush tells
        return outcome;
    }
    const nk::path key = device.device_key();
    marker_written(outcome, key, nk::setMgmt::setKey(key, flag ? "1" : "0") < 0 ? nkerrno : 0);
    note(device.cloud.device_id, flag, outcome);
    return outcome;
}

void MarkerBatch::add(const Device& device, bool flag) {
    std::string key = device.device_key();
    const char* value = flag ? "1" : "0";
    // The last write of a marker in a batch is the one that counts.
    for (std::size_t i = 0; i < markers_.size(); ++i) {
        if (markers_[i].first == key) {
            markers_[i].second = value;
            devices_[i].second = flag;
            return;
        }
    }
    markers_.emplace_back(std::move(key), value);
    devices_.emplace_back(device.cloud.device_id, flag);
}

void MarkerBatch::discard(const std::string& device_id) {
    for (std::size_t i = 0; i < devices_.size(); ++i) {
        if (devices_[i].first == device_id) {
            markers_.erase(markers_.begin() + static_cast<std::ptrdiff_t>(i));
            devices_.erase(devices_.begin() + static_cast<std::ptrdiff_t>(i));
            return;
        }
    }
}

std::vector<StoreOutcome> MarkerBatch::flush() {
    std::vector<int> errors;
    nk::setMgmt::setKeys(markers_, &errors);
    std::vector<StoreOutcome> outcomes(markers_.size());
    for (std::size_t i = 0; i < markers_.size(); ++i) {
        outcomes[i].table = true;
        marker_written(outcomes[i], markers_[i].first, i < errors.size() ? errors[i] : EIO);
        note(devices_[i].first, devices_[i].second, outcomes[i]);
    }
    markers_.clear();
    devices_.clear();
    return outcomes;
}

bool write_device_to_storage(const Device& device, bool flag) {
    return store_device(device, flag).table;
}

bool remove_device_from_storage(const Device& device) {
    NK_LOG(nk::log::INFO, "removing device from storage: {:s}", device.cloud.device_id);
    s_deferred.discard(device.cloud.device_id);  // a marker written later would revive it
    const nk::path key = device.device_key();
    bool removed = true;
    int error = 0;
    if (nk::setMgmt::deleteKey(key) < 0) {
        const int err = nkerrno;
        NK_LOG(nk::log::WARN, "{} removeKey error: {}", key, nk::errno_text(err));
        removed = err == ENOENT;
        error = removed ? 0 : err;
    }
    // A record already gone is what was wanted; any other failure keeps the device stored.
    nk::devMgmt::Device record = device.to_devmgmt_device();
    nk::_set_nkerrno(0);
    StorageBacklog::Store store = StorageBacklog::Store::Settings;
    if (!record.delete_shmem() && nkerrno != 0) {
        removed = false;
        store = StorageBacklog::Store::Table;
        error = nkerrno;
    }
    if (removed)
        g_storage_backlog.removed(device.cloud.device_id);
    else
        g_storage_backlog.removal_failed(device, store, error, g_now);
    return removed;
}

void retry_storage_backlog() {
    if (!g_storage_backlog.due(g_now))
        return;
    for (const auto& [device_id, flag] : g_storage_backlog.writes()) {
        if (Device* device = find_device_by_dev_id(device_id)) {
            if (!device->lock_device_key())
                continue;
            store_device(*device, flag);
            device->unlock_device_key();
            continue;
        }
        // Not listed by the cloud (the BOX's own record): its record in the table is the truth,
        // and only its marker is missing; with no record it has nothing to store.
        std::optional<Device> stored = load_device_from_storage(device_id);
        if (!stored) {
            g_storage_backlog.written(device_id);
            continue;
        }
        if (!stored->lock_device_key())
            continue;
        store_device(*stored, flag);
        stored->unlock_device_key();
    }
    for (Device& device : g_storage_backlog.removals()) {
        if (find_device_by_dev_id(device.cloud.device_id) != nullptr) {
            g_storage_backlog.removed(device.cloud.device_id);  // back in the inventory
            continue;
        }
        if (!device.lock_device_key())
            continue;
        remove_device_from_storage(device);
        device.unlock_device_key();
    }
    g_storage_backlog.retried(g_now);
    g_storage_backlog.report(g_now);
}

std::optional<Device> load_device_from_storage(const std::string& device_id) {
    nk::devMgmt::Device record;
    record.device_id = device_id;
    if (!record.load_from_shmem(false, true))
        return std::nullopt;
    Device device;
    device.from_devmgmt_device(record);
    return device;
}

bool load_devices_from_storage(std::vector<Device>& out) {
    NK_LOG(nk::log::INFO, "loading devices from storage");
    std::vector<std::string> names;
    if (nk::setMgmt::enumSubkeys(Device::base_key, names) < 0) {
        // A box that never stored a device has no /devices yet: that is an empty inventory.
        if (nkerrno == ENOENT)
            return true;
        NK_LOG(nk::log::WARN, "enumSubkeys({:s}) ({:s})", Device::base_key.str(),
               std::strerror(nkerrno));
        return false;
    }
    for (const std::string& name : names) {
        if (std::optional<Device> device = load_device_from_storage(name))
            out.push_back(std::move(*device));
    }
    return true;
}

void Device::set_device_onguest(int onguest) {
    if (cloud.device_id.empty())
        return;
    cloud.onguest = onguest;
    write_device_to_storage(*this, true);
}

#include "storage_backlog.h"

#include <algorithm>

#include <nk/log.h>
#include <nk/nkerrno.h>

StorageBacklog g_storage_backlog;

namespace {

const char* name_of(StorageBacklog::Store store) {
    return store == StorageBacklog::Store::Table ? "device table" : "settings store";
}

}  // namespace

void StorageBacklog::failed(Store store, int error, long now) {
    if (episode_since_ < 0) {
        episode_since_ = now;
        next_retry_ = now + kFirstDelay;
        delay_ = kFirstDelay;
        store_ = store;
        error_ = error;
    }
    most_ = std::max(most_, size());
}

void StorageBacklog::write_failed(const std::string& device_id, bool flag, Store store, int error,
                                  long now) {
    writes_[device_id] = flag;
    removals_.erase(device_id);
    failed(store, error, now);
}

void StorageBacklog::removal_failed(const Device& device, Store store, int error, long now) {
    removals_.insert_or_assign(device.cloud.device_id, device);
    writes_.erase(device.cloud.device_id);
    failed(store, error, now);
}

void StorageBacklog::written(const std::string& device_id) {
    writes_.erase(device_id);
    removals_.erase(device_id);
}

void StorageBacklog::removed(const std::string& device_id) {
    removals_.erase(device_id);
    writes_.erase(device_id);
}

std::vector<std::pair<std::string, bool>> StorageBacklog::writes() const {
    return {writes_.begin(), writes_.end()};
}

std::vector<Device> StorageBacklog::removals() const {
    std::vector<Device> devices;
    for (const auto& entry : removals_)
        devices.push_back(entry.second);
    return devices;
}

void StorageBacklog::retried(long now) {
    delay_ = std::min(delay_ * 2, kMaxDelay);
    next_retry_ = now + delay_;
}

void StorageBacklog::report(long now) {
    if (episode_since_ < 0)
        return;
    if (!empty()) {
        if (!announced_) {
            NK_LOG(nk::log::WARN,
                   "Storage failing: the {:s} refuses writes ({}); {:d} devices not stored, kept "
                   "in memory and retried",
                   name_of(store_), nk::errno_text(error_), size());
            announced_ = true;
        }
        return;
    }
    if (announced_)
        NK_LOG(nk::log::INFO, "{:d} devices stored after {:d} s", most_, now - episode_since_);
    episode_since_ = -1;
    announced_ = false;
    most_ = 0;
}

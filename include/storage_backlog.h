// Devices whose storage is behind the inventory: writes and removals that failed, kept until
// a retry succeeds. A full or read-only store must not stop the daemon, and nothing the
// inventory holds may be lost because it could not be stored.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "device.h"

class StorageBacklog {
public:
    enum class Store { Table, Settings };

    static constexpr long kFirstDelay = 2;
    static constexpr long kMaxDelay = 60;

    void write_failed(const std::string& device_id, bool flag, Store store, int error, long now);
    void removal_failed(const Device& device, Store store, int error, long now);
    // A write or removal that went through; the device leaves the backlog.
    void written(const std::string& device_id);
    void removed(const std::string& device_id);

    bool empty() const { return writes_.empty() && removals_.empty(); }
    std::size_t size() const { return writes_.size() + removals_.size(); }
    bool due(long now) const { return !empty() && now >= next_retry_; }

    // What to try again, as of now; the caller reports each outcome as it goes.
    std::vector<std::pair<std::string, bool>> writes() const;
    std::vector<Device> removals() const;
    // After a retry pass: the next one waits twice as long, up to kMaxDelay.
    void retried(long now);

    // Logs the start of an episode of failures once, with what it holds now, and its end
    // once everything is stored again.
    void report(long now);

private:
    void failed(Store store, int error, long now);

    std::map<std::string, bool> writes_;  // device id to its marker flag
    std::map<std::string, Device> removals_;
    Store store_ = Store::Table;
    int error_ = 0;
    long delay_ = kFirstDelay;
    long next_retry_ = 0;
    long episode_since_ = -1;  // g_now of the first failure of the running episode
    bool announced_ = false;
    std::size_t most_ = 0;  // devices behind at most during the episode
};

extern StorageBacklog g_storage_backlog;

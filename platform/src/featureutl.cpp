#include "nk/featureutl.h"

#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "nk/constants.h"
#include "nk/nkerrno.h"
#include "nk/setmgmt.h"

namespace nk::featureutl {

namespace {

struct Subscription {
    std::function<void(int)> callback;
    int last = 0;  // the value the callback was last told about
};

struct State {
    std::mutex mutex;
    std::optional<setMgmt::MonitoredKey> ids;
    std::map<int, Subscription> subscriptions;
};

State& state() {
    static State s;
    return s;
}

int not_initialised() {
    nk::_set_nkerrno(EINVAL);
    return -1;
}

using Due = std::vector<std::pair<int, std::function<void(int)>>>;

// The subscriptions whose feature changed since last seen; the caller holds the mutex.
Due collect_changes_locked(State& s) {
    Due due;
    for (auto& [feature, sub] : s.subscriptions) {
        const int value = get_feature(feature);
        if (value == sub.last)
            continue;
        sub.last = value;
        due.emplace_back(feature, sub.callback);
    }
    return due;
}

}  // namespace

int init() {
    State& s = state();
    const std::lock_guard guard(s.mutex);
    if (s.ids)
        return 0;
    setMgmt::MonitoredKey ids{std::string(kFeatureIdsKey)};
    if (ids.fd() < 0)
        return -1;
    s.ids.emplace(std::move(ids));
    return 0;
}

void uninit() {
    State& s = state();
    const std::lock_guard guard(s.mutex);
    s.ids.reset();
    s.subscriptions.clear();
}

int get_feature(int feature) {
    return setMgmt::getKeyValue<int>((path(kFeatureIdsKey) / std::to_string(feature)).str(), 0);
}

int get_fd() {
    State& s = state();
    const std::lock_guard guard(s.mutex);
    return s.ids ? s.ids->fd() : -1;
}

// Callbacks run without the mutex held: they may read features or subscribe again.
int read_fd() {
    State& s = state();
    Due due;
    {
        const std::lock_guard guard(s.mutex);
        if (!s.ids)
            return not_initialised();
        s.ids->consume();
        due = collect_changes_locked(s);
    }
    for (const auto& [feature, callback] : due)
        callback(feature);
    return static_cast<int>(due.size());
}

// An empty callback removes the feature's subscription.
int set_on_feature_change(int feature, std::function<void(int)> callback) {
    State& s = state();
    const std::lock_guard guard(s.mutex);
    if (!s.ids)
        return not_initialised();
    if (!callback) {
        s.subscriptions.erase(feature);
        return 0;
    }
    s.subscriptions[feature] = Subscription{std::move(callback), get_feature(feature)};
    return 0;
}

}  // namespace nk::featureutl

// The settings store: a tree of keys kept in a directory tree on disk.
//
// Key "/a/b" is the directory a/b below the root; its value is the text file a/b/.value.
// Calls return 0 (or a count) on success and a negative number with nkerrno set on failure.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

namespace nk {

// Builds settings keys piece by piece: nk::path(kFeatures) / "onbox" / "enabled".
class path {
public:
    path() = default;
    path(std::string_view key) : key_(key) {}  // NOLINT: implicit from key text
    path(const char* key) : key_(key ? key : "") {}
    path(std::string key) : key_(std::move(key)) {}

    path operator/(std::string_view piece) const;
    path& operator/=(std::string_view piece);

    const std::string& str() const { return key_; }
    const char* c_str() const { return key_.c_str(); }
    operator const std::string&() const { return key_; }  // NOLINT: usable wherever a key is

    friend bool operator==(const path& a, const path& b) { return a.key_ == b.key_; }

private:
    std::string key_;
};

}  // namespace nk

namespace nk::setMgmt {

// Creates the root (NK_SETTINGS_DIR) when missing and checks it is writable.
int init();
void uninit();
// The root directory in use (after init, or as the environment names it).
std::string root();

int getKey(const std::string& key, std::string& out);
int setKey(const std::string& key, std::string_view value);
// Removes the key and everything below it.
int deleteKey(const std::string& key);
// Names of the child keys, sorted; negative when the key is absent.
int enumSubkeys(const std::string& key, std::vector<std::string>& out);
// Checks a key's text without touching the store.
bool is_valid_key(std::string_view key);

// Advisory, between processes, counted within one.
int lockKey(const std::string& key);
int unlockKey(const std::string& key);
// The bounded wait of lockKey (default 2000 ms).
void set_lock_timeout_ms(int ms);

// The key's value, or `def` when the key is absent or its text does not parse.
std::string getKeyValue(const std::string& key, const std::string& def);
inline std::string getKeyValue(const std::string& key, const char* def) {
    return getKeyValue(key, std::string(def));
}
template <typename T,
          typename = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
T getKeyValue(const std::string& key, T def) {
    std::string text;
    if (getKey(key, text) < 0) return def;
    T value{};
    const char* first = text.data();
    const char* last = text.data() + text.size();
    const auto [end, ec] = std::from_chars(first, last, value);
    if (ec != std::errc() || end != last || text.empty()) return def;
    return value;
}

// A key to watch: fd() becomes readable when its value or its children change.
// Works for a key that does not exist yet.
class MonitoredKey {
public:
    explicit MonitoredKey(std::string key);
    ~MonitoredKey();
    MonitoredKey(const MonitoredKey&) = delete;
    MonitoredKey& operator=(const MonitoredKey&) = delete;
    MonitoredKey(MonitoredKey&& other) noexcept;
    MonitoredKey& operator=(MonitoredKey&& other) noexcept;

    // -1 when inotify could not be set up.
    int fd() const { return fd_; }
    const std::string& key() const { return key_; }
    // Drains pending notifications; true when any was read.
    bool consume();
    std::string value(const std::string& def = "") const { return getKeyValue(key_, def); }

private:
    void rearm();

    std::string key_;
    int fd_ = -1;
    std::vector<int> watches_;
};

}  // namespace nk::setMgmt

template <>
struct fmt::formatter<nk::path> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::path& p, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(p.str(), ctx);
    }
};

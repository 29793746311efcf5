// The settings store: a tree of keys kept in a directory tree on disk.
//
// Key "/a/b" is the directory a/b below the root; its value is the text file a/b/.value.
// A valid key starts with "/" and has no empty piece (so no trailing "/"), no piece starting
// with "." and no NUL byte; "/" alone is the root key.
// Calls return 0 (or a count) on success and a negative number with nkerrno set on failure:
// EINVAL for a bad key, ENOENT for an absent one.
#pragma once

#include <charconv>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
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
// Releases the locks this process still holds.
void uninit();
// The root directory in use (after init, or as the environment names it).
std::string root();

int getKey(const std::string& key, std::string& out);
int setKey(const std::string& key, std::string_view value);
// Sets many keys with one flush to disk for them all rather than one each: a crash still leaves
// every key with its old or its new value. 0, or negative with nkerrno the first failure;
// `errors` (when given) gets 0 or the error of each key, in order.
int setKeys(const std::vector<std::pair<std::string, std::string>>& values,
            std::vector<int>* errors = nullptr);
// Removes the key and everything below it. The root key cannot be deleted (EINVAL).
int deleteKey(const std::string& key);
// Names of the child keys, sorted; their number, or negative when the key is absent.
int enumSubkeys(const std::string& key, std::vector<std::string>& out);
// Checks a key's text without touching the store.
bool is_valid_key(std::string_view key);

// Advisory, between processes, counted within one (any thread of the process may add or
// drop a hold). lockKey fails with EWOULDBLOCK after the bounded wait; unlockKey of a key
// this process does not hold fails with EPERM.
int lockKey(const std::string& key);
int unlockKey(const std::string& key);
// Whether this process holds the key's lock.
bool holds(const std::string& key);
// The bounded wait of lockKey (default 2000 ms).
void set_lock_timeout_ms(int ms);

// Claims the store for the program `owner` until this process exits, so that two copies of
// one daemon never share a store. Fails with EWOULDBLOCK while another process holds the
// claim; `holder` is then its pid (0 when unknown). A second claim by the same process is 0.
int claim(const std::string& owner, long& holder);
// Removes what interrupted writes and deletes left behind (temporary value files, keys being
// deleted) that are older than `min_age`; the number removed, or negative.
int remove_leftovers(std::chrono::seconds min_age);

// The key's value, or `def` when the key is absent or its text does not parse.
std::string getKeyValue(const std::string& key, const std::string& def);
inline std::string getKeyValue(const std::string& key, const char* def) {
    return getKeyValue(key, std::string(def));
}
template <typename T,
          typename = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
T getKeyValue(const std::string& key, T def) {
    std::string text;
    if (getKey(key, text) < 0)
        return def;
    // White space around the number is allowed: `echo 1 > .value` must work.
    constexpr std::string_view kSpace = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kSpace);
    if (begin == std::string::npos)
        return def;
    const char* first = text.data() + begin;
    const char* last = text.data() + text.find_last_not_of(kSpace) + 1;
    T value{};
    const auto [end, ec] = std::from_chars(first, last, value);
    if (ec != std::errc() || end != last)
        return def;
    return value;
}

// A key to watch: fd() becomes readable when its value or its children change.
// Works for a key that does not exist yet. The store's root is fixed at construction.
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
    // Drains pending notifications and follows the key's tree again; true when the key's
    // value or children may have changed (the descriptor also wakes for nearby changes).
    bool consume();
    std::string value(const std::string& def = "") const { return getKeyValue(key_, def); }

private:
    enum class Role { Key, Child, Ancestor };
    struct Watch {
        int wd;
        Role role;
        std::string next;  // Ancestor: the piece whose creation is awaited
    };

    bool drain() const;
    void rearm();
    bool watch_key_dir(std::vector<Watch>& fresh, std::vector<int>& added) const;
    bool watch_nearest_ancestor(std::vector<Watch>& fresh, std::vector<int>& added) const;
    bool is_relevant(int wd, uint32_t mask, std::string_view name) const;

    std::string key_;
    std::string dir_;
    int fd_ = -1;
    std::vector<Watch> watches_;
};

}  // namespace nk::setMgmt

template <>
struct fmt::formatter<nk::path> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::path& p, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(p.str(), ctx);
    }
};

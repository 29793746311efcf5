#include "nk/setmgmt.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/log.h"
#include "nk/nkerrno.h"

// Nothing reachable from getKey() may log: the log module reads its levels through it while
// holding its own lock.

namespace nk::setMgmt {

namespace {

constexpr const char* kValueName = ".value";
constexpr const char* kLocksDir = ".locks";
constexpr const char* kClaimSuffix = ".claim";
// Names of what a write or a delete leaves behind when interrupted.
constexpr const char* kTempPrefix = ".value.";
constexpr const char* kDeletedPrefix = ".deleted.";
constexpr mode_t kDirMode = 0755;
constexpr mode_t kFileMode = 0644;

int fail(int err) {
    nk::_set_nkerrno(err);
    return -1;
}

bool is_root_key(std::string_view key) {
    return key == "/";
}

std::string key_dir(const std::string& key) {
    return is_root_key(key) ? root() : root() + key;
}

// mkdir -p: every missing directory on the way is created. Usually the parent exists, so the
// walk up happens only when the first mkdir says it is missing.
bool make_dirs(const std::string& dir) {
    if (::mkdir(dir.c_str(), kDirMode) == 0 || errno == EEXIST)
        return true;
    const std::size_t slash = dir.rfind('/');
    if (errno != ENOENT || slash == 0 || slash == std::string::npos)
        return false;
    if (!make_dirs(dir.substr(0, slash)))
        return false;
    return ::mkdir(dir.c_str(), kDirMode) == 0 || errno == EEXIST;
}

bool read_all(int fd, std::string& out) {
    out.clear();
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n == 0)
            return true;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        out.append(buf, static_cast<std::size_t>(n));
    }
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Reading must not write: on a file system mounted relatime, the first read after a change,
// and one a day after that, rewrites the inode for its access time. Only the owner (or
// CAP_FOWNER) may ask not to; anyone else reads as before.
nk::io::unique_fd open_to_read(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_RDONLY | O_NOATIME | O_CLOEXEC);
    if (fd >= 0 || errno != EPERM)
        return nk::io::unique_fd(fd);
    return nk::io::unique_fd(::open(path.c_str(), flags | O_RDONLY | O_CLOEXEC));
}

bool read_file(const std::string& file, std::string& out) {
    const nk::io::unique_fd fd = open_to_read(file, 0);
    return fd && read_all(fd.get(), out);
}

// The value in a new temporary file beside the key's, on disk when `flush`; its path, or empty
// with errno set.
std::string write_temp(const std::string& dir, std::string_view value, bool flush) {
    std::string temp = dir + "/" + kTempPrefix + "XXXXXX";
    nk::io::unique_fd fd(::mkostemp(temp.data(), O_CLOEXEC));
    if (!fd)
        return {};
    if (::fchmod(fd.get(), kFileMode) == 0 && write_all(fd.get(), value) &&
        (!flush || ::fsync(fd.get()) == 0)) {
        return temp;
    }
    const int err = errno;
    ::unlink(temp.c_str());
    errno = err;
    return {};
}

// Readers see the old or the new file, never a partly written one: the temporary file is on
// disk before the rename makes it the value.
int publish(const std::string& temp, const std::string& dir) {
    if (::rename(temp.c_str(), (dir + "/" + kValueName).c_str()) == 0)
        return 0;
    const int err = errno;
    ::unlink(temp.c_str());
    return fail(err);
}

// Writing what is stored already would cost a flush and a rename for nothing.
bool is_stored(const std::string& dir, std::string_view value) {
    std::string current;
    return read_file(dir + "/" + kValueName, current) && current == value;
}

bool is_directory(const std::string& dir, const dirent& entry) {
    if (entry.d_type == DT_DIR)
        return true;
    if (entry.d_type != DT_UNKNOWN)
        return false;
    struct stat st {};
    return ::stat((dir + "/" + entry.d_name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};

// Lock files are named after the key with '/' and '%' escaped, so every key maps to one
// flat name and locking never creates the key's directory.
std::string lock_file(const std::string& key) {
    std::string name;
    for (const char c : key) {
        if (c == '/' || c == '%') {
            char hex[4];
            std::snprintf(hex, sizeof(hex), "%%%02X", static_cast<unsigned char>(c));
            name += hex;
        } else {
            name += c;
        }
    }
    return root() + "/" + kLocksDir + "/" + name;
}

// The folder of lock files is made on the first use only.
nk::io::unique_fd open_lock_file(const std::string& file) {
    const auto open = [&file] {
        return nk::io::unique_fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode));
    };
    nk::io::unique_fd fd = open();
    if (!fd && errno == ENOENT && make_dirs(root() + "/" + kLocksDir))
        fd = open();
    return fd;
}

// A store on a read-only or full file system.
bool refuses_writes(int err) {
    return err == EROFS || err == ENOSPC || err == EDQUOT;
}

struct HeldLock {
    nk::io::unique_fd fd;
    int count = 0;
};

struct LockTable {
    std::mutex mutex;
    std::map<std::string, HeldLock> held;  // by lock file path
};

LockTable& locks() {
    static LockTable table;
    return table;
}

std::atomic<int> g_lock_timeout_ms{2000};

// Counts one more hold when this process has the lock already.
bool add_hold_if_held(const std::string& file) {
    LockTable& t = locks();
    const std::lock_guard guard(t.mutex);
    const auto it = t.held.find(file);
    if (it == t.held.end())
        return false;
    ++it->second.count;
    return true;
}

void record_hold(const std::string& file, nk::io::unique_fd fd) {
    LockTable& t = locks();
    const std::lock_guard guard(t.mutex);
    HeldLock& h = t.held[file];
    if (h.count++ == 0)
        h.fd = std::move(fd);
}

// Polls flock() until the deadline; another thread of this process taking the lock meanwhile
// counts as success.
int wait_for_lock(const std::string& file, nk::io::unique_fd fd) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(g_lock_timeout_ms.load());
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
            record_hold(file, std::move(fd));
            return 0;
        }
        if (errno != EWOULDBLOCK && errno != EINTR)
            return fail(errno);
        if (add_hold_if_held(file))
            return 0;
        const auto now = Clock::now();
        if (now >= deadline)
            return fail(EWOULDBLOCK);
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
}

}  // namespace

std::string root() {
    const char* dir = std::getenv(kSettingsDirEnv);
    return (dir && *dir) ? dir : kSettingsDirDefault;
}

bool is_valid_key(std::string_view key) {
    if (key.empty() || key.front() != '/' || key.find('\0') != std::string_view::npos)
        return false;
    if (is_root_key(key))
        return true;
    std::size_t start = 1;
    for (;;) {
        const std::size_t end = key.find('/', start);
        const std::string_view piece = key.substr(start, end - start);
        if (piece.empty() || piece.front() == '.')
            return false;
        if (end == std::string_view::npos)
            return true;
        start = end + 1;
    }
}

int init() {
    const std::string dir = root();
    if (!make_dirs(dir) || ::access(dir.c_str(), W_OK) != 0) {
        const int err = errno;
        // A store mounted read-only still reads; each write then fails on its own.
        if (err == EROFS && ::access(dir.c_str(), R_OK | X_OK) == 0) {
            NK_LOG(log::WARN, "settings root {} is read-only: changes fail until it is writable",
                   dir);
            return 0;
        }
        NK_LOG(log::ERROR, "settings root {} is not usable: {}", dir, std::strerror(err));
        return fail(err);
    }
    return 0;
}

void uninit() {
    LockTable& t = locks();
    const std::lock_guard guard(t.mutex);
    t.held.clear();
}

int getKey(const std::string& key, std::string& out) {
    if (!is_valid_key(key))
        return fail(EINVAL);
    std::string text;
    if (!read_file(key_dir(key) + "/" + kValueName, text))
        return fail(errno == ENOTDIR ? ENOENT : errno);
    out = std::move(text);
    return 0;
}

std::string getKeyValue(const std::string& key, const std::string& def) {
    std::string value;
    return getKey(key, value) < 0 ? def : value;
}

int setKey(const std::string& key, std::string_view value) {
    if (!is_valid_key(key))
        return fail(EINVAL);
    const std::string dir = key_dir(key);
    if (is_stored(dir, value))
        return 0;
    if (!make_dirs(dir))
        return fail(errno);
    const std::string temp = write_temp(dir, value, true);
    return temp.empty() ? fail(errno) : publish(temp, dir);
}

int setKeys(const std::vector<std::pair<std::string, std::string>>& values,
            std::vector<int>* errors) {
    std::vector<int> results(values.size(), 0);
    std::vector<std::pair<std::size_t, std::string>> written;  // index and temporary file
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto& [key, value] = values[i];
        if (!is_valid_key(key)) {
            results[i] = EINVAL;
            continue;
        }
        const std::string dir = key_dir(key);
        if (is_stored(dir, value))
            continue;
        std::string temp = make_dirs(dir) ? write_temp(dir, value, false) : std::string();
        if (temp.empty())
            results[i] = errno;
        else
            written.emplace_back(i, std::move(temp));
    }
    // One flush for them all, before any rename.
    const nk::io::unique_fd root_fd(::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int flushed = !written.empty() && (!root_fd || ::syncfs(root_fd.get()) != 0) ? errno : 0;
    for (const auto& [i, temp] : written) {
        const std::string dir = key_dir(values[i].first);
        if (flushed != 0) {
            ::unlink(temp.c_str());
            results[i] = flushed;
        } else if (publish(temp, dir) < 0) {
            results[i] = nkerrno;
        }
    }
    const auto failed = std::find_if(results.begin(), results.end(), [](int e) { return e != 0; });
    const int first = failed == results.end() ? 0 : *failed;
    if (errors)
        *errors = std::move(results);
    return first == 0 ? 0 : fail(first);
}

// The key is first renamed to a hidden name next to it, so it vanishes at once for readers
// and watchers, then its tree is removed.
int deleteKey(const std::string& key) {
    if (!is_valid_key(key) || is_root_key(key))
        return fail(EINVAL);
    const std::string dir = key_dir(key);
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0)
        return fail(errno == ENOTDIR ? ENOENT : errno);
    std::string doomed = dir.substr(0, dir.rfind('/')) + "/" + kDeletedPrefix + "XXXXXX";
    if (::mkdtemp(doomed.data()) == nullptr)
        return fail(errno);
    if (::rename(dir.c_str(), doomed.c_str()) != 0) {
        const int err = errno;
        ::rmdir(doomed.c_str());
        return fail(err);
    }
    std::error_code ec;
    std::filesystem::remove_all(doomed, ec);
    return ec ? fail(ec.value()) : 0;
}

int enumSubkeys(const std::string& key, std::vector<std::string>& out) {
    if (!is_valid_key(key))
        return fail(EINVAL);
    const std::string dir = key_dir(key);
    nk::io::unique_fd fd = open_to_read(dir, O_DIRECTORY);
    DIR* const opened = fd ? ::fdopendir(fd.get()) : nullptr;
    if (!opened)
        return fail(errno == ENOTDIR ? ENOENT : errno);
    const std::unique_ptr<DIR, DirCloser> d(opened);
    fd.release();  // closed with the DIR
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(d.get())) {
        if (entry->d_name[0] != '.' && is_directory(dir, *entry))
            names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    out = std::move(names);
    return static_cast<int>(out.size());
}

int lockKey(const std::string& key) {
    if (!is_valid_key(key))
        return fail(EINVAL);
    const std::string file = lock_file(key);
    if (add_hold_if_held(file))
        return 0;
    nk::io::unique_fd fd = open_lock_file(file);
    if (!fd && refuses_writes(errno)) {
        // flock needs no write access; a lock file that cannot even be made guards a key that
        // nobody can write either, so the hold is this process's own.
        fd = nk::io::unique_fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) {
            record_hold(file, nk::io::unique_fd());
            return 0;
        }
    }
    if (!fd)
        return fail(errno);
    return wait_for_lock(file, std::move(fd));
}

int unlockKey(const std::string& key) {
    if (!is_valid_key(key))
        return fail(EINVAL);
    LockTable& t = locks();
    const std::lock_guard guard(t.mutex);
    const auto it = t.held.find(lock_file(key));
    if (it == t.held.end())
        return fail(EPERM);
    // Closing the last descriptor releases the flock.
    if (--it->second.count == 0)
        t.held.erase(it);
    return 0;
}

bool holds(const std::string& key) {
    if (!is_valid_key(key))
        return false;
    LockTable& t = locks();
    const std::lock_guard guard(t.mutex);
    return t.held.count(lock_file(key)) != 0;
}

void set_lock_timeout_ms(int ms) {
    g_lock_timeout_ms = std::max(ms, 0);
}

int claim(const std::string& owner, long& holder) {
    holder = 0;
    if (owner.empty() || owner.find('/') != std::string::npos || owner.front() == '.')
        return fail(EINVAL);
    static std::mutex mutex;
    static std::map<std::string, nk::io::unique_fd> claims;  // kept until the process exits
    const std::lock_guard guard(mutex);
    const std::string file = root() + "/" + kLocksDir + "/" + owner + kClaimSuffix;
    if (claims.count(file) != 0)
        return 0;
    nk::io::unique_fd fd = open_lock_file(file);
    if (!fd && refuses_writes(errno)) {
        fd = nk::io::unique_fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) {
            // Nobody can change a store that takes no new file: there is nothing to claim.
            NK_LOG(log::WARN, "settings store {} takes no claim of {}: it refuses writes", root(),
                   owner);
            return 0;
        }
    }
    if (!fd)
        return fail(errno);
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        std::string text;
        if (read_all(fd.get(), text))
            holder = std::strtol(text.c_str(), nullptr, 10);
        return fail(err == EWOULDBLOCK ? EWOULDBLOCK : err);
    }
    // The pid is only for the message of the one refused (a full disk may refuse it); the
    // lock is what decides.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd.get(), 0) == 0)
        (void)write_all(fd.get(), pid);
    claims.emplace(file, std::move(fd));
    return 0;
}

int remove_leftovers(std::chrono::seconds min_age) {
    namespace fs = std::filesystem;
    const auto now = fs::file_time_type::clock::now();
    std::error_code ec;
    fs::recursive_directory_iterator it(root(), fs::directory_options::skip_permission_denied, ec);
    if (ec)
        return fail(ec.value());
    int removed = 0;
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().string();
        const bool temp = name.rfind(kTempPrefix, 0) == 0;
        const bool deleted = name.rfind(kDeletedPrefix, 0) == 0;
        if (name == kLocksDir || deleted)
            it.disable_recursion_pending();
        if (!temp && !deleted)
            continue;
        // A writer of another process may be between its mkstemp and its rename right now.
        std::error_code age_ec;
        const auto changed = fs::last_write_time(it->path(), age_ec);
        if (age_ec || now - changed < min_age)
            continue;
        std::error_code rm_ec;
        if (fs::remove_all(it->path(), rm_ec) > 0)
            ++removed;
    }
    return ec ? fail(ec.value()) : removed;
}

}  // namespace nk::setMgmt

namespace nk {

path path::operator/(std::string_view piece) const {
    path p(*this);
    p /= piece;
    return p;
}

path& path::operator/=(std::string_view piece) {
    if (key_.empty() || key_.back() != '/')
        key_.push_back('/');
    key_.append(piece);
    return *this;
}

}  // namespace nk

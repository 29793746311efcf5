#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "nk/nkerrno.h"
#include "nk/setmgmt.h"

// The key's directory is watched for its value and for children coming and going, and each
// child directory for its value. A key that does not exist yet is followed from its nearest
// existing ancestor, and the watches move down as the path appears.

namespace nk::setMgmt {

namespace {

constexpr uint32_t kSelfGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;
constexpr uint32_t kKeyMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                              IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kChildMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR;
constexpr uint32_t kAncestorMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// A path that keeps changing while it is followed is given up on after this many rounds;
// the next notification starts over.
constexpr int kMaxRearmRounds = 16;

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};

std::string absolute_dir(const std::string& key) {
    std::error_code ec;
    std::filesystem::path dir = std::filesystem::absolute(root(), ec);
    if (ec)
        dir = root();
    if (key != "/")
        dir /= key.substr(1);
    std::string text = dir.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

std::string parent_of(const std::string& dir) {
    const std::size_t slash = dir.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : dir.substr(0, slash);
}

bool is_dir(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> child_dirs(const std::string& dir) {
    std::vector<std::string> out;
    const std::unique_ptr<DIR, DirCloser> d(::opendir(dir.c_str()));
    if (!d)
        return out;
    while (const dirent* entry = ::readdir(d.get())) {
        if (entry->d_name[0] != '.')
            out.push_back(dir + "/" + entry->d_name);
    }
    return out;
}

}  // namespace

MonitoredKey::MonitoredKey(std::string key) : key_(std::move(key)) {
    if (!is_valid_key(key_)) {
        nk::_set_nkerrno(EINVAL);
        return;
    }
    fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd_ < 0) {
        nk::_set_nkerrno(errno);
        return;
    }
    dir_ = absolute_dir(key_);
    rearm();
}

MonitoredKey::~MonitoredKey() {
    if (fd_ >= 0)
        ::close(fd_);
}

MonitoredKey::MonitoredKey(MonitoredKey&& other) noexcept
    : key_(std::move(other.key_)),
      dir_(std::move(other.dir_)),
      fd_(std::exchange(other.fd_, -1)),
      watches_(std::move(other.watches_)) {}

MonitoredKey& MonitoredKey::operator=(MonitoredKey&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0)
            ::close(fd_);
        key_ = std::move(other.key_);
        dir_ = std::move(other.dir_);
        fd_ = std::exchange(other.fd_, -1);
        watches_ = std::move(other.watches_);
    }
    return *this;
}

// Dropping stale watches queues IN_IGNORED events, so the queue is read again after each
// re-arm: the descriptor is left quiet unless something changed since.
bool MonitoredKey::consume() {
    if (fd_ < 0)
        return false;
    bool changed = false;
    for (int round = 0; round < kMaxRearmRounds && drain(); ++round) {
        changed = true;
        rearm();
    }
    return changed;
}

bool MonitoredKey::drain() const {
    alignas(inotify_event) char buf[4096];
    bool relevant = false;
    for (;;) {
        const ssize_t n = ::read(fd_, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return relevant;
        for (const char* p = buf; p < buf + n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(p);
            const std::string_view name = ev->len > 0 ? std::string_view(ev->name) : "";
            relevant =
                (ev->mask & IN_Q_OVERFLOW) != 0 || is_relevant(ev->wd, ev->mask, name) || relevant;
            p += sizeof(inotify_event) + ev->len;
        }
    }
}

bool MonitoredKey::is_relevant(int wd, uint32_t mask, std::string_view name) const {
    const auto it =
        std::find_if(watches_.begin(), watches_.end(), [wd](const Watch& w) { return w.wd == wd; });
    if (it == watches_.end())
        return false;  // a watch already dropped
    switch (it->role) {
        case Role::Key:
            if ((mask & kSelfGone) != 0 || name == ".value")
                return true;
            return !name.empty() && name.front() != '.' && (mask & IN_ISDIR) != 0;
        case Role::Child:
            return name == ".value";
        case Role::Ancestor:
            return (mask & kSelfGone) != 0 || name == it->next;
    }
    return false;
}

// Watches are added before stale ones are dropped, so no change slips through in between.
void MonitoredKey::rearm() {
    std::vector<Watch> fresh;
    std::vector<int> added;
    for (int round = 0; round < kMaxRearmRounds; ++round) {
        fresh.clear();
        if (watch_key_dir(fresh, added) || watch_nearest_ancestor(fresh, added))
            break;
    }
    for (const Watch& w : watches_)
        added.push_back(w.wd);
    for (const int wd : added) {
        const bool kept =
            std::any_of(fresh.begin(), fresh.end(), [wd](const Watch& w) { return w.wd == wd; });
        if (!kept)
            ::inotify_rm_watch(fd_, wd);
    }
    watches_ = std::move(fresh);
}

bool MonitoredKey::watch_key_dir(std::vector<Watch>& fresh, std::vector<int>& added) const {
    const int wd = ::inotify_add_watch(fd_, dir_.c_str(), kKeyMask);
    if (wd < 0)
        return false;
    added.push_back(wd);
    fresh.push_back({wd, Role::Key, {}});
    for (const std::string& child : child_dirs(dir_)) {
        const int cwd = ::inotify_add_watch(fd_, child.c_str(), kChildMask);
        if (cwd < 0)
            continue;  // a file, or gone already: the key's watch reports it
        added.push_back(cwd);
        fresh.push_back({cwd, Role::Child, {}});
    }
    return true;
}

// False when the awaited piece appeared while arming: the caller starts over deeper.
bool MonitoredKey::watch_nearest_ancestor(std::vector<Watch>& fresh,
                                          std::vector<int>& added) const {
    std::string below = dir_;
    while (below != "/") {
        const std::string dir = parent_of(below);
        const std::string next = below.substr(below.rfind('/') + 1);
        const int wd = ::inotify_add_watch(fd_, dir.c_str(), kAncestorMask);
        if (wd >= 0) {
            added.push_back(wd);
            fresh.push_back({wd, Role::Ancestor, next});
            return !is_dir(below);
        }
        below = dir;
    }
    return true;  // nothing on the way can be watched
}

}  // namespace nk::setMgmt

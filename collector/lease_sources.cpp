#include "lease_sources.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>

#include <fmt/ranges.h>

#include <nk/log.h>

#include "lease_file.h"

namespace nk::collector {

namespace {

// dnsmasq rewrites its file in place, dhcpd appends and renames; both are seen.
constexpr std::uint32_t kEvents =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM;

std::string directory_of(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool LeaseSources::open() {
    inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!inotify_) {
        NK_LOG(nk::log::ERROR, "inotify: {:s}", std::strerror(errno));
        return false;
    }
    return true;
}

void LeaseSources::refresh() {
    std::vector<std::string> paths = lease_file_paths();
    if (paths != paths_)
        NK_LOG(nk::log::DEBUG, "lease files: {}", fmt::join(paths, ", "));
    paths_ = std::move(paths);
    for (const std::string& path : paths_) {
        const std::string dir = directory_of(path);
        const int wd = ::inotify_add_watch(inotify_.get(), dir.c_str(), kEvents);
        if (wd >= 0)
            watched_[wd] = dir;
    }
}

bool LeaseSources::drain() {
    alignas(inotify_event) char buf[4096];
    bool relevant = false;
    for (;;) {
        const ssize_t n = ::read(inotify_.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return relevant;
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buf + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->mask & IN_Q_OVERFLOW) {
                relevant = true;
                continue;
            }
            const auto dir = watched_.find(event->wd);
            if (event->mask & IN_IGNORED) {
                if (dir != watched_.end())
                    watched_.erase(dir);
                continue;
            }
            if (dir == watched_.end() || event->len == 0)
                continue;
            const std::string path =
                (dir->second == "/" ? "" : dir->second) + "/" + std::string(event->name);
            relevant = relevant || std::find(paths_.begin(), paths_.end(), path) != paths_.end();
        }
    }
}

std::vector<Lease> LeaseSources::read(std::time_t now, bool& torn) {
    std::vector<Lease> leases;
    torn = false;
    std::string text;
    for (const std::string& path : paths_) {
        if (!read_file(path, text)) {
            const int err = errno;
            if (err != ENOENT && unreadable_.insert(path).second) {
                NK_LOG(nk::log::WARN, "cannot read the lease file {:s}: {:s}", path,
                       std::strerror(err));
            }
            continue;
        }
        unreadable_.erase(path);
        LeaseFile file = read_lease_text(text, now);
        log_problems(path, text, file);
        torn = torn || file.torn;
        std::move(file.leases.begin(), file.leases.end(), std::back_inserter(leases));
    }
    return leases;
}

void LeaseSources::log_problems(const std::string& path, const std::string& text,
                                const LeaseFile& file) {
    const std::size_t hash = std::hash<std::string>{}(text);
    if (file.problems.empty() || logged_[path] == hash)
        return;
    logged_[path] = hash;
    for (const LeaseProblem& p : file.problems)
        NK_LOG(nk::log::WARN, "{:s}:{:d}: {:s}, skipped", path, p.line, p.what);
}

}  // namespace nk::collector

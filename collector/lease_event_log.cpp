#include "lease_event_log.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nk/log.h>
#include <nk/setmgmt.h>

namespace nk::collector {

namespace {

constexpr std::uint32_t kEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_DELETE;

std::string directory_of(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool read_range(int fd, std::uint64_t from, std::size_t size, std::string& out) {
    out.resize(size);
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd, &out[got], size - got, static_cast<off_t>(from + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    out.resize(got);
    return got > 0;
}

}  // namespace

bool LeaseEventLog::open() {
    inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!inotify_) {
        NK_LOG(nk::log::ERROR, "inotify: {:s}", std::strerror(errno));
        return false;
    }
    return true;
}

void LeaseEventLog::refresh() {
    std::string path = nk::setMgmt::getKeyValue(std::string(kLeaseEventsKey), "");
    if (path.empty())
        path = kDefaultLeaseEvents;
    if (path != path_) {
        NK_LOG(nk::log::DEBUG, "lease events: {:s}", path);
        path_ = path;
        offset_ = 0;
        inode_ = 0;
        if (watch_ >= 0)
            ::inotify_rm_watch(inotify_.get(), watch_);
        watch_ = -1;
    }
    // The directory may appear later; it is tried again at every refresh.
    if (watch_ < 0 && inotify_) {
        dir_ = directory_of(path_);
        watch_ = ::inotify_add_watch(inotify_.get(), dir_.c_str(), kEvents);
    }
}

bool LeaseEventLog::drain() {
    alignas(inotify_event) char buf[4096];
    const std::string name = base_of(path_);
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
            if (event->mask & IN_IGNORED)
                watch_ = -1;
            relevant = relevant || (event->mask & IN_Q_OVERFLOW) != 0 ||
                       (event->len != 0 && name == event->name);
        }
    }
}

bool LeaseEventLog::read() {
    const nk::io::unique_fd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    active_ = fd && ::fstat(fd.get(), &st) == 0;
    if (!active_)
        return false;
    const auto size = static_cast<std::uint64_t>(st.st_size);
    // The script empties a large file; a new file is read from its start.
    if (st.st_ino != inode_ || size < offset_) {
        inode_ = st.st_ino;
        offset_ = 0;
    }
    bool partial = false;
    if (size - offset_ > kMaxRead) {
        offset_ = size - kMaxRead;
        partial = true;
    }
    std::string text;
    if (offset_ == size || !read_range(fd.get(), offset_, size - offset_, text))
        return false;
    std::size_t used = 0;
    // Read from the middle, the first line is a piece of one.
    if (partial) {
        const std::size_t end = text.find('\n');
        used = end == std::string::npos ? text.size() : end + 1;
    }
    used += take_lines(std::string_view(text).substr(used));
    // A line that never ends is no event: it is dropped, and the next line read.
    if (text.size() - used > kMaxLeaseEventLine) {
        const std::size_t end = text.find('\n', used);
        used = end == std::string::npos ? text.size() : end + 1;
    }
    offset_ += used;
    return used > 0;
}

std::size_t LeaseEventLog::take_lines(std::string_view text) {
    std::size_t used = 0;
    int bad = 0;
    std::string first_why;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos;
         end = text.find('\n', used)) {
        std::string why;
        const std::optional<LeaseEvent> event =
            read_lease_event(text.substr(used, end - used), why);
        used = end + 1;
        if (event) {
            take(*event);
        } else if (bad++ == 0) {
            first_why = std::move(why);
        }
    }
    if (bad > 0)
        NK_LOG(nk::log::WARN, "{:s}: {:d} lines skipped, the first: {:s}", path_, bad, first_why);
    return used;
}

void LeaseEventLog::take(const LeaseEvent& event) {
    if (event.ip.is_v6()) {
        if (event.mac.is_valid())
            duid_macs_.touch(event.duid) = event.mac;
        return;
    }
    if (event.action == LeaseEvent::Action::Del)
        return;
    // "old" events at the server's start miss what its lease file does not keep.
    ClientRequest& request = requests_.touch(event.mac);
    if (!event.host.empty())
        request.host = event.host;
    if (event.fingerprint.known())
        request.fingerprint = event.fingerprint;
    if (!event.client_id.empty())
        request.client_id = event.client_id;
}

const ClientRequest* LeaseEventLog::request_of(const sockutl::macaddr& mac) const {
    return requests_.find(mac);
}

sockutl::macaddr LeaseEventLog::mac_of_duid(const std::string& duid) const {
    const sockutl::macaddr* mac = duid_macs_.find(duid);
    return mac != nullptr ? *mac : sockutl::macaddr();
}

}  // namespace nk::collector

#include "onbox_guardian.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <nk/constants.h>

#include "daemon_state.h"

namespace nk::onbox {

namespace {

constexpr const char* kChannelName = "onbox-guardian";
constexpr int kMaxEvents = 8;

// The switch that turns onbox reporting off for the whole BOX.
class GlobalSwitch final : public Verdict {
public:
    GlobalSwitch()
        : Verdict("global switch",
                  {(nk::path(nk::kDefaultSettingsFeaturesKey) / "onbox" / "enabled").str()}) {}

private:
    bool compute() const override {
        const bool on = keys().front().value("1") != "0";
        if (on)
            NK_LOG_CH(channel(), nk::log::DEBUG, "Global switch is on => verdict TRUE");
        else
            NK_LOG_CH(channel(), nk::log::DEBUG, "Global switch is off => verdict FALSE");
        return on;
    }
};

bool set_nonblocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Verdict

Verdict::Verdict(std::string name, const std::vector<std::string>& keys) : name_(std::move(name)) {
    keys_.reserve(keys.size());
    for (const std::string& key : keys)
        keys_.emplace_back(key);
}

Verdict::~Verdict() {
    for (const int fd : attached_) {
        nk::io::epoll_del_fd(epoll_, fd);
        NK_LOG_CH(channel_, nk::log::DEBUG, "Cleared fd {:d} from epoll", fd);
    }
}

void Verdict::attach(int epoll, nk::log::Channel channel) {
    epoll_ = epoll;
    channel_ = channel;
    for (const nk::setMgmt::MonitoredKey& key : keys_) {
        const int fd = key.fd();
        if (fd < 0) {
            // Unwatched, the key is still read now; it just won't be followed.
            NK_LOG_CH(channel_, nk::log::ERROR, "Cannot watch key '{}' for verdict {}", key.key(),
                      name_);
            continue;
        }
        if (!set_nonblocking(fd))
            NK_LOG_CH(channel_, nk::log::ERROR, "fcntl(): {:s}", std::strerror(errno));
        if (nk::io::epoll_set_fd_ro(epoll_, fd) != 0) {
            NK_LOG_CH(channel_, nk::log::ERROR, "epoll_ctl(): {:s}", std::strerror(errno));
            continue;
        }
        attached_.push_back(fd);
        NK_LOG_CH(channel_, nk::log::DEBUG, "Set fd {:d} to epoll for verdict {}", fd, name_);
    }
    value_ = compute();
}

bool Verdict::owns(int fd) const {
    return std::find(attached_.begin(), attached_.end(), fd) != attached_.end();
}

void Verdict::on_readable(int fd) {
    for (nk::setMgmt::MonitoredKey& key : keys_) {
        if (key.fd() != fd)
            continue;
        key.consume();
        NK_LOG_CH(channel_, nk::log::DEBUG, "Key '{}' changed, recomputing verdict...", key.key());
        value_ = compute();
    }
}

std::string Verdict::describe() const {
    std::string fds;
    for (const int fd : attached_)
        fds += fmt::format("{}{:d}", fds.empty() ? "" : ",", fd);
    return fmt::format("{}(fds=[{}], value={})", name_, fds, value_);
}

// ---------------------------------------------------------------------------------------------
// Guardian

Guardian& Guardian::instance() {
    static Guardian guardian;
    return guardian;
}

// Touching the log first makes it outlive the gate, whose verdicts log when they go.
Guardian::Guardian() {
    (void)nk::log::can_log(nk::log::default_channel(), nk::log::ERROR);
}

bool Guardian::init() {
    uninit();
    const std::optional<nk::log::Channel> channel = nk::log::open_channel(kChannelName);
    if (!channel) {
        NK_LOG(nk::log::ERROR, "Failed to open onbox-guardian log channel");
        return false;
    }
    channel_ = *channel;
    epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) {
        NK_LOG_CH(channel_, nk::log::ERROR, "epoll_create1(): {:s}", std::strerror(errno));
        return false;
    }
    verdicts_.push_back(std::make_unique<GlobalSwitch>());
    for (const std::unique_ptr<Verdict>& verdict : verdicts_)
        verdict->attach(epoll_.get(), channel_);
    return true;
}

void Guardian::uninit() {
    verdicts_.clear();
    epoll_.reset();
}

void Guardian::read_fd() {
    epoll_event events[kMaxEvents];
    const int n = ::epoll_wait(epoll_.get(), events, kMaxEvents, 0);
    if (n < 0) {
        NK_LOG_CH(channel_, nk::log::ERROR, "epoll_wait(): {:s}", std::strerror(errno));
        return;
    }
    for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        Verdict* const verdict = owner_of(fd);
        if (verdict == nullptr) {
            NK_LOG_CH(channel_, nk::log::WARN, "BUG: No verdict for fd: {:d}. Dumping self: {}", fd,
                      describe());
            nk::io::epoll_del_fd(epoll_.get(), fd);  // or it would wake the loop forever
            continue;
        }
        NK_LOG_CH(channel_, nk::log::DEBUG, "Reading fd {:d} from epoll for verdict {}", fd,
                  verdict->name());
        verdict->on_readable(fd);
    }
}

bool Guardian::allows() const {
    if (!g_feature_onbox_status) {
        NK_LOG_CH(channel_, nk::log::TRACE, "Not allowed by onbox feature (off)");
        return false;
    }
    return std::all_of(verdicts_.begin(), verdicts_.end(),
                       [](const std::unique_ptr<Verdict>& v) { return v->value(); });
}

Verdict* Guardian::owner_of(int fd) const {
    const auto it = std::find_if(verdicts_.begin(), verdicts_.end(),
                                 [fd](const std::unique_ptr<Verdict>& v) { return v->owns(fd); });
    return it != verdicts_.end() ? it->get() : nullptr;
}

std::string Guardian::describe() const {
    std::string verdicts;
    for (const std::unique_ptr<Verdict>& verdict : verdicts_)
        verdicts += (verdicts.empty() ? "" : ", ") + verdict->describe();
    return fmt::format("Guardian(epoll={:d}, verdicts=[{}])", epoll_.get(), verdicts);
}

}  // namespace nk::onbox

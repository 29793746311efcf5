// The daemon: start-up, the main loop over one epoll set, and the stop sequence.
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <fmt/ranges.h>
#include <jansson.h>
#include <nk/constants.h>
#include <nk/daemon.h>
#include <nk/featureutl.h>
#include <nk/io.h>
#include <nk/log.h>
#include <nk/memory_budget.h>
#include <nk/nkerrno.h>
#include <nk/nkex.h>
#include <nk/setmgmt.h>
#include <nk/timer.h>
#include <nk/util.h>

#include "additional_info.h"
#include "bus_event_handlers.h"
#include "daemon_state.h"
#include "device_identity.h"
#include "device_storage.h"
#include "device_sync.h"
#include "event_pipe.h"
#include "event_processors.h"
#include "network_info.h"
#include "onbox_guardian.h"
#include "onbox_reporting.h"
#include "rotated_macs.h"
#include "service_submission.h"
#include "storage_backlog.h"
#include "stored_answers.h"
#include "subprocess_messages.h"
#include "waiting_answers.h"

namespace {

constexpr const char* kDaemonName = "nkdevicediscovery";
constexpr int kMaxEvents = 13;
// Older than any write in flight: a temporary file this old was left by a crash.
constexpr std::chrono::seconds kLeftoverAge{10};
constexpr long kSubmissionDelay = 20;
constexpr long kSubmissionInterval = 1;
constexpr long kMinListDevicesTimeout = 300;

int g_stop_pipe = -1;
std::atomic<bool> has_wan{false};

// Undo steps of start-up, run in reverse order on failure and at stop.
class Unwinder {
public:
    void push(std::function<void()> undo) { undos_.push_back(std::move(undo)); }
    void run() {
        while (!undos_.empty()) {
            undos_.back()();
            undos_.pop_back();
        }
    }
    ~Unwinder() { run(); }

private:
    std::vector<std::function<void()>> undos_;
};

struct LoopTimers {
    int load_devices = -1;
    std::optional<nk::time::Timer> list_devices;
    int retry = -1;
    int net_info = -1;
    int upnp_submission = -1;
    int upnp_flush = -1;
    int avahi_submission = -1;
    int avahi_flush = -1;
    int netbios_submission = -1;
    int netbios_flush = -1;
    int respawn_threshold = -1;
};

struct Loop {
    int epoll = -1;
    LoopTimers timers;
};

bool make_loop_timer(Unwinder& unwind, int& fd) {
    fd = nk::time::timer_init(nk::time::TIMER_LOOP);
    if (fd < 0)
        return false;
    unwind.push([&fd] {
        nk::time::timer_uninit(fd);
        fd = -1;
    });
    return true;
}

struct LoopTimerSpec {
    int LoopTimers::*fd;
    int level;
    const char* failure;
};

// The loop timers after the list-devices one, in their order of creation.
constexpr LoopTimerSpec kLoopTimers[] = {
    {&LoopTimers::retry, nk::log::WARN, "can not create retry timer"},
    {&LoopTimers::net_info, nk::log::WARN, "can not create update_net_info_tfd"},
    {&LoopTimers::upnp_submission, nk::log::ERROR, "Failed to create UPnP submission timer"},
    {&LoopTimers::upnp_flush, nk::log::ERROR, "Failed to create UPnP flush timer"},
    {&LoopTimers::avahi_submission, nk::log::WARN, "Failed to create Avahi submission timer"},
    {&LoopTimers::avahi_flush, nk::log::ERROR, "Failed to create Avahi flush timer"},
    {&LoopTimers::netbios_submission, nk::log::ERROR, "Failed to create NetBIOS submission timer"},
    {&LoopTimers::netbios_flush, nk::log::ERROR, "Failed to create NetBIOS flush timer"},
    {&LoopTimers::respawn_threshold, nk::log::WARN, "Failed to create respawn_threshold_tfd"},
};

// Creates the loop's timers in their fixed order, each failure with its own line.
bool make_timers(Unwinder& unwind, LoopTimers& t) {
    if (!make_loop_timer(unwind, t.load_devices)) {
        NK_LOG(nk::log::WARN, "can not create load devices timer");
        return false;
    }
    t.list_devices = nk::time::Timer::make(nk::time::TIMER_OWNED);
    if (!t.list_devices) {
        NK_LOG(nk::log::WARN, "can not create load devices periodic timer");
        return false;
    }
    unwind.push([&t] { t.list_devices.reset(); });
    for (const LoopTimerSpec& spec : kLoopTimers) {
        if (!make_loop_timer(unwind, t.*spec.fd)) {
            NK_LOG(spec.level, "{:s}", spec.failure);
            return false;
        }
    }
    return true;
}

long list_devices_timeout() {
    const int timeout = nk::setMgmt::getKeyValue(std::string(nk::kDiscoveryListDevicesTimeoutKey),
                                                 nk::kDiscoveryListDevicesTimeoutDefault);
    return timeout < kMinListDevicesTimeout ? nk::kDiscoveryListDevicesTimeoutDefault : timeout;
}

bool start_timers(LoopTimers& t) {
    nk::time::timer_start(t.net_info, 0, 2, false);
    nk::time::timer_start(t.upnp_flush, g_upnp_flush_interval, g_upnp_flush_interval, false);
    nk::time::timer_start(t.avahi_flush, g_avahi_flush_interval, g_avahi_flush_interval, false);
    nk::time::timer_start(t.netbios_flush, g_netbios_flush_interval, g_netbios_flush_interval,
                          false);
    nk::time::timer_start(t.respawn_threshold, 0, g_retry_interval["subprocess_respawn_threshold"],
                          false);
    const long timeout = list_devices_timeout();
    if (!t.list_devices->start_ms((timeout - kMinListDevicesTimeout) * 1000, timeout * 1000)) {
        NK_LOG(nk::log::WARN, "Failed to start list devices periodic timer");
        return false;
    }
    return true;
}

// Two daemons on one store would fight over every key and over one bus client id.
bool claim_store() {
    long holder = 0;
    if (nk::setMgmt::claim(kDaemonName, holder) < 0) {
        if (nkerrno == EWOULDBLOCK) {
            NK_LOG(nk::log::ERROR, "another {:s} (pid {:d}) uses the settings store {:s}",
                   kDaemonName, holder, nk::setMgmt::root());
        } else {
            NK_LOG(nk::log::ERROR, "cannot claim the settings store {:s}: {}", nk::setMgmt::root(),
                   nk::errno_text(nkerrno));
        }
        return false;
    }
    // Only the claimer may remove what an interrupted write left behind.
    const int removed = nk::setMgmt::remove_leftovers(kLeftoverAge);
    if (removed > 0)
        NK_LOG(nk::log::INFO, "removed {:d} leftovers of interrupted writes", removed);
    return true;
}

bool open_bus(Unwinder& unwind) {
    g_nkex = nkex_init(kDaemonName, nkex_msg_callback, nullptr, 1);
    if (g_nkex == nullptr) {
        NK_LOG(nk::log::ERROR, "nkex_init()");
        return false;
    }
    unwind.push([] {
        nkex_uninit(g_nkex);
        g_nkex = nullptr;
    });
    serve_device_ids_while_waiting();
    send_clear_device_id_cache_message();
    if (nkex_subscribe(g_nkex, kSubscribedEvents.data(), kSubscribedEvents.size()) != 0) {
        NK_LOG(nk::log::ERROR, "nkex_subscribe() failed; auto-retrying...");
    }
    return true;
}

// Everything up to the loop; each step's undo goes onto `unwind`.
bool start_up(Unwinder& unwind, Loop& loop) {
    NK_LOG(nk::log::INFO, "compiled on {:s} {:s}", __DATE__, __TIME__);
    json_set_alloc_funcs(malloc, free);

    g_nkleases_mode = nk::get_nkleases_mode();
    NK_LOG(nk::log::INFO, "nkleases mode: {}", g_nkleases_mode);

    if (::pipe2(g_event_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        NK_LOG(nk::log::ERROR, "pipe() failed");
        return false;
    }
    unwind.push([] {
        ::close(g_event_pipe[0]);
        ::close(g_event_pipe[1]);
        g_event_pipe[0] = g_event_pipe[1] = -1;
    });
    // Before the bus, and closed after it: the bus thread signals it.
    if (!open_device_id_wake()) {
        NK_LOG(nk::log::ERROR, "eventfd() failed");
        return false;
    }
    unwind.push([] { close_device_id_wake(); });

    if (nk::setMgmt::init() < 0) {
        NK_LOG(nk::log::ERROR, "nksetmgmt error: {}", nkerrno);
        return false;
    }
    unwind.push([] { nk::setMgmt::uninit(); });
    if (!claim_store())
        return false;

    if (nk::featureutl::init() < 0) {
        NK_LOG(nk::log::ERROR, "featureutl error: {}", nkerrno);
        return false;
    }
    unwind.push([] { nk::featureutl::uninit(); });
    if (nk::featureutl::set_on_feature_change(0, handle_feature_change) != 0 ||
        nk::featureutl::set_on_feature_change(1, handle_feature_change) != 0) {
        return false;
    }

    if (!init_globals()) {
        NK_LOG(nk::log::ERROR, "failed to init globals: {}", nkerrno);
        uninit_globals();
        return false;
    }
    unwind.push([] { uninit_globals(); });

    if (!open_bus(unwind))
        return false;

    g_subprocess = make_collector(g_nkleases_mode);
    if (!g_subprocess) {
        NK_LOG(nk::log::ERROR, "Unsupported nkleases mode {}", g_nkleases_mode);
        return false;
    }
    unwind.push([] { g_subprocess.reset(); });

    if (!nk::onbox::Guardian::instance().init())
        return false;
    unwind.push([] { nk::onbox::Guardian::instance().uninit(); });

    if (!make_timers(unwind, loop.timers))
        return false;

    loop.epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (loop.epoll < 0) {
        NK_LOG(nk::log::ERROR, "epoll_create() failed: {:s}", std::strerror(errno));
        return false;
    }
    unwind.push([&loop] {
        ::close(loop.epoll);
        loop.epoll = -1;
    });
    // The subprocess is stopped first of all at stop.
    unwind.push([] { g_subprocess->stop(true); });

    LoopTimers& t = loop.timers;
    if (!start_timers(t))
        return false;
    for (const int fd : {g_stop_pipe, t.net_info, t.upnp_flush, t.avahi_flush, t.netbios_flush,
                         t.respawn_threshold, nk::featureutl::get_fd(), t.list_devices->fd(),
                         g_device_info_sync_timer->fd()}) {
        nk::io::epoll_set_fd_ro(loop.epoll, fd);
    }
    NK_LOG(nk::log::DEBUG, "disco ready");
    nk::daemon::notify_ready();
    return true;
}

// Nothing but loading happens until there is a WAN and the inventory is loaded. The timers
// are stopped, not only left out, so that activation starts their cadence afresh.
void deactivate(Loop& loop) {
    const LoopTimers& t = loop.timers;
    for (const int fd : {g_event_pipe[0], g_subprocess->fd()}) {
        if (fd >= 0)
            nk::io::epoll_del_fd(loop.epoll, fd);
    }
    for (const int fd : {t.avahi_submission, t.upnp_submission, t.netbios_submission, t.retry}) {
        nk::io::epoll_del_fd(loop.epoll, fd);
        nk::time::timer_stop(fd);
    }
    stop_collector();
    set_answering_while_waiting(false);
}

void start_submission_timer(int epoll, int fd, const char* failure) {
    nk::io::epoll_set_fd_ro(epoll, fd);
    if (nk::time::timer_start(fd, kSubmissionDelay, kSubmissionInterval, false) != 0) {
        NK_LOG(nk::log::WARN, "{:s}", failure);
    }
}

void activate(Loop& loop) {
    const LoopTimers& t = loop.timers;
    nk::io::epoll_set_fd_ro(loop.epoll, g_event_pipe[0]);
    restart_subprocess();
    if (g_subprocess->pid() > 0)
        nk::io::epoll_set_fd_ro(loop.epoll, g_subprocess->fd());
    start_submission_timer(loop.epoll, t.avahi_submission,
                           "Failed to start Avahi submission timer");
    start_submission_timer(loop.epoll, t.upnp_submission, "Failed to start UPnP submission timer");
    start_submission_timer(loop.epoll, t.netbios_submission,
                           "Failed to start NetBIOS submission timer");
    nk::io::epoll_set_fd_ro(loop.epoll, t.retry);
    if (nk::time::timer_start(t.retry, 0, 2, false) != 0) {
        NK_LOG(nk::log::WARN, "failed to start retry timer");
    }
    set_answering_while_waiting(true);
}

bool inventory_loaded() {
    std::lock_guard lock(g_devices_loaded_mutex);
    return g_local_devices_loaded && g_cloud_devices_loaded;
}

// Until the loop answers from the loaded inventory, it answers from the stored one.
void watch_stored_answers(const Loop& loop, bool watch) {
    if (watch)
        nk::io::epoll_set_fd_ro(loop.epoll, device_id_wake_fd());
    else
        nk::io::epoll_del_fd(loop.epoll, device_id_wake_fd());
}

// Arms what the phase allows before the wait.
void prepare_turn(Loop& loop) {
    if (!has_wan) {
        watch_stored_answers(loop, false);
        deactivate(loop);
        return;
    }
    const int load_timer = loop.timers.load_devices;
    if (inventory_loaded()) {
        nk::time::timer_stop(load_timer);
        nk::io::epoll_del_fd(loop.epoll, load_timer);
        activate(loop);
        watch_stored_answers(loop, !leases_received());
        return;
    }
    nk::io::epoll_set_fd_ro(loop.epoll, load_timer);
    nk::time::timer_start(load_timer, 0, 2, false);
    deactivate(loop);
    watch_stored_answers(loop, true);
}

std::string names_of(const std::vector<nk::netMgmt::Interface>& interfaces) {
    std::vector<std::string> names;
    for (const auto& iface : interfaces)
        names.push_back(iface.name);
    return fmt::format("{}", fmt::join(names, ", "));
}

bool is_valid_lan(const nk::netMgmt::Interface& iface) {
    if (iface.type != nk::netMgmt::LAN || !iface.mac.is_valid())
        return false;
    bool has_address = !iface.ipv4.empty();
    for (const auto& [ip, mask] : iface.ipv6)
        has_address = has_address || !ip.is_link_local();
    if (!has_address)
        return false;
    if (!nk::is_interface_up(iface.name)) {
        NK_LOG(nk::log::WARN, "Interface {} is not UP", iface.name);
        return false;
    }
    return true;
}

void handle_network_interfaces_update() {
    std::vector<nk::netMgmt::Interface> interfaces;
    if (!update_network_info(interfaces))
        return;
    NK_LOG(nk::log::INFO, "Handling network interfaces: {}", names_of(interfaces));

    bool wan = false;
    for (const auto& iface : interfaces)
        wan = wan || iface.type == nk::netMgmt::WAN;
    has_wan = wan;
    if (!wan)
        NK_LOG(nk::log::WARN, "BUG: wan interface does not exist");

    std::vector<nk::netMgmt::Interface> lans;
    for (const auto& iface : interfaces) {
        if (is_valid_lan(iface))
            lans.push_back(iface);
    }
    NK_LOG(nk::log::INFO, "Valid LAN interfaces: {}", names_of(lans));

    set_lan_present(!lans.empty());
    g_subprocess->stop(true);
    if (lans.empty())
        return;
    if (!g_subprocess->start()) {
        NK_LOG(nk::log::INFO, "Failed to start subprocess");
    } else {
        NK_LOG(nk::log::INFO, "Started subprocess {}", *g_subprocess);
    }
}

void load_devices() {
    bool cloud_loaded = false;
    bool local_loaded = false;
    {
        std::lock_guard lock(g_devices_loaded_mutex);
        g_device_removed_flag = false;
        cloud_loaded = g_cloud_devices_loaded;
        local_loaded = g_local_devices_loaded;
    }
    std::vector<Device> devices;
    if (!cloud_loaded && !stored_ids_known()) {
        std::vector<Device> stored;
        if (load_devices_from_storage(stored))
            remember_stored_ids(stored);
    }
    if (!cloud_loaded)
        cloud_loaded = load_devices_from_cloud();
    if (cloud_loaded && !local_loaded) {
        // The inventory in memory is what the daemon serves: writes that fail wait in the
        // storage backlog, they do not hold the load back.
        local_loaded = load_devices_from_storage(devices);
        if (local_loaded)
            sync_devices_to_storage(devices);
    }
    bool removed = false;
    {
        std::lock_guard lock(g_devices_loaded_mutex);
        removed = g_device_removed_flag;
        g_cloud_devices_loaded = cloud_loaded;
        g_local_devices_loaded = local_loaded;
    }
    if (removed) {
        NK_LOG(nk::log::DEBUG,
               "A removed device was detected while loading the devices, resetting the devices "
               "loaded flag");
        reset_devices_loaded();
    } else if (cloud_loaded && local_loaded) {
        g_storage_backlog.report(g_now);
        if (g_storage_backlog.empty()) {
            NK_LOG(nk::log::INFO, "Devices loaded and synced!");
        } else {
            NK_LOG(nk::log::INFO, "Devices loaded; storage behind: {:d} devices not stored yet",
                   g_storage_backlog.size());
        }
    }
}

void flush_service_info(ServiceInfoKind kind, int submission_timer) {
    nk::time::timer_stop(submission_timer);
    reset_service_info(kind);
    nk::time::timer_start(submission_timer, kSubmissionDelay, kSubmissionInterval, false);
}

bool ticked(int fd) {
    return nk::time::timer_tick(fd) != 0;
}

// Serves one ready descriptor other than the stop pipe.
void dispatch(Loop& loop, int fd) {
    LoopTimers& t = loop.timers;
    if (fd == t.net_info) {
        if (ticked(fd)) {
            handle_network_interfaces_update();
            // Every 2 s in every phase: what a load or a burst of requests freed goes back.
            nk::memory::release_freed();
        }
    } else if (fd == t.load_devices) {
        if (ticked(fd))
            load_devices();
    } else if (fd == t.list_devices->fd()) {
        if (ticked(fd)) {
            reset_devices_loaded();
            NK_LOG(nk::log::INFO, "List devices periodic timer fired!");
        }
    } else if (fd == g_device_info_sync_timer->fd()) {
        if (ticked(fd)) {
            NK_LOG(nk::log::INFO, "device info sync timer fired!");
            if (sync_device_info())
                g_device_info_sync_timer->stop();
        }
    } else if (fd == t.avahi_submission) {
        if (ticked(fd))
            process_avahi_services();
    } else if (fd == t.avahi_flush) {
        if (ticked(fd)) {
            NK_LOG(nk::log::INFO, "Resetting avahi info cache");
            flush_service_info(ServiceInfoKind::Avahi, t.avahi_submission);
        }
    } else if (fd == t.upnp_submission) {
        if (ticked(fd))
            process_upnp_devices();
    } else if (fd == t.upnp_flush) {
        if (ticked(fd)) {
            NK_LOG(nk::log::INFO, "Resetting upnp info cache");
            flush_service_info(ServiceInfoKind::Upnp, t.upnp_submission);
        }
    } else if (fd == t.netbios_submission) {
        if (ticked(fd))
            process_netbios_devices();
    } else if (fd == t.netbios_flush) {
        if (ticked(fd)) {
            NK_LOG(nk::log::INFO, "Resetting NetBIOS info cache");
            flush_service_info(ServiceInfoKind::Netbios, t.netbios_submission);
        }
    } else if (fd == t.respawn_threshold) {
        if (ticked(fd))
            g_subprocess->set_failures(0);
    } else if (fd == g_event_pipe[0]) {
        const DeferredMarkers markers;
        process_event_pipe();
    } else if (fd == device_id_wake_fd()) {
        answer_device_id_requests_now();
    } else if (fd == t.retry) {
        if (ticked(fd)) {
            retry_user_agents();
            retry_fingerprints();
            retry_storage_backlog();
            report_deferred_onbox();
            // Held DHCP messages whose wait is over are taken on the event pipe's pass.
            if (held_dhcp_results() > 0)
                wake_main_loop();
        }
    } else if (g_subprocess->pid() > 0 && fd == g_subprocess->fd()) {
        const DeferredMarkers markers;
        process_subprocess_messages(g_subprocess->recv());
    } else if (fd == nk::onbox::Guardian::instance().get_fd()) {
        nk::onbox::Guardian::instance().read_fd();
    } else if (fd == nk::featureutl::get_fd()) {
        nk::featureutl::read_fd();
    }
}

long monotonic_now() {
    const auto ns = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(ns).count() /
                             1000000000);
}

void run_loop(Loop& loop) {
    for (;;) {
        prepare_turn(loop);
        const int gate = nk::onbox::Guardian::instance().get_fd();
        if (gate >= 0)
            nk::io::epoll_set_fd_ro(loop.epoll, gate);

        epoll_event events[kMaxEvents];
        const int n = ::epoll_wait(loop.epoll, events, kMaxEvents, -1);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            NK_LOG(nk::log::WARN, "epoll_wait() ({:s})", std::strerror(errno));
            std::this_thread::sleep_for(std::chrono::seconds(1));
            continue;
        }
        // A stop wins over whatever else is ready: a load served first could block for long.
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == g_stop_pipe)
                return;
        }
        g_now = monotonic_now();
        purge_old_mac_timestamps();
        for (int i = 0; i < n; ++i)
            dispatch(loop, events[i].data.fd);
        g_storage_backlog.report(g_now);
        if (gate >= 0)
            nk::io::epoll_del_fd(loop.epoll, gate);
    }
}

}  // namespace

int disco_run() {
    Loop loop;  // outlives the unwinder, whose steps refer to it
    Unwinder unwind;
    if (!start_up(unwind, loop))
        return 1;
    run_loop(loop);
    nk::daemon::notify_stopping();
    NK_LOG(nk::log::DEBUG, "exiting");
    unwind.run();
    return 0;
}

int main(int argc, char** argv) {
    nk::memory::set_budget();
    nk::daemon::Instance& frame = nk::daemon::instance(argc, argv, kDaemonName);
    frame.set_run(disco_run);
    g_stop_pipe = frame.on_stop_pipe();
    if (g_stop_pipe < 0) {
        std::fputs("Failed to create stop signal pipe\n", stderr);
        return 1;
    }
    return frame.run();
}

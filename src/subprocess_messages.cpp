#include "subprocess_messages.h"

#include <nk/json.h>
#include <nk/log.h>
#include <nk/util.h>

#include "daemon_state.h"
#include "lease_processing.h"
#include "service_reports.h"

std::unique_ptr<nk::Subprocess> g_subprocess;

namespace {
bool g_lan_present = false;
// The collector was running when the daemon stopped it: that is no failure to pace.
bool g_stopped_on_purpose = false;
}  // namespace

std::unique_ptr<nk::Subprocess> make_collector(int leases_mode) {
    const char* arg = nullptr;
    if (leases_mode == 0) {
        arg = "-internal";
    } else if (leases_mode == 1) {
        arg = "-external";
    } else {
        return nullptr;
    }
    return nk::Subprocess::create(nk::Subprocess::Type::LEASES, "nkdevinfo",
                                  nk::common_path_kind1() + "/nkdevinfo", {arg});
}

void stop_collector() {
    if (!g_subprocess)
        return;
    if (g_subprocess->pid() > 0)
        g_stopped_on_purpose = true;
    g_subprocess->stop(true);
}

void set_lan_present(bool present) {
    g_lan_present = present;
}

void restart_subprocess() {
    // Without a LAN to watch the collector has nothing to do; it would only fail and respawn.
    if (!g_subprocess || !g_lan_present || g_subprocess->pid() > 0)
        return;
    if (g_subprocess->failures() > g_retry_interval["subprocess_respawn_retries"])
        return;
    if (!g_stopped_on_purpose &&
        g_now - g_subprocess->started_at() < g_retry_interval["subprocess_respawn_frequency"]) {
        return;
    }
    g_stopped_on_purpose = false;
    NK_LOG(nk::log::INFO, "Restarting {}, fails={}", *g_subprocess, g_subprocess->failures());
    g_subprocess->restart();
}

namespace {

void process_message(const std::string& type, const json_t* data) {
    if (type == "leases") {
        if (json_is_array(json_object_get(data, "leases")))
            process_leases(data);
        return;
    }
    // Service reports feed only the forwarding of additional information.
    if (!g_feature_additional_info)
        return;
    if (type == "avahi")
        process_avahi_data(data);
    else if (type == "upnp")
        process_upnp_data(data);
    else if (type == "netbios")
        process_netbios_data(data);
}

}  // namespace

void process_subprocess_messages(const std::vector<std::string>& lines) {
    NK_LOG(nk::log::TRACE, "Got {:d} messages", lines.size());
    for (const std::string& line : lines) {
        NK_LOG(nk::log::TRACE, "Message: {:s}", line);
        const nk::json_ptr message(json_loads(line.c_str(), 0, nullptr));
        const char* type = nk::json_string_member(message.get(), "type");
        const json_t* data = json_object_get(message.get(), "data");
        if (type == nullptr || !json_is_object(data))
            continue;
        process_message(type, data);
    }
}

#include "rotated_macs.h"

#include <mutex>

#include <nk/log.h>

#include "daemon_state.h"
#include "device_identity.h"

namespace {

struct Held {
    nk::DhcpResult result;
    long since = 0;
};

std::vector<Held> s_held;  // main loop only

struct HeldAgent {
    UserAgent agent;
    long since = 0;
};

std::vector<HeldAgent> s_held_agents;  // main loop only

bool explained(const macaddr& mac) {
    return real_mac_of(mac) != mac || find_device_by_mac(mac) != nullptr ||
           g_temporary_device_ids.count(mac_key(mac)) != 0;
}

}  // namespace

macaddr real_mac_of(const macaddr& mac) {
    const std::lock_guard lock(g_mangled_macs_mutex);
    for (const nk::leases::v4::mangled_mac_t& mangled : g_mangled_macs) {
        if (mangled.fake_mac == mac)
            return mangled.real_mac;
    }
    return mac;
}

bool is_locally_administered(const macaddr& mac) {
    return (mac.bytes()[0] & 0x02) != 0;
}

bool hold_dhcp_result(const nk::DhcpResult& result, long now) {
    if (!is_locally_administered(result.mac) || explained(result.mac) ||
        s_held.size() >= kMaxWaitingDhcpResults)
        return false;
    NK_LOG(nk::log::DEBUG, "DHCP message of random MAC {} waits for the leases", result.mac);
    s_held.push_back(Held{result, now});
    return true;
}

std::vector<nk::DhcpResult> release_dhcp_results(long now) {
    std::vector<nk::DhcpResult> released;
    std::vector<Held> kept;
    for (Held& held : s_held) {
        if (!explained(held.result.mac) && now - held.since < kDhcpWait) {
            kept.push_back(std::move(held));
            continue;
        }
        held.result.mac = real_mac_of(held.result.mac);
        released.push_back(std::move(held.result));
    }
    s_held = std::move(kept);
    return released;
}

bool hold_user_agent(const UserAgent& agent, long now) {
    if (!is_locally_administered(agent.mac) || explained(agent.mac) ||
        s_held_agents.size() >= kMaxWaitingDhcpResults)
        return false;
    NK_LOG(nk::log::DEBUG, "user agent of random MAC {} waits for the leases", agent.mac);
    s_held_agents.push_back(HeldAgent{agent, now});
    return true;
}

std::vector<UserAgent> release_user_agents(long now) {
    std::vector<UserAgent> released;
    std::vector<HeldAgent> kept;
    for (HeldAgent& held : s_held_agents) {
        if (!explained(held.agent.mac) && now - held.since < kDhcpWait)
            kept.push_back(std::move(held));
        else
            released.push_back(std::move(held.agent));
    }
    s_held_agents = std::move(kept);
    return released;
}

std::size_t held_dhcp_results() {
    return s_held.size() + s_held_agents.size();
}

#include "utils.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include <nk/constants.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/nkex.h>
#include <nk/setmgmt.h>

#include "bus_event_handlers.h"
#include "daemon_state.h"
#include "queue_limits.h"

std::unordered_map<std::string, std::string> g_temporary_device_ids;
std::vector<Device> g_pending_devices;
std::unordered_map<macaddr, std::string> g_hostnames;

namespace {

// Numbering restarts at 1 whenever it runs past the maximum.
std::int32_t s_temporary_id_counter = 1;

int temporary_id_digits() {
    static const int digits = static_cast<int>(nk::kUUIDLen - nk::kTemporaryDeviceIdPrefix.size());
    return digits;
}

// Two to the power of the digit count, minus one, although the digits are decimal: the
// bound is deliberate.
std::int64_t temporary_id_max() {
    static const std::int64_t max = (std::int64_t{1} << temporary_id_digits()) - 1;
    return max;
}

void reset_temporary_ids() {
    NK_LOG(nk::log::ERROR, "Maximum number of temporary devices reached. Resetting counter...");
    send_clear_device_id_cache_message();
    forget_temporary_device_ids();
}

// Additional info gathered before the MAC had an id must be submitted again under it.
void forget_additional_info(const macaddr& mac) {
    {
        const std::lock_guard lock(g_user_agent_cache_mutex);
        g_user_agent_cache.remove(mac);
    }
    const std::lock_guard lock(g_fingerprint_cache_mutex);
    g_fingerprint_cache.remove(mac);
}

std::string make_temporary_device_id(const macaddr& mac) {
    if (s_temporary_id_counter > temporary_id_max())
        reset_temporary_ids();
    std::string id = fmt::format("{}{:0{}d}", nk::kTemporaryDeviceIdPrefix, s_temporary_id_counter,
                                 temporary_id_digits());
    ++s_temporary_id_counter;
    forget_additional_info(mac);
    NK_LOG(nk::log::INFO, "Generated temp device id: {:s} for mac: {}", id, mac);
    return g_temporary_device_ids.emplace(mac_key(mac), std::move(id)).first->second;
}

nk::json_text dump(json_t* object) {
    const nk::json_ptr owned(object);
    return nk::json_text(owned ? json_dumps(owned.get(), 0) : nullptr);
}

void split_into(const std::string& list, std::unordered_set<std::string>& out) {
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type comma = list.find(',', start);
        out.insert(list.substr(start, comma - start));
        if (comma == std::string::npos)
            return;
        start = comma + 1;
    }
}

}  // namespace

void forget_temporary_device_ids() {
    g_temporary_device_ids.clear();
    s_temporary_id_counter = 1;
}

std::string get_device_id(const macaddr& mac) {
    if (const Device* device = find_device_by_mac(mac))
        return device->cloud.device_id;
    const auto it = g_temporary_device_ids.find(mac_key(mac));
    if (it != g_temporary_device_ids.end())
        return it->second;
    return make_temporary_device_id(mac);
}

void send_device_id_response(const char* mac, const char* device_id, std::uint64_t request_id) {
    if (mac == nullptr || device_id == nullptr)
        return;
    NK_LOG(nk::log::INFO, "Sending device_id={:s} for mac={:s}", device_id, mac);
    const nk::json_text text = dump(json_pack("{s:s, s:s}", "device_id", device_id, "mac", mac));
    if (!text)
        return;
    if (nkex_send_response(g_nkex, 0, request_id, text.get(), std::strlen(text.get())) == 0)
        NK_LOG(nk::log::DEBUG, "response sent");
    else
        NK_LOG(nk::log::ERROR, "Error while sending response to request_device_id");
}

void send_permanent_device_id_message(const char* temp_device_id, const char* device_id) {
    if (temp_device_id == nullptr || device_id == nullptr)
        return;
    const nk::json_text text = dump(
        json_pack("{s:s, s:s}", "temp_device_id", temp_device_id, "cloud_device_id", device_id));
    if (!text)
        return;
    if (nkex_send_message(g_nkex, "permanent_device_id", text.get(), std::strlen(text.get())) == 0)
        NK_LOG(nk::log::INFO, "temp_device_id={:s}, device_id={:s}", temp_device_id, device_id);
    else
        NK_LOG(nk::log::WARN, "nkex send error");
}

void send_clear_device_id_cache_message() {
    if (nkex_send_message(g_nkex, "clear_device_id_cache", "", 0) != 0) {
        NK_LOG(nk::log::WARN, "nkex send error");
    }
}

macaddr get_real_mac(const macaddr& mac, const address& ip) {
    const std::lock_guard lock(g_mangled_macs_mutex);
    for (const nk::leases::v4::mangled_mac_t& mangled : g_mangled_macs) {
        if (mangled.fake_mac == mac && mangled.ip == ip) {
            NK_LOG(nk::log::INFO, "Found real MAC {} for fake MAC {} with IP {}", mangled.real_mac,
                   mac, ip);
            return mangled.real_mac;
        }
    }
    return mac;
}

// Takes the key's lock and deliberately releases it on no path.
std::unordered_set<std::string> discovery_ignored_macs() {
    const std::string key(nk::kDiscoveryIgnoredMacsKey);
    if (nk::setMgmt::lockKey(key) < 0) {
        NK_LOG(nk::log::ERROR, "nk::setMgmt::lockKey failed (key = {}): {}", key,
               nk::errno_text(nkerrno));
        return {};
    }
    std::vector<std::string> subkeys;
    if (nk::setMgmt::enumSubkeys(key, subkeys) < 0) {
        // No list at all is the usual case, not a fault: nothing is ignored.
        if (nkerrno == ENOENT)
            return {};
        NK_LOG(nk::log::ERROR, "nk::setMgmt::enumSubkeys failed (key = {}): {}", key,
               nk::errno_text(nkerrno));
        return {};
    }
    std::unordered_set<std::string> macs;
    for (const std::string& subkey : subkeys)
        split_into(nk::setMgmt::getKeyValue((nk::path(key) / subkey).str(), ""), macs);
    return macs;
}

void save_pending_device(const std::string& local_id, const macaddr& mac, const address& ip) {
    if (g_nkleases_mode != 0)
        return;
    for (const Device& device : g_pending_devices) {
        if (device.local.device_id == local_id)
            return;
    }
    g_pending_devices.emplace_back(local_id, mac, nk::ip_set{ip}, std::string());
}

std::string get_hostname(const macaddr& mac) {
    const auto it = g_hostnames.find(mac);
    if (it == g_hostnames.end())
        return "*";
    NK_LOG(nk::log::TRACE, "box_detected_name={:s}", it->second);
    return it->second;
}

void save_user_agent(const std::string& ip, const std::string& mac, const std::string& user_agent) {
    static QueueOverflow overflow("user agents", kMaxQueuedUserAgents);
    {
        // Queued and announced in one step under the mutex, as every queue does.
        const std::lock_guard lock(g_user_agents_mutex);
        if (g_user_agents.size() < kMaxQueuedUserAgents) {
            g_user_agents.push_back(UserAgent{address(ip), macaddr(mac), user_agent});
            wake_main_loop();
            return;
        }
    }
    overflow.refused();
}

int str_rtrim(char* str) {
    if (str == nullptr)
        return 0;
    std::size_t length = std::strlen(str);
    int space = 0;
    while (length > 0 && (space = std::isspace(static_cast<unsigned char>(str[length - 1]))) != 0)
        str[--length] = '\0';
    return space;
}

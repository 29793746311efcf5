#include "device_identity.h"

#include <cstdint>
#include <cstring>
#include <mutex>

#include <nk/constants.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkex.h>

#include "daemon_state.h"

std::unordered_map<std::string, std::string> g_temporary_device_ids;

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

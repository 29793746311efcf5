// The bus event handlers on any message data. The first byte picks the handler (and, with its
// bit 3, whether the cloud list counts as loaded); the rest is the message's data. The BOX has
// a LAN, a guest network and a WAN, so that valid events get past the interface checks.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "bus_event_handlers.h"
#include "daemon_state.h"
#include "network_info.h"
#include "quiet_log.h"

namespace {

void set_up_box() {
    if (::pipe2(g_event_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
        return;
    nk::netMgmt::Interface lan("br-lan", nk::netMgmt::LAN, false);
    lan.mac = nk::sockutl::macaddr("02:00:00:00:00:fe");
    lan.ipv4.emplace(nk::sockutl::address("192.168.1.1"), nk::sockutl::address("255.255.255.0"));
    lan.ipv6.emplace(nk::sockutl::address("fd00::1"),
                     nk::sockutl::address("ffff:ffff:ffff:ffff::"));
    nk::netMgmt::Interface guest("br-guest", nk::netMgmt::LAN, true);
    guest.ipv4.emplace(nk::sockutl::address("192.168.2.1"), nk::sockutl::address("255.255.255.0"));
    const std::lock_guard lock(g_interfaces_mutex);
    g_interfaces = {lan, guest, nk::netMgmt::Interface("eth0", nk::netMgmt::WAN, false)};
}

template <typename T>
void drain(std::vector<T>& queue, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    queue.clear();
}

// What the main loop would do: empty the queues and the pipe.
void drain_all() {
    drain(g_user_agents, g_user_agents_mutex);
    drain(g_dhcp_results, g_dhcp_results_mutex);
    drain(g_removed_devices, g_removed_devices_mutex);
    drain(g_new_devices, g_new_devices_mutex);
    drain(g_changed_devices, g_changed_devices_mutex);
    drain(g_devid_requests, g_devid_requests_mutex);
    char bytes[256];
    while (::read(g_event_pipe[0], bytes, sizeof(bytes)) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quiet_log_unless_asked();
    static const bool ready = [] {
        set_up_box();
        return true;
    }();
    (void)ready;
    if (size == 0)
        return 0;
    {
        const std::lock_guard lock(g_devices_loaded_mutex);
        g_cloud_devices_loaded = (data[0] & 0x08) != 0;
    }
    Message message{};
    static const char* const kNames[] = {"sifter_user_agent", "sifter_dhcp_payload",
                                         "devmgmt:device_inventory", "request_device_id",
                                         "device_not_found"};
    const char* name = kNames[(data[0] & 0x07) % 5];
    for (std::size_t i = 0; name[i] != '\0'; ++i)
        message.name[i] = name[i];
    message.data = size > 1 ? reinterpret_cast<const char*>(data + 1) : nullptr;
    message.length = size - 1;
    message.id = 42;
    nkex_msg_callback(&message, nullptr);
    drain_all();
    return 0;
}

#include "device_id_answers.h"

#include "network_info.h"

bool is_valid_device_id_request(const macaddr& mac, const address& ip) {
    return mac.is_valid() && !is_on_box(mac.to_string(false)) && is_in_subnet(ip.to_string());
}

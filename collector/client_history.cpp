#include "client_history.h"

#include <jansson.h>

#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "lease.h"

namespace nk::collector {

namespace {

constexpr std::uint8_t kLocalBit = 0x02;

std::string to_hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (!out.empty())
            out.push_back(':');
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 0x0f]);
    }
    return out;
}

}  // namespace

bool is_locally_administered(const sockutl::macaddr& mac) {
    return (mac.bytes()[0] & kLocalBit) != 0;
}

void ClientHistory::load() {
    clients_.clear();
    dirty_ = false;
    const std::string text = nk::setMgmt::getKeyValue(std::string(kClientMacsKey), "");
    if (text.empty())
        return;
    const nk::json_ptr json(json_loads(text.c_str(), 0, nullptr));
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(json.get(), key, value) {
        const std::optional<std::string> identity = hex_bytes(key);
        const sockutl::macaddr mac(json_string_value(value));
        if (identity && mac.is_valid() && clients_.size() < kMaxClients)
            clients_.emplace(*identity, mac);
    }
}

void ClientHistory::save() {
    if (!dirty_)
        return;
    const nk::json_ptr json(json_object());
    for (const auto& [identity, mac] : clients_)
        json_object_set_new(json.get(), to_hex(identity).c_str(),
                            json_string(mac.to_string().c_str()));
    const std::string text = nk::json_dump_compact(json.get());
    if (text.empty() || nk::setMgmt::setKey(kClientMacsKey, text) < 0) {
        NK_LOG(nk::log::WARN, "cannot store the client history under {:s}: {}", kClientMacsKey,
               nk::errno_text(nkerrno));
        return;
    }
    dirty_ = false;
}

std::optional<sockutl::macaddr> ClientHistory::observe(const std::string& identity,
                                                       const sockutl::macaddr& mac) {
    if (identity.empty() || !mac.is_valid())
        return std::nullopt;
    const auto it = clients_.find(identity);
    if (it == clients_.end()) {
        // Full: the first identity in key order makes room; a home LAN never gets there.
        if (clients_.size() >= kMaxClients)
            clients_.erase(clients_.begin());
        clients_.emplace(identity, mac);
        dirty_ = true;
        return std::nullopt;
    }
    if (it->second == mac)
        return std::nullopt;
    if (is_locally_administered(mac))
        return it->second;
    it->second = mac;
    dirty_ = true;
    return std::nullopt;
}

}  // namespace nk::collector

#include "client_history.h"

#include <jansson.h>

#include <algorithm>
#include <utility>

#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "host_names.h"
#include "lease.h"

namespace nk::collector {

namespace {

constexpr std::uint8_t kLocalBit = 0x02;
// "seen" is renewed once a (UTC) day, in the first snapshot of the day and so for every client
// present at once: one write of the history a day, not one for each client at its own hour.
constexpr std::int64_t kSeenRenewal = 24 * 3600;

json_t* mac_array(const std::vector<sockutl::macaddr>& macs) {
    json_t* const array = json_array();
    for (const sockutl::macaddr& mac : macs)
        json_array_append_new(array, json_string(mac.to_string().c_str()));
    return array;
}

json_t* client_json(const KnownClient& c) {
    json_t* const json = json_object();
    json_object_set_new(json, "mac", json_string(c.mac.to_string().c_str()));
    json_object_set_new(json, "seen", json_integer(c.seen));
    if (!c.aliases.empty())
        json_object_set_new(json, "aliases", mac_array(c.aliases));
    if (!c.ids.empty()) {
        json_t* const ids = json_array();
        for (const std::string& id : c.ids)
            json_array_append_new(ids, json_string(hex_text(id).c_str()));
        json_object_set_new(json, "ids", ids);
    }
    // Host names are kept in their distinctive form: printable ASCII only.
    if (!c.host.empty())
        json_object_set_new(json, "host", json_string(c.host.c_str()));
    if (!c.mdns.empty())
        json_object_set_new(json, "mdns", json_string(c.mdns.c_str()));
    if (c.fingerprint.known()) {
        json_object_set_new(json, "options", json_string(c.fingerprint.options.c_str()));
        if (!c.fingerprint.vendor.empty())
            json_object_set_new(json, "vendor",
                                json_string(hex_text(c.fingerprint.vendor).c_str()));
    }
    return json;
}

std::string string_of(const json_t* value) {
    const char* text = json_string_value(value);
    return text != nullptr ? text : "";
}

std::string text_member(const json_t* json, const char* key) {
    return string_of(json_object_get(json, key));
}

}  // namespace

bool is_locally_administered(const sockutl::macaddr& mac) {
    return (mac.bytes()[0] & kLocalBit) != 0;
}

void ClientHistory::load(std::int64_t now) {
    clients_.clear();
    alias_of_.clear();
    id_of_.clear();
    dirty_ = false;
    const std::string text = nk::setMgmt::getKeyValue(std::string(kClientsKey), "");
    if (text.empty()) {
        load_former(now);
        return;
    }
    const nk::json_ptr json(json_loads(text.c_str(), 0, nullptr));
    std::size_t i = 0;
    json_t* element = nullptr;
    json_array_foreach(json_object_get(json.get(), "clients"), i, element) {
        const sockutl::macaddr mac(text_member(element, "mac"));
        if (!mac.is_valid() || find(mac) != nullptr || clients_.size() >= kMaxClients)
            continue;
        KnownClient& c = clients_[mac];
        c.mac = mac;
        c.seen = json_integer_value(json_object_get(element, "seen"));
        std::size_t j = 0;
        json_t* value = nullptr;
        json_array_foreach(json_object_get(element, "aliases"), j, value) {
            const sockutl::macaddr alias(string_of(value));
            if (alias.is_valid() && find(alias) == nullptr)
                add_alias(mac, alias);
        }
        json_array_foreach(json_object_get(element, "ids"), j, value) {
            if (const std::optional<std::string> id = hex_bytes(string_of(value)))
                add_id(c, *id, false);
        }
        c.host = distinctive_name(text_member(element, "host"));
        c.mdns = distinctive_name(text_member(element, "mdns"));
        const std::string options = text_member(element, "options");
        const std::optional<std::string> vendor = hex_bytes(text_member(element, "vendor"));
        if (is_option_list(options))
            c.fingerprint = {options, vendor.value_or("")};
    }
    dirty_ = false;
}

// The identity-to-MAC pairs of earlier versions become clients with those identities.
void ClientHistory::load_former(std::int64_t now) {
    const std::string text = nk::setMgmt::getKeyValue(std::string(kClientMacsKey), "");
    if (text.empty())
        return;
    const nk::json_ptr json(json_loads(text.c_str(), 0, nullptr));
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(json.get(), key, value) {
        const std::optional<std::string> id = hex_bytes(key);
        const sockutl::macaddr mac(string_of(value));
        if (!id || !mac.is_valid())
            continue;
        add(mac, now);
        const auto it = clients_.find(mac);
        if (it != clients_.end())
            add_id(it->second, *id, false);
    }
}

void ClientHistory::save() {
    if (!dirty_)
        return;
    const nk::json_ptr array(json_array());
    for (const auto& [mac, client] : clients_)
        json_array_append_new(array.get(), client_json(client));
    const nk::json_ptr json(json_pack("{s:O}", "clients", array.get()));
    const std::string text = json ? nk::json_dump_compact(json.get()) : std::string();
    if (text.empty() || nk::setMgmt::setKey(kClientsKey, text) < 0) {
        // A full or read-only store refuses every save until it recovers: said once a run.
        const int err = nkerrno;
        NK_LOG(std::exchange(save_error_, err) == err ? nk::log::DEBUG : nk::log::WARN,
               "cannot store the client history under {:s}: {}", kClientsKey, nk::errno_text(err));
        return;
    }
    save_error_ = 0;
    dirty_ = false;
}

const KnownClient* ClientHistory::find(const sockutl::macaddr& mac) const {
    auto it = clients_.find(mac);
    if (it == clients_.end()) {
        const auto alias = alias_of_.find(mac);
        if (alias == alias_of_.end())
            return nullptr;
        it = clients_.find(alias->second);
    }
    return it == clients_.end() ? nullptr : &it->second;
}

const KnownClient* ClientHistory::find_id(const std::string& id) const {
    const auto it = id_of_.find(id);
    return it == id_of_.end() ? nullptr : find(it->second);
}

void ClientHistory::add(const sockutl::macaddr& mac, std::int64_t now) {
    if (!mac.is_valid() || find(mac) != nullptr)
        return;
    if (clients_.size() >= kMaxClients)
        evict_oldest();
    KnownClient& c = clients_[mac];
    c.mac = mac;
    c.seen = now;
    dirty_ = true;
}

void ClientHistory::add_alias(const sockutl::macaddr& mac, const sockutl::macaddr& alias) {
    const auto it = clients_.find(mac);
    if (it == clients_.end() || find(alias) != nullptr)
        return;
    std::vector<sockutl::macaddr>& aliases = it->second.aliases;
    if (aliases.size() >= kMaxAliases) {
        alias_of_.erase(aliases.front());
        aliases.erase(aliases.begin());
    }
    aliases.push_back(alias);
    alias_of_[alias] = mac;
    dirty_ = true;
}

void ClientHistory::learn(const sockutl::macaddr& mac, const ClientTraits& traits, std::int64_t now,
                          bool take_ids) {
    const auto it = clients_.find(mac);
    if (it == clients_.end())
        return;
    KnownClient& c = it->second;
    for (const std::string& id : traits.ids)
        add_id(c, id, take_ids);
    const auto renew = [this](auto& field, const auto& value, bool known) {
        if (known && field != value) {
            field = value;
            dirty_ = true;
        }
    };
    renew(c.host, traits.host, !traits.host.empty());
    renew(c.mdns, traits.mdns, !traits.mdns.empty());
    renew(c.fingerprint, traits.fingerprint, traits.fingerprint.known());
    renew(c.seen, now, now / kSeenRenewal > c.seen / kSeenRenewal);
}

void ClientHistory::add_id(KnownClient& client, const std::string& id, bool take) {
    if (id.empty() || id.size() > kMaxIdBytes)
        return;
    const auto owner = id_of_.find(id);
    if (owner != id_of_.end()) {
        if (owner->second == client.mac || !take)
            return;
        const auto other = clients_.find(owner->second);
        if (other != clients_.end()) {
            std::vector<std::string>& ids = other->second.ids;
            ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
        }
    }
    if (client.ids.size() >= kMaxIds) {
        id_of_.erase(client.ids.front());
        client.ids.erase(client.ids.begin());
    }
    client.ids.push_back(id);
    id_of_[id] = client.mac;
    dirty_ = true;
}

void ClientHistory::evict_oldest() {
    const auto oldest = std::min_element(
        clients_.begin(), clients_.end(),
        [](const auto& a, const auto& b) { return a.second.seen < b.second.seen; });
    if (oldest == clients_.end())
        return;
    forget(oldest->second);
    clients_.erase(oldest);
    dirty_ = true;
}

void ClientHistory::forget(const KnownClient& client) {
    for (const sockutl::macaddr& alias : client.aliases)
        alias_of_.erase(alias);
    for (const std::string& id : client.ids)
        id_of_.erase(id);
}

}  // namespace nk::collector

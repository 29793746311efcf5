#include "service_info.h"

#include <algorithm>
#include <string>

#include <nk/json.h>
#include <nk/log.h>

namespace {

// An array of one element per record, or null as soon as one cannot be built or appended.
template <typename Set, typename Build>
json_t* build_array(const Set& records, Build build) {
    nk::json_ptr array(json_array());
    if (!array)
        return nullptr;
    for (const auto& record : records) {
        json_t* const element = build(record);
        if (element == nullptr || json_array_append_new(array.get(), element) != 0)
            return nullptr;
    }
    return array.release();
}

}  // namespace

json_t* build_avahi_payload(const std::set<nk::avahi::AvahiInfo>& records) {
    return build_array(records, [](const nk::avahi::AvahiInfo& info) {
        return json_pack("{s:s,s:i,s:s,s:s}", "hostname", info.hostname.c_str(), "port", info.port,
                         "service_type", info.service.c_str(), "text", info.text.c_str());
    });
}

json_t* build_upnp_payload(const std::set<nk::upnp::UpnpInfo>& descriptions) {
    return build_array(descriptions, upnp_info_set_to_json);
}

json_t* build_netbios_payload(const std::set<nk::netbios::NetbiosTable>& tables) {
    return build_array(tables, [](const nk::netbios::NetbiosTable& t) { return t.to_json(); });
}

json_t* upnp_info_set_to_json(const nk::upnp::UpnpInfo& description) {
    if (description.empty())
        return nullptr;
    nk::json_ptr object(json_object());
    if (!object)
        return nullptr;
    for (const auto& [name, value] : description) {
        if (json_object_set_new(object.get(), name.c_str(), json_string(value.c_str())) != 0)
            return nullptr;
    }
    return object.release();
}

nk::upnp::UpnpInfo upnp_info_set_from_json(const json_t* json) {
    nk::upnp::UpnpInfo description;
    if (!json_is_object(json))
        return description;
    const char* key = nullptr;
    json_t* value = nullptr;
    // jansson's iteration needs a non-const object; nothing is changed.
    json_object_foreach(const_cast<json_t*>(json), key, value) {
        if (json_is_string(value))
            description.emplace(key, json_string_value(value));
    }
    return description;
}

namespace nk::netbios {

json_t* NetbiosTable::to_json() const {
    nk::json_ptr table(
        json_pack("{s:s, s:s, s:[]}", "name", name.c_str(), "domain", domain.c_str(), "services"));
    if (!table)
        return nullptr;
    json_t* const list = json_object_get(table.get(), "services");
    for (const auto& [service_name, service] : services) {
        json_t* const element =
            json_pack("{s:s, s:s}", "name", service_name.c_str(), "service", service.c_str());
        if (element == nullptr || json_array_append_new(list, element) != 0)
            return nullptr;
    }
    return table.release();
}

bool NetbiosTable::from_json(const json_t* json) {
    const char* table_name = nk::json_string_member(json, "name");
    const char* table_domain = nk::json_string_member(json, "domain");
    const json_t* list = json_object_get(json, "services");
    if (table_name == nullptr || table_domain == nullptr || !json_is_array(list))
        return false;
    std::set<std::pair<std::string, std::string>> read;
    for (std::size_t i = 0; i < json_array_size(list); ++i) {
        const json_t* element = json_array_get(list, i);
        const char* service_name = nk::json_string_member(element, "name");
        const char* service = nk::json_string_member(element, "service");
        if (service_name == nullptr || service == nullptr)
            return false;
        read.emplace(service_name, service);
    }
    name = table_name;
    domain = table_domain;
    services = std::move(read);
    return true;
}

}  // namespace nk::netbios

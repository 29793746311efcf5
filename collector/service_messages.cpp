#include "service_messages.h"

#include <algorithm>

#include <nk/json.h>

namespace nk::collector {

namespace {

// {"type": TYPE, "data": DATA} on one line; takes DATA.
std::string envelope(const char* type, json_t* data) {
    if (data == nullptr)
        return {};
    const nk::json_ptr message(json_pack("{s:s s:o}", "type", type, "data", data));
    return message ? nk::json_dump_compact(message.get()) : std::string();
}

}  // namespace

std::string avahi_message(const MdnsService& service) {
    nk::json_ptr ips(json_array());
    for (const std::string& ip : service.ips) {
        if (json_array_append_new(ips.get(), json_string(ip.c_str())) != 0)
            return {};
    }
    return envelope("avahi",
                    json_pack("{s:o s:s s:s s:s s:i}", "ips", ips.release(), "service",
                              service.service.c_str(), "hostname", service.hostname.c_str(), "text",
                              service.text.c_str(), "port", service.port));
}

std::string upnp_message(const std::string& ip, const upnp::Info& info,
                         const std::string& user_agent) {
    nk::json_ptr fields(json_object());
    for (const auto& [name, value] : info) {
        if (json_object_set_new(fields.get(), name.c_str(), json_string(value.c_str())) != 0)
            return {};
    }
    nk::json_ptr data(json_pack("{s:s s:o}", "ip", ip.c_str(), "info", fields.release()));
    if (data && !user_agent.empty() &&
        json_object_set_new(data.get(), "user_agent", json_string(user_agent.c_str())) != 0) {
        return {};
    }
    return envelope("upnp", data.release());
}

std::string netbios_message(const std::string& ip, const nbstat::Table& table) {
    nk::json_ptr services(json_array());
    for (const auto& [name, service] : table.services) {
        if (json_array_append_new(services.get(), json_pack("{s:s s:s}", "name", name.c_str(),
                                                            "service", service.c_str())) != 0) {
            return {};
        }
    }
    nk::json_ptr info(json_pack("{s:s s:s s:o}", "name", table.name.c_str(), "domain",
                                table.domain.c_str(), "services", services.release()));
    if (!info)
        return {};
    return envelope("netbios", json_pack("{s:s s:o}", "ip", ip.c_str(), "info", info.release()));
}

bool Reports::offer(const std::string& key, const std::string& line, Clock::time_point now) {
    const auto it = said_.find(key);
    if (it != said_.end() && it->second.line == line && now - it->second.at < repeat_)
        return false;
    if (it == said_.end() && said_.size() >= max_keys_) {
        const auto oldest = std::min_element(
            said_.begin(), said_.end(),
            [](const auto& a, const auto& b) { return a.second.at < b.second.at; });
        said_.erase(oldest);
    }
    said_[key] = Said{line, now};
    return true;
}

std::vector<std::string> Reports::due(Clock::time_point now) {
    std::vector<std::string> lines;
    for (auto& [key, said] : said_) {
        if (now - said.at >= repeat_) {
            said.at = now;
            lines.push_back(said.line);
        }
    }
    return lines;
}

}  // namespace nk::collector

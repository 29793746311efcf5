#include "operator_commands.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "nk/nkex.h"
#include "nk/sockutl.h"

namespace nkemu {

namespace {

constexpr const char* kInventoryEvent = "devmgmt:device_inventory";

struct BusCloser {
    void operator()(nkex_handle* handle) const { nkex_uninit(handle); }
};

int fail(int status, const std::string& why) {
    fmt::print(stderr, "nkcloud-emu: {}\n", why);
    return status;
}

int storage_failure() {
    return fail(kExitFailure, "database failure");
}

// {"app_fields": {"event": ..., "event_params": params}}; `params` is stolen.
int publish_inventory_event(const char* event, json_t* params) {
    const nk::json_ptr message(
        json_pack("{s:{s:s, s:o}}", "app_fields", "event", event, "event_params", params));
    const std::string text = nk::json_dump_compact(message.get());
    // The cloud connector's account: nobody else may announce inventory changes.
    const std::string client = fmt::format("nkcloudd-{}", ::getpid());
    const std::unique_ptr<nkex_handle, BusCloser> bus(
        nkex_init(client.c_str(), nullptr, nullptr, 1));
    if (!bus || text.empty() ||
        nkex_send_message(bus.get(), kInventoryEvent, text.data(), text.size()) != 0) {
        return fail(kExitFailure, fmt::format("done, but the {} event was not sent", event));
    }
    return kExitOk;
}

json_t* device_id_params(const std::string& id) {
    return json_pack("{s:s}", "device_id", id.c_str());
}

// Loads a device that an operator may change; on failure `status` is the exit status.
std::optional<CloudDevice> load_user_device(CloudDb& db, const std::string& id, int& status) {
    std::optional<CloudDevice> device;
    if (!db.find_by_id(id, device)) {
        status = storage_failure();
    } else if (!device) {
        status = fail(kExitRefused, "no device " + id);
    } else if (device->is_box) {
        status = fail(kExitRefused, "device " + id + " is the BOX itself");
        device.reset();
    }
    return device;
}

int add(CloudDb& db, const std::string& mac_text, const std::string& name) {
    const std::optional<nk::sockutl::macaddr> mac = nk::sockutl::macaddr::parse(mac_text);
    if (!mac || !mac->is_valid())
        return fail(kExitUsage, "invalid MAC " + mac_text);
    CloudDb::Transaction tx(db);
    std::optional<CloudDevice> known;
    if (!tx.ok() || !db.find_by_mac(mac->to_string(false), known))
        return storage_failure();
    if (known)
        return fail(kExitRefused, fmt::format("{} is already device {}", mac_text, known->id));
    const std::string id = new_device_id();
    if (id.empty())
        return fail(kExitFailure, "no randomness for a device id");
    CloudDevice device =
        make_device(id, mac->to_string(false), static_cast<std::int64_t>(std::time(nullptr)));
    set_name_field(device, "friendly_name", name);
    if (!db.insert(device) || !tx.commit())
        return storage_failure();
    fmt::print("{}\n", id);
    std::fflush(stdout);
    return publish_inventory_event("new_device", device_id_params(id));
}

int remove(CloudDb& db, const std::string& id) {
    CloudDb::Transaction tx(db);
    if (!tx.ok())
        return storage_failure();
    int status = kExitOk;
    if (!load_user_device(db, id, status))
        return status;
    bool removed = false;
    if (!db.remove(id, removed) || !tx.commit())
        return storage_failure();
    return publish_inventory_event("device_removed", device_id_params(id));
}

int rename(CloudDb& db, const std::string& id, const std::string& name) {
    CloudDb::Transaction tx(db);
    if (!tx.ok())
        return storage_failure();
    int status = kExitOk;
    std::optional<CloudDevice> device = load_user_device(db, id, status);
    if (!device)
        return status;
    const std::vector<std::string> changed = set_name_field(*device, "friendly_name", name);
    if (changed.empty())
        return kExitOk;
    if (!db.update(*device) || !tx.commit())
        return storage_failure();
    json_t* fields = json_array();
    for (const std::string& field : changed)
        json_array_append_new(fields, json_string(field.c_str()));
    return publish_inventory_event(
        "device_info_changed", json_pack("{s:s, s:o}", "device_id", id.c_str(), "fields", fields));
}

int list(CloudDb& db) {
    std::int64_t count = 0;
    std::vector<CloudDevice> devices;
    if (!db.count_devices(count) || !db.list_devices(0, count, devices))
        return storage_failure();
    for (const CloudDevice& device : devices)
        fmt::print("{}\n", nk::json_dump_compact(device.fields.get()));
    return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

std::string utc(std::int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    char text[32] = "";
    if (::gmtime_r(&t, &tm))
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &tm);
    return text;
}

std::string field_text(const CloudDevice& device, const char* name) {
    const json_t* value = json_object_get(device.fields.get(), name);
    if (json_is_string(value))
        return json_string_value(value);
    return value ? nk::json_dump_compact(value) : "";
}

// The kinds of additional info a person reads: fingerprints by their two fields, the rest as
// the JSON the BOX sent.
void print_info(const StoredInfo& info) {
    const nk::json_ptr data(json_loads(info.data.c_str(), 0, nullptr));
    const char* version = info.type == "fingerprint"     ? " (DHCPv4)"
                          : info.type == "fingerprintv6" ? " (DHCPv6)"
                                                         : "";
    fmt::print("{}{}, {}\n", info.type, version, utc(info.updated));
    const char* option_list = nk::json_string_member(data.get(), "option_list");
    const char* vendor_class = nk::json_string_member(data.get(), "vendor_class");
    if (*version && option_list && vendor_class) {
        fmt::print("  {:<18} {}\n  {:<18} {}\n", "option_list", option_list, "vendor_class",
                   vendor_class);
    } else {
        fmt::print("  {}\n", info.data);
    }
}

void print_device(const CloudDevice& device, const std::vector<StoredInfo>& infos,
                  const std::vector<StoredInfo>& user_agents) {
    fmt::print("device {}{}\n", device.id, device.is_box ? " (the BOX)" : "");
    fmt::print("  {:<18} {}\n", "name", field_text(device, "display_name"));
    if (!device.mac.empty())
        fmt::print("  {:<18} {}\n", "mac", device.mac);
    fmt::print("  {:<18} {}\n", "created", utc(device.created));
    for (const char* name : {"device_type", "box_detected_name", "box_device_id", "onbox", "ip"}) {
        const std::string value = field_text(device, name);
        if (!value.empty())
            fmt::print("  {:<18} {}\n", name, value);
    }
    for (const StoredInfo& info : infos)
        print_info(info);
    fmt::print("user agents ({})\n", user_agents.size());
    for (const StoredInfo& ua : user_agents)
        fmt::print("  {}  {}\n", utc(ua.updated), ua.type);
}

// {"device": {...}, "additional_info": {TYPE: {"data": ..., "updated": N}},
//  "user_agents": [{"user_agent": ..., "updated": N}]}
nk::json_ptr device_json(const CloudDevice& device, const std::vector<StoredInfo>& infos,
                         const std::vector<StoredInfo>& user_agents) {
    json_t* by_type = json_object();
    for (const StoredInfo& info : infos) {
        json_t* data = json_loads(info.data.c_str(), 0, nullptr);
        json_object_set_new(by_type, info.type.c_str(),
                            json_pack("{s:o*, s:I}", "data", data, "updated",
                                      static_cast<json_int_t>(info.updated)));
    }
    json_t* agents = json_array();
    for (const StoredInfo& ua : user_agents) {
        json_array_append_new(agents, json_pack("{s:s, s:I}", "user_agent", ua.type.c_str(),
                                                "updated", static_cast<json_int_t>(ua.updated)));
    }
    return nk::json_ptr(json_pack("{s:O, s:o, s:o}", "device", device.fields.get(),
                                  "additional_info", by_type, "user_agents", agents));
}

int show(CloudDb& db, const std::string& id, bool json) {
    std::optional<CloudDevice> device;
    std::vector<StoredInfo> infos;
    std::vector<StoredInfo> user_agents;
    if (!db.find_by_id(id, device))
        return storage_failure();
    if (!device)
        return fail(kExitRefused, "no device " + id);
    if (!db.additional_info(id, infos) || !db.user_agents(id, user_agents))
        return storage_failure();
    if (json) {
        const nk::json_ptr out = device_json(*device, infos, user_agents);
        if (!out)
            return fail(kExitFailure, "out of memory");
        fmt::print("{}\n", nk::json_dump_compact(out.get()));
    } else {
        print_device(*device, infos, user_agents);
    }
    return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

std::optional<int> fault(CloudDb& db, const std::vector<std::string>& args) {
    if (args.size() == 3 && args[1] == "add") {
        std::string why;
        std::optional<Fault> parsed = parse_fault(args[2], why);
        if (!parsed)
            return fail(kExitUsage, why);
        if (!db.add_fault(*parsed))
            return storage_failure();
        fmt::print("{}\n", parsed->id);
        return kExitOk;
    }
    if (args.size() == 2 && args[1] == "list") {
        std::vector<Fault> faults;
        if (!db.list_faults(faults))
            return storage_failure();
        for (const Fault& f : faults)
            fmt::print("{} {}\n", f.id, format_fault(f));
        return kExitOk;
    }
    if (args.size() == 2 && args[1] == "clear")
        return db.clear_faults() ? kExitOk : storage_failure();
    return std::nullopt;
}

}  // namespace

std::optional<int> run_operator_command(CloudDb& db, const std::vector<std::string>& args) {
    // --json may stand anywhere after the command word.
    std::vector<std::string> plain;
    bool json = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (i > 0 && args[i] == "--json") {
            json = true;
        } else {
            plain.push_back(args[i]);
        }
    }
    const std::size_t n = plain.size();
    const std::string command = n > 0 ? plain[0] : "";
    if (command == "show" && n == 2)
        return show(db, plain[1], json);
    if (command == "list" && n == 1)
        return list(db);
    if (json)
        return std::nullopt;
    if (command == "add" && (n == 2 || n == 3))
        return add(db, args[1], n == 3 ? args[2] : "");
    if (command == "remove" && n == 2)
        return remove(db, args[1]);
    if (command == "rename" && n == 3)
        return rename(db, args[1], args[2]);
    if (command == "fault")
        return fault(db, args);
    return std::nullopt;
}

}  // namespace nkemu

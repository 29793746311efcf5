#include "operator_commands.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>

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
    const std::string client = fmt::format("nkcloud-emu-{}", ::getpid());
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
    const std::size_t n = args.size();
    const std::string command = n > 0 ? args[0] : "";
    if (command == "add" && (n == 2 || n == 3))
        return add(db, args[1], n == 3 ? args[2] : "");
    if (command == "remove" && n == 2)
        return remove(db, args[1]);
    if (command == "rename" && n == 3)
        return rename(db, args[1], args[2]);
    if (command == "list" && n == 1)
        return list(db);
    if (command == "fault")
        return fault(db, args);
    return std::nullopt;
}

}  // namespace nkemu

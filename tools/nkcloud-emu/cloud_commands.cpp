#include "cloud_commands.h"

#include <array>
#include <ctime>
#include <vector>

#include "nk/log.h"
#include "nk/sockutl.h"

namespace nkemu {

namespace {

constexpr json_int_t kMaxPageSize = 100;
constexpr std::array<std::string_view, 5> kAdditionalInfoTypes = {
    "avahi", "fingerprint", "fingerprintv6", "upnp", "netbios"};

std::int64_t now() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

const char* error_message(int code) {
    switch (code) {
        case kBadRequest:
            return "Bad request";
        case kNotFound:
            return "Not found";
        case kUnavailable:
            return "Service unavailable";
        default:
            return "Internal server error";
    }
}

nk::json_ptr result_answer(json_t* result) {
    return nk::json_ptr(json_pack("{s:o}", "result", result));
}

nk::json_ptr bad_request(std::string_view text) {
    return error_answer(kBadRequest, text);
}

nk::json_ptr storage_failure() {
    return error_answer(kServerError, "storage failure");
}

// An array of strings into `out`; false for anything else.
bool string_list(const json_t* array, std::vector<std::string>& out) {
    if (!json_is_array(array))
        return false;
    size_t index = 0;
    const json_t* item = nullptr;
    json_array_foreach(array, index, item) {
        if (!json_is_string(item))
            return false;
        out.emplace_back(json_string_value(item));
    }
    return true;
}

// "fields" (required) followed by "additional_fields" (optional); false when malformed.
bool requested_fields(const json_t* body, std::vector<std::string>& out) {
    const json_t* additional = json_object_get(body, "additional_fields");
    return string_list(json_object_get(body, "fields"), out) &&
           (!additional || string_list(additional, out));
}

bool is_additional_info_type(const char* type) {
    for (const std::string_view known : kAdditionalInfoTypes) {
        if (known == type)
            return true;
    }
    return false;
}

}  // namespace

nk::json_ptr error_answer(int code, std::string_view text) {
    const std::string err_data(text);
    return nk::json_ptr(json_pack("{s:{s:i, s:s, s:{s:i, s:{s:s}}}}", "error", "code", code,
                                  "message", error_message(code), "data", "code", code, "data",
                                  "err_data", err_data.c_str()));
}

nk::json_ptr CloudCommands::handle(std::string_view command, std::string_view body) {
    using Handler = nk::json_ptr (CloudCommands::*)(const json_t*);
    static const std::array<std::pair<std::string_view, Handler>, 6> kHandlers = {{
        {"connect_device", &CloudCommands::connect_device},
        {"list_devices_v2", &CloudCommands::list_devices},
        {"get_device_info", &CloudCommands::get_device_info},
        {"set_device_onbox", &CloudCommands::set_device_onbox},
        {"set_device_additional_info", &CloudCommands::set_device_additional_info},
        {"set_device_type", &CloudCommands::set_device_type},
    }};
    for (const auto& [name, handler] : kHandlers) {
        if (name != command)
            continue;
        json_error_t error;
        const nk::json_ptr request(json_loadb(body.data(), body.size(), 0, &error));
        if (!json_is_object(request.get()))
            return bad_request("request body is not a JSON object");
        nk::json_ptr answer = (this->*handler)(request.get());
        return answer ? std::move(answer) : error_answer(kServerError, "out of memory");
    }
    return error_answer(kNotFound, "unknown command " + std::string(command));
}

std::optional<CloudDevice> CloudCommands::destination(const json_t* body, nk::json_ptr& error) {
    const char* id = json_string_value(
        nk::json_object_get_recursive(body, {"connect_destination", "device_id"}));
    if (!id) {
        error = bad_request("connect_destination.device_id missing");
        return std::nullopt;
    }
    std::optional<CloudDevice> device;
    if (!db_.find_by_id(id, device)) {
        error = storage_failure();
    } else if (!device) {
        error = error_answer(kNotFound, "Device not found: " + std::string(id));
    }
    return device;
}

nk::json_ptr CloudCommands::connect_device(const json_t* body) {
    const char* mac_text = nk::json_string_member(body, "mac");
    const json_t* name = json_object_get(body, "box_detected_name");
    if (!mac_text || (name && !json_is_string(name)))
        return bad_request("mac (string) and box_detected_name (string) expected");
    const std::optional<nk::sockutl::macaddr> mac = nk::sockutl::macaddr::parse(mac_text);
    if (!mac || !mac->is_valid())
        return bad_request("invalid mac " + std::string(mac_text));
    CloudDb::Transaction tx(db_);
    std::optional<CloudDevice> device;
    if (!tx.ok() || !db_.find_by_mac(mac->to_string(false), device))
        return storage_failure();
    const bool created = !device;
    if (created) {
        const std::string id = new_device_id();
        if (id.empty())
            return error_answer(kServerError, "no device id available");
        device = make_device(id, mac->to_string(false), now());
    }
    const bool renamed = set_detected_name(*device, name ? json_string_value(name) : "");
    if (created ? !db_.insert(*device) : (renamed && !db_.update(*device)))
        return storage_failure();
    if (!tx.commit())
        return storage_failure();
    if (created)
        NK_LOG(nk::log::INFO, "new device {:s} for mac {:s}", device->id, device->mac);
    return result_answer(json_pack("{s:s}", "device_id", device->id.c_str()));
}

nk::json_ptr CloudCommands::list_devices(const json_t* body) {
    const json_t* limit = json_object_get(body, "limit");
    const json_t* page = json_object_get(body, "page");
    std::vector<std::string> fields;
    if (!json_is_integer(limit) || json_integer_value(limit) < 1 ||
        json_integer_value(limit) > kMaxPageSize || !json_is_integer(page) ||
        json_integer_value(page) < 0 || !requested_fields(body, fields)) {
        return bad_request("limit (1..100), page (from 0) and fields (strings) expected");
    }
    std::int64_t count = 0;
    if (!db_.count_devices(count))
        return storage_failure();
    const std::int64_t size = json_integer_value(limit);
    const std::int64_t number = json_integer_value(page);
    std::vector<CloudDevice> devices;
    // A page past the end is empty; checking first keeps the offset from overflowing.
    if (number <= count && !db_.list_devices(number * size, size, devices))
        return storage_failure();
    json_t* list = json_array();
    for (const CloudDevice& device : devices)
        json_array_append_new(list, select_fields(device, fields, FieldForm::List).release());
    return result_answer(json_pack("{s:I, s:I, s:o}", "page", static_cast<json_int_t>(number),
                                   "count", static_cast<json_int_t>(count), "devices", list));
}

nk::json_ptr CloudCommands::get_device_info(const json_t* body) {
    std::vector<std::string> fields;
    if (!requested_fields(body, fields))
        return bad_request("fields (strings) expected");
    nk::json_ptr error;
    const std::optional<CloudDevice> device = destination(body, error);
    if (!device)
        return error;
    return result_answer(select_fields(*device, fields, FieldForm::Info).release());
}

nk::json_ptr CloudCommands::set_device_onbox(const json_t* body) {
    const json_t* onbox = json_object_get(body, "onbox");
    const json_t* network = json_object_get(body, "network");
    const json_t* ip_list = json_object_get(body, "ip_list");
    const json_t* ip = json_object_get(body, "ip");
    if (!json_is_integer(onbox) ||
        (network && !json_is_integer(network) && !json_is_boolean(network)) ||
        (ip_list && !json_is_object(ip_list)) || (ip && !json_is_string(ip))) {
        return bad_request("onbox (integer), network, ip_list (object) and ip (string) expected");
    }
    CloudDb::Transaction tx(db_);
    if (!tx.ok())
        return storage_failure();
    nk::json_ptr error;
    std::optional<CloudDevice> device = destination(body, error);
    if (!device)
        return error;
    if (device->is_box)
        return bad_request("the BOX is not a device of its own");
    set_field(*device, "onbox", json_integer(json_integer_value(onbox)));
    if (network)
        set_field(*device, "network",
                  json_integer(json_is_true(network) ? 1 : json_integer_value(network)));
    // Addresses are reported with onbox only; a device leaving keeps its last ones.
    if (json_integer_value(onbox) != 0) {
        set_field(*device, "ip_list", ip_list ? json_deep_copy(ip_list) : json_object());
        if (ip) {
            set_field(*device, "ip", json_string(json_string_value(ip)));
        } else {
            json_object_del(device->fields.get(), "ip");
        }
    }
    set_field(*device, "box_device_id", json_string(box_id_.c_str()));
    if (!db_.update(*device) || !tx.commit())
        return storage_failure();
    return result_answer(json_pack("{s:s, s:s, s:I}", "device_id", device->id.c_str(),
                                   "box_device_id", box_id_.c_str(), "onbox",
                                   json_integer_value(onbox)));
}

nk::json_ptr CloudCommands::set_device_additional_info(const json_t* body) {
    const char* type = nk::json_string_member(body, "type");
    const json_t* data = json_object_get(body, "data");
    if (!type || !data)
        return bad_request("type (string) and data expected");
    if (!is_additional_info_type(type))
        return bad_request("unknown additional info type " + std::string(type));
    nk::json_ptr error;
    const std::optional<CloudDevice> device = destination(body, error);
    if (!device)
        return error;
    if (!db_.store_additional_info(device->id, type, nk::json_dump_compact(data), now()))
        return storage_failure();
    return result_answer(json_pack("{s:i}", "status", 0));
}

nk::json_ptr CloudCommands::set_device_type(const json_t* body) {
    const char* user_agent = nk::json_string_member(body, "user_agent");
    if (!user_agent || *user_agent == '\0')
        return bad_request("user_agent (non-empty string) expected");
    nk::json_ptr error;
    const std::optional<CloudDevice> device = destination(body, error);
    if (!device)
        return error;
    if (!db_.store_user_agent(device->id, user_agent, now()))
        return storage_failure();
    return result_answer(json_pack("{s:s}", "status", "ok"));
}

}  // namespace nkemu

// The cloud's side of the box_mgmt commands: one JSON answer for each request body.
#pragma once

#include <string>
#include <string_view>

#include "cloud_db.h"
#include "nk/json.h"

namespace nkemu {

inline constexpr std::string_view kCommandPrefix = "cloud::connect/box_mgmt/";

// The cloud's error codes, after HTTP.
enum ErrorCode : int {
    kBadRequest = 400,
    kNotFound = 404,
    kServerError = 500,
    kUnavailable = 503,
};

// {"error": {"code": N, "message": ..., "data": {"code": N, "data": {"err_data": text}}}}
nk::json_ptr error_answer(int code, std::string_view text);

class CloudCommands {
public:
    // `box_id`: the device id of the BOX this cloud talks to; it becomes the managing BOX of
    // the devices it reports onbox.
    CloudCommands(CloudDb& db, std::string box_id) : db_(db), box_id_(std::move(box_id)) {}

    // The answer to `command` (the name after kCommandPrefix); never null. Malformed
    // requests and unknown commands get the error form.
    nk::json_ptr handle(std::string_view command, std::string_view body);

private:
    nk::json_ptr connect_device(const json_t* body);
    nk::json_ptr list_devices(const json_t* body);
    nk::json_ptr get_device_info(const json_t* body);
    nk::json_ptr set_device_onbox(const json_t* body);
    nk::json_ptr set_device_additional_info(const json_t* body);
    nk::json_ptr set_device_type(const json_t* body);

    // The device named by "connect_destination" → "device_id"; when there is none, `error`
    // holds the answer to give.
    std::optional<CloudDevice> destination(const json_t* body, nk::json_ptr& error);

    CloudDb& db_;
    const std::string box_id_;
};

}  // namespace nkemu

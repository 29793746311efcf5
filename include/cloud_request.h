// The one place where a cloud command becomes a bus request to the cloud connector.
#pragma once

#include <jansson.h>

#include <optional>

#include <nk/json.h>
#include <nk/nkex.h>

inline constexpr const char* kCloudConnectDevice = "cloud::connect/box_mgmt/connect_device";
inline constexpr const char* kCloudListDevices = "cloud::connect/box_mgmt/list_devices_v2";
inline constexpr const char* kCloudGetDeviceInfo = "cloud::connect/box_mgmt/get_device_info";
inline constexpr const char* kCloudSetDeviceOnbox = "cloud::connect/box_mgmt/set_device_onbox";
inline constexpr const char* kCloudSetAdditionalInfo =
    "cloud::connect/box_mgmt/set_device_additional_info";
inline constexpr const char* kCloudSetDeviceType = "cloud::connect/box_mgmt/set_device_type";

// A field of a cloud answer read as an integer: a JSON integer, or a boolean as 0/1.
std::optional<int> cloud_int(const json_t* value);

// Waits for the connector's answer; on success `result` holds the parsed answer.
bool cloud_request(const char* destination, const json_t* body, nk::json_ptr* result);

// Hands the request to the bus; `callback` is then called once, on the bus thread, with
// `context`, which it owns. On false the callback is never called and the caller keeps `context`.
bool cloud_request(const char* destination, const json_t* body, nkex_response_callback_t callback,
                   void* context);

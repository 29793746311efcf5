// Additional information about devices sent to the cloud under their device ids: one generic
// sender for every kind, and DHCP fingerprints and user agents tracked in the expiring caches,
// so that what failed is retried with back-off and what was accepted is not sent again.
#pragma once

#include <jansson.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nk/json.h>
#include <nk/nkex.h>
#include <nk/sockutl.h>

#include "dhcp.h"

// Kinds of additional info; the text is the request's "type".
enum AdditionalInfoType : int {
    kAdditionalInfoAvahi = 0,
    kAdditionalInfoFingerprint = 1,
    kAdditionalInfoFingerprintV6 = 2,
    kAdditionalInfoUpnp = 3,
    kAdditionalInfoNetbios = 4,
};

// "avahi", "fingerprint", ...; empty for a value that is no kind.
std::optional<std::string_view> additional_info_type_text(AdditionalInfoType type);

// What an asynchronous submission needs when its answer comes.
struct FingerprintContext {
    nk::DhcpFingerprint fingerprint;
    nk::sockutl::macaddr mac;
};
struct UserAgentContext {
    std::string user_agent;
    nk::sockutl::macaddr mac;
};

// Sends `data` as additional info of kind `type` for the device. Avahi, UPnP and NetBIOS wait
// for the answer (true when one came and parsed); fingerprints are answered to
// fingerprint_callback with `context`. Owns `data` and `context` on every path.
bool send_device_additional_info(const std::string& device_id, nk::json_ptr data,
                                 AdditionalInfoType type,
                                 std::unique_ptr<FingerprintContext> context = nullptr);

// {"option_list": ..., "vendor_class": ...}; null when it could not be made.
nk::json_ptr build_dhcp_fingerprint_payload(const nk::DhcpFingerprint& fingerprint);

// Submit and record in the cache; false only for a MAC without a device id (or no memory). A
// send that failed is recorded for the retry and still returns true.
bool send_dhcp_fingerprint(const nk::sockutl::macaddr& mac, const nk::DhcpFingerprint& fingerprint);
bool send_user_agent(const nk::sockutl::macaddr& mac, const std::string& user_agent);

// The MAC's cached user agents and fingerprints, whatever their state, are dropped and submitted
// again under `device_id`: what was sent under the MAC's former (or temporary) id is not the new
// id's, and the client may never send it again.
void resubmit_additional_info(const nk::sockutl::macaddr& mac, const std::string& device_id);

// Answers of the cloud, on the bus thread; each takes ownership of its context.
void fingerprint_callback(void* context, const Message* response);
void user_agent_callback(void* context, const Message* response);

// Resends what failed or was deferred once its wait is over; the retry timer calls them.
void retry_user_agents();
void retry_fingerprints();

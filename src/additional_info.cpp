#include "additional_info.h"

#include <charconv>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include <nk/log.h>

#include "cloud_request.h"
#include "daemon_state.h"
#include "device_identity.h"

namespace {

using nk::sockutl::macaddr;

// A MAC gets at most this many distinct user agents submitted while they stay cached.
constexpr std::size_t kMaxUserAgentsPerMac = 15;
// The bus status with which the connector defers a request.
constexpr int kStatusDeferred = 3;

// Allocation failure is a failed submission, not the end of the loop.
template <typename T, typename... Args>
std::unique_ptr<T> make_unique_nothrow(Args&&... args) {
    return std::unique_ptr<T>(new (std::nothrow) T{std::forward<Args>(args)...});
}

// The bus status as a number; text that is not one counts as a failure.
int response_status(const Message& response) {
    const char* status = response.status;
    const char* end = status + ::strnlen(status, sizeof(response.status));
    int value = -1;
    const auto [ptr, ec] = std::from_chars(status, end, value);
    return ec == std::errc() && ptr == end && ptr != status ? value : -1;
}

std::string_view status_text(const Message& response) {
    return std::string_view(response.status, ::strnlen(response.status, sizeof(response.status)));
}

nk::json_ptr parse_answer(const Message& response) {
    json_error_t error;
    return nk::json_ptr(response.data ? json_loadb(response.data, response.length, 0, &error)
                                      : nullptr);
}

// The state an answer leaves a fingerprint submission in.
std::int32_t fingerprint_answer_state(const Message& response) {
    const int status = response_status(response);
    if (status != 0) {
        NK_LOG(nk::log::WARN, "response status={:s}", status_text(response));
        return status == kStatusDeferred ? nk::kSubmissionDeferred : nk::kSubmissionFailed;
    }
    NK_LOG(nk::log::DEBUG, "response:\n{}", response);
    const nk::json_ptr answer = parse_answer(response);
    const json_t* result = json_object_get(answer.get(), "result");
    if (result == nullptr) {
        NK_LOG(nk::log::WARN, "error parsing response:\n{}", response);
        return nk::kSubmissionFailed;
    }
    const std::optional<int> accepted = cloud_int(json_object_get(result, "status"));
    if (!accepted) {
        NK_LOG(nk::log::WARN, "error extracting status from response:\n{}", response);
        return nk::kSubmissionFailed;
    }
    if (*accepted != 0) {
        NK_LOG(nk::log::WARN, "status 1 in response:\n{}", response);
        return nk::kSubmissionFailed;
    }
    return nk::kSubmissionOk;
}

// The same for a user agent: the cloud says "ok" here where it says 0 for fingerprints.
std::int32_t user_agent_answer_state(const Message& response, const UserAgentContext& context) {
    const int status = response_status(response);
    if (status != 0) {
        NK_LOG(nk::log::WARN, "response status={:s} for user_agent={:s}", status_text(response),
               context.user_agent);
        return status == kStatusDeferred ? nk::kSubmissionDeferred : nk::kSubmissionFailed;
    }
    NK_LOG(nk::log::DEBUG, "response:\n{}", response);
    const nk::json_ptr answer = parse_answer(response);
    if (!answer) {
        NK_LOG(nk::log::WARN, "error parsing response for mac={}, user_agent={:s}:\n{}",
               context.mac, context.user_agent, response);
        return nk::kSubmissionFailed;
    }
    const json_t* result = json_object_get(answer.get(), "result");
    if (result == nullptr) {
        NK_LOG(nk::log::WARN,
               "error extracting result from response for mac={}, user_agent={:s}:\n{}",
               context.mac, context.user_agent, response);
        return nk::kSubmissionFailed;
    }
    const char* accepted = nk::json_string_member(result, "status");
    if (accepted == nullptr) {
        NK_LOG(nk::log::WARN,
               "error extracting status from response for mac={}, user_agent={:s}:\n{}",
               context.mac, context.user_agent, response);
        return nk::kSubmissionFailed;
    }
    if (std::strcmp(accepted, "ok") != 0) {
        NK_LOG(nk::log::WARN, "status 1 in response for mac={}, user_agent={:s}:\n{}", context.mac,
               context.user_agent, response);
        return nk::kSubmissionFailed;
    }
    return nk::kSubmissionOk;
}

// Records a submission: a new record, or the attempt stamped and the wait doubled on the one
// cached. The caller holds the cache's outer mutex.
template <typename Cache, typename T>
void record_submission(Cache& cache, const macaddr& mac, const T& info, bool cached,
                       std::int32_t state) {
    if (cached) {
        cache.update(
            mac, [&info](const nk::AdditionalInfo<T>& record) { return record.info == info; },
            nk::resubmitted{state, g_now});
    } else {
        cache.add(mac, nk::new_submission(info, state, g_now, g_retry_interval["default"]));
    }
}

bool send_user_agent_to_cloud(const std::string& device_id, const std::string& user_agent,
                              std::unique_ptr<UserAgentContext> context) {
    NK_LOG(nk::log::INFO, "sending user_agent to cloud for: {:s}, {:s}", device_id, user_agent);
    const nk::json_ptr body(json_pack("{s:{s:s}, s:s}", "connect_destination", "device_id",
                                      device_id.c_str(), "user_agent", user_agent.c_str()));
    if (!body ||
        !cloud_request(kCloudSetDeviceType, body.get(), user_agent_callback, context.get())) {
        NK_LOG(nk::log::WARN, "Failed to send user agent to cloud");
        return false;
    }
    context.release();  // the callback owns it now
    return true;
}

// Copies of the records whose retry is due, taken under the cache's mutex so that the
// senders can take it again.
template <typename Cache>
typename Cache::map_type due_records(Cache& cache, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    return cache.get(nk::due_for_retry{g_now});
}

}  // namespace

std::optional<std::string_view> additional_info_type_text(AdditionalInfoType type) {
    switch (type) {
        case kAdditionalInfoAvahi:
            return "avahi";
        case kAdditionalInfoFingerprint:
            return "fingerprint";
        case kAdditionalInfoFingerprintV6:
            return "fingerprintv6";
        case kAdditionalInfoUpnp:
            return "upnp";
        case kAdditionalInfoNetbios:
            return "netbios";
    }
    return std::nullopt;
}

bool send_device_additional_info(const std::string& device_id, nk::json_ptr data,
                                 AdditionalInfoType type,
                                 std::unique_ptr<FingerprintContext> context) {
    if (!data)
        return false;
    const std::optional<std::string_view> kind = additional_info_type_text(type);
    if (!kind) {
        NK_LOG(nk::log::ERROR, "BUG: Invalid type");
        return false;
    }
    const std::string type_text(*kind);
    const nk::json_ptr request(json_object());
    if (!request ||
        json_object_set_new(request.get(), "type", json_string(type_text.c_str())) != 0 ||
        json_object_set_new(request.get(), "connect_destination",
                            json_pack("{s:s}", "device_id", device_id.c_str())) != 0 ||
        json_object_set_new(request.get(), "data", data.release()) != 0) {
        return false;
    }
    nk::log::log_json(nk::log::DEBUG, "Info", request.get());

    bool sent = false;
    switch (type) {
        case kAdditionalInfoAvahi:
        case kAdditionalInfoUpnp:
        case kAdditionalInfoNetbios: {
            nk::json_ptr answer;  // only whether one came matters
            sent = cloud_request(kCloudSetAdditionalInfo, request.get(), &answer);
            break;
        }
        case kAdditionalInfoFingerprint:
        case kAdditionalInfoFingerprintV6:
            sent = cloud_request(kCloudSetAdditionalInfo, request.get(), fingerprint_callback,
                                 context.get());
            if (sent)
                context.release();  // the callback owns it now
            break;
        default:
            NK_LOG(nk::log::ERROR, "Invalid type={:s} for set_device_additional_info", type_text);
            return false;
    }
    if (!sent) {
        NK_LOG(nk::log::ERROR, "Could not set_device_additional_info type={:s}", type_text);
        return false;
    }
    NK_LOG(nk::log::INFO, "Sent additional {:s} info for device {:s}", type_text, device_id);
    return true;
}

nk::json_ptr build_dhcp_fingerprint_payload(const nk::DhcpFingerprint& fingerprint) {
    return nk::json_ptr(json_pack("{s:s%, s:s%}", "option_list", fingerprint.option_list.data(),
                                  fingerprint.option_list.size(), "vendor_class",
                                  fingerprint.vendor_class.data(),
                                  fingerprint.vendor_class.size()));
}

namespace {

bool send_dhcp_fingerprint_as(const std::string& device_id, const macaddr& mac,
                              const nk::DhcpFingerprint& fingerprint) {
    const AdditionalInfoType type =
        fingerprint.version ? kAdditionalInfoFingerprintV6 : kAdditionalInfoFingerprint;
    std::unique_ptr<FingerprintContext> context =
        make_unique_nothrow<FingerprintContext>(fingerprint, mac);
    nk::json_ptr payload = build_dhcp_fingerprint_payload(fingerprint);
    if (!payload) {
        // JSON carries only UTF-8; a vendor class of other bytes can never be sent.
        NK_LOG(nk::log::WARN, "fingerprint {} for mac {} is not valid UTF-8, not sent", fingerprint,
               mac);
        return false;
    }
    if (!context)
        return false;

    // Held from the test to the record, so that a fast answer finds the record it updates.
    const std::lock_guard lock(g_fingerprint_cache_mutex);
    const bool sent =
        send_device_additional_info(device_id, std::move(payload), type, std::move(context));
    const bool cached =
        g_fingerprint_cache.exists(mac, nk::AdditionalInfo<nk::DhcpFingerprint>{fingerprint});
    record_submission(g_fingerprint_cache, mac, fingerprint, cached,
                      sent ? nk::kSubmissionSent : nk::kSubmissionFailed);
    return true;
}

bool send_user_agent_as(const std::string& device_id, const macaddr& mac,
                        const std::string& user_agent) {
    std::unique_ptr<UserAgentContext> context =
        make_unique_nothrow<UserAgentContext>(user_agent, mac);
    if (!context) {
        NK_LOG(nk::log::ERROR, "Failed to allocate new UserAgentContext");
        return false;
    }

    const std::lock_guard lock(g_user_agent_cache_mutex);
    const bool cached = g_user_agent_cache.exists(mac, nk::AdditionalInfo<std::string>{user_agent});
    const std::size_t count = g_user_agent_cache.count(mac);
    NK_LOG(nk::log::DEBUG, "user agent {:s} for mac {}: exists={:d}, ua-count={:d}", user_agent,
           mac, cached, count);
    if (!cached && count >= kMaxUserAgentsPerMac) {
        NK_LOG(nk::log::WARN, "skip sending user agent {:s} for mac {}", user_agent, mac);
        return true;
    }
    const bool sent = send_user_agent_to_cloud(device_id, user_agent, std::move(context));
    record_submission(g_user_agent_cache, mac, user_agent, cached,
                      sent ? nk::kSubmissionSent : nk::kSubmissionFailed);
    return true;
}

std::string known_device_id(const macaddr& mac) {
    std::string device_id = get_device_id(mac);
    if (device_id.empty())
        NK_LOG(nk::log::ERROR, "BUG: empty device id for mac {}", mac);
    return device_id;
}

template <typename T>
std::vector<T> take_infos(nk::Cache<macaddr, nk::AdditionalInfo<T>>& cache, std::mutex& mutex,
                          const macaddr& mac) {
    std::vector<T> infos;
    const std::lock_guard lock(mutex);
    for (auto& value : cache.remove(mac))
        infos.push_back(std::move(value.value.info));
    return infos;
}

}  // namespace

bool send_dhcp_fingerprint(const macaddr& mac, const nk::DhcpFingerprint& fingerprint) {
    const std::string device_id = known_device_id(mac);
    return !device_id.empty() && send_dhcp_fingerprint_as(device_id, mac, fingerprint);
}

bool send_user_agent(const macaddr& mac, const std::string& user_agent) {
    const std::string device_id = known_device_id(mac);
    return !device_id.empty() && send_user_agent_as(device_id, mac, user_agent);
}

void resubmit_additional_info(const macaddr& mac, const std::string& device_id) {
    // Taken out first: the senders lock the caches themselves and record afresh.
    const std::vector<std::string> agents =
        take_infos(g_user_agent_cache, g_user_agent_cache_mutex, mac);
    const std::vector<nk::DhcpFingerprint> fingerprints =
        take_infos(g_fingerprint_cache, g_fingerprint_cache_mutex, mac);
    if (device_id.empty())
        return;
    for (const std::string& agent : agents)
        send_user_agent_as(device_id, mac, agent);
    for (const nk::DhcpFingerprint& fingerprint : fingerprints)
        send_dhcp_fingerprint_as(device_id, mac, fingerprint);
}

void fingerprint_callback(void* context, const Message* response) {
    const std::unique_ptr<FingerprintContext> owned(static_cast<FingerprintContext*>(context));
    if (!owned || response == nullptr)
        return;
    NK_LOG(nk::log::INFO, "Received fingerprint response for mac {}", owned->mac);
    const std::int32_t state = fingerprint_answer_state(*response);
    if (state == nk::kSubmissionOk)
        NK_LOG(nk::log::INFO, "Marked fingerprint \"{}\" for mac {} as OK", owned->fingerprint,
               owned->mac);
    const std::lock_guard lock(g_fingerprint_cache_mutex);
    const nk::DhcpFingerprint& sent = owned->fingerprint;
    g_fingerprint_cache.update(
        owned->mac,
        [&sent](const nk::AdditionalInfo<nk::DhcpFingerprint>& record) {
            return record.info == sent;
        },
        nk::set_submission_state{state});
}

void user_agent_callback(void* context, const Message* response) {
    const std::unique_ptr<UserAgentContext> owned(static_cast<UserAgentContext*>(context));
    if (!owned || response == nullptr)
        return;
    NK_LOG(nk::log::INFO, "Received user_agent response for mac {}", owned->mac);
    const std::int32_t state = user_agent_answer_state(*response, *owned);
    if (state == nk::kSubmissionOk)
        NK_LOG(nk::log::INFO, "Marked user agent \"{:s}\" for mac {} as OK", owned->user_agent,
               owned->mac);
    const std::lock_guard lock(g_user_agent_cache_mutex);
    const std::string& sent = owned->user_agent;
    g_user_agent_cache.update(
        owned->mac,
        [&sent](const nk::AdditionalInfo<std::string>& record) { return record.info == sent; },
        nk::set_submission_state{state});
}

void retry_user_agents() {
    for (const auto& [mac, records] : due_records(g_user_agent_cache, g_user_agent_cache_mutex)) {
        for (const auto& record : records) {
            NK_LOG(nk::log::INFO, "Retrying to send user_agent {:s} for mac {}", record.value.info,
                   mac);
            send_user_agent(mac, record.value.info);
        }
    }
}

void retry_fingerprints() {
    for (const auto& [mac, records] : due_records(g_fingerprint_cache, g_fingerprint_cache_mutex)) {
        for (const auto& record : records) {
            NK_LOG(nk::log::INFO, "Retrying to send fingerprint {} for mac {}", record.value.info,
                   mac);
            send_dhcp_fingerprint(mac, record.value.info);
        }
    }
}

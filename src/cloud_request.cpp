#include "cloud_request.h"

#include <cstring>
#include <memory>
#include <string_view>

#include <nk/log.h>

#include "daemon_state.h"

namespace {

struct ResponseDeleter {
    void operator()(Message* m) const { nkex_free_response(m); }
};
using response_ptr = std::unique_ptr<Message, ResponseDeleter>;

}  // namespace

std::optional<int> cloud_int(const json_t* value) {
    if (json_is_integer(value))
        return static_cast<int>(json_integer_value(value));
    if (json_is_boolean(value))
        return json_is_true(value) ? 1 : 0;
    return std::nullopt;
}

bool cloud_request(const char* destination, const json_t* body, nk::json_ptr* result) {
    const nk::json_text text(json_dumps(body, 0));
    if (!text)
        return false;

    Message request{};
    std::strncpy(request.name, destination, sizeof(request.name) - 1);
    request.data = text.get();
    request.length = std::strlen(text.get());

    Message* raw = nullptr;
    if (nkex_send_request_and_wait_response(g_nkex, &request, &raw) != 0) {
        NK_LOG(nk::log::WARN, "{:s} failed", destination);
        return false;
    }
    const response_ptr response(raw);
    const std::string_view status(response->status,
                                  ::strnlen(response->status, sizeof(response->status)));
    if (status != NKEX_STATUS_OK) {
        NK_LOG(nk::log::WARN, "{:s} returned status={:s}", destination, status);
        return false;
    }
    NK_LOG(nk::log::DEBUG, "{:s} response:\n{}", destination, *response);

    json_error_t error;
    json_t* answer =
        response->data ? json_loadb(response->data, response->length, 0, &error) : nullptr;
    if (answer == nullptr) {
        NK_LOG(nk::log::WARN, "{:s}: error parsing response", destination);
        return false;
    }
    result->reset(answer);
    return true;
}

bool cloud_request(const char* destination, const json_t* body, nkex_response_callback_t callback,
                   void* context) {
    const nk::json_text text(json_dumps(body, 0));
    if (!text)
        return false;
    if (nkex_send_request(g_nkex, destination, text.get(), std::strlen(text.get()), callback,
                          context) != 0) {
        NK_LOG(nk::log::WARN, "{:s} failed", destination);
        return false;
    }
    return true;
}

#include "nkex_mqtt.h"

#include <mqtt_protocol.h>
#include <sys/random.h>

#include <cstdlib>
#include <limits>
#include <memory>

#include "nk/constants.h"
#include "nk/log.h"
#include "nk/nkex.h"

namespace nk::nkex_mqtt {

namespace {

constexpr std::size_t kCorrelationSize = 8;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

std::optional<int> parse_int(std::string_view text) {
    if (text.empty() || text.size() > 9)
        return std::nullopt;
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

}  // namespace

std::optional<BrokerAddress> parse_broker(std::string_view text) {
    constexpr std::string_view kUnix = "unix:";
    constexpr std::string_view kTcp = "tcp:";
    if (starts_with(text, kUnix)) {
        const std::string_view path = text.substr(kUnix.size());
        if (path.empty())
            return std::nullopt;
        return BrokerAddress{std::string(path), 0};
    }
    if (!starts_with(text, kTcp))
        return std::nullopt;
    const std::string_view rest = text.substr(kTcp.size());
    const std::size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    std::string_view host = rest.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::optional<int> port = parse_int(rest.substr(colon + 1));
    if (host.empty() || !port || *port < 1 || *port > 65535)
        return std::nullopt;
    return BrokerAddress{std::string(host), *port};
}

std::optional<BrokerAddress> broker_from_env() {
    const char* env = std::getenv(kBrokerEnv);
    const std::string_view text = (env && *env) ? env : kBrokerDefault;
    std::optional<BrokerAddress> address = parse_broker(text);
    if (!address) {
        NK_LOG(log::ERROR, "bad broker address \"{:s}\" (want unix:PATH or tcp:HOST:PORT)", text);
    }
    return address;
}

std::chrono::milliseconds timeout_from_env() {
    const char* env = std::getenv(kBusTimeoutEnv);
    if (env == nullptr || *env == '\0')
        return std::chrono::milliseconds(kBusTimeoutDefaultMs);
    const std::optional<int> value = parse_int(env);
    if (!value || *value <= 0) {
        NK_LOG(log::WARN, "ignoring bad {:s}=\"{:s}\"", kBusTimeoutEnv, env);
        return std::chrono::milliseconds(kBusTimeoutDefaultMs);
    }
    return std::chrono::milliseconds(*value);
}

uint64_t random_start_id() {
    uint64_t value = 0;
    if (::getrandom(&value, sizeof(value), GRND_NONBLOCK) != sizeof(value)) {
        value = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    // Below 2^62, so the ids of one process never wrap (time-outs rely on their order).
    value >>= 2;
    return value == 0 ? 1 : value;
}

std::string encode_correlation(uint64_t id) {
    std::string out(kCorrelationSize, '\0');
    for (std::size_t i = 0; i < kCorrelationSize; ++i) {
        out[kCorrelationSize - 1 - i] = static_cast<char>(id >> (8 * i));
    }
    return out;
}

std::optional<uint64_t> decode_correlation(std::string_view data) {
    if (data.size() != kCorrelationSize)
        return std::nullopt;
    uint64_t id = 0;
    for (const char c : data)
        id = (id << 8) | static_cast<unsigned char>(c);
    return id;
}

std::optional<std::string> message_topic(const char* name, bool for_subscribe) {
    if (name == nullptr)
        return std::nullopt;
    const std::size_t len = ::strnlen(name, NKEX_NAME_MAX);
    if (len == 0 || len >= NKEX_NAME_MAX)
        return std::nullopt;
    std::string topic = std::string(kMsgPrefix) + std::string(name, len);
    if (mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) != 0) {
        return std::nullopt;
    }
    const int rc = for_subscribe ? mosquitto_sub_topic_check(topic.c_str())
                                 : mosquitto_pub_topic_check(topic.c_str());
    if (rc != MOSQ_ERR_SUCCESS)
        return std::nullopt;
    return topic;
}

std::string_view printable_name(const char* name) {
    return name ? std::string_view(name, ::strnlen(name, NKEX_NAME_MAX)) : "(null)";
}

Properties::~Properties() {
    mosquitto_property_free_all(&list_);
}

bool Properties::add_int32(int id, uint32_t value) {
    return mosquitto_property_add_int32(&list_, id, value) == MOSQ_ERR_SUCCESS;
}

bool Properties::add_string(int id, const std::string& value) {
    return mosquitto_property_add_string(&list_, id, value.c_str()) == MOSQ_ERR_SUCCESS;
}

bool Properties::add_binary(int id, std::string_view value) {
    if (value.size() > std::numeric_limits<uint16_t>::max())
        return false;
    return mosquitto_property_add_binary(&list_, id, value.data(),
                                         static_cast<uint16_t>(value.size())) == MOSQ_ERR_SUCCESS;
}

bool Properties::add_user(std::string_view name, const std::string& value) {
    return mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY,
                                              std::string(name).c_str(),
                                              value.c_str()) == MOSQ_ERR_SUCCESS;
}

std::optional<std::string> read_string(const mosquitto_property* props, int id) {
    char* raw = nullptr;
    if (mosquitto_property_read_string(props, id, &raw, false) == nullptr)
        return std::nullopt;
    const std::unique_ptr<char, FreeDeleter> owned(raw);
    return std::string(raw ? raw : "");
}

std::optional<std::string> read_binary(const mosquitto_property* props, int id) {
    void* raw = nullptr;
    uint16_t len = 0;
    if (mosquitto_property_read_binary(props, id, &raw, &len, false) == nullptr) {
        return std::nullopt;
    }
    const std::unique_ptr<void, FreeDeleter> owned(raw);
    return raw ? std::string(static_cast<const char*>(raw), len) : std::string();
}

std::optional<std::string> read_user_property(const mosquitto_property* props,
                                              std::string_view key) {
    bool skip_first = false;
    for (const mosquitto_property* p = props;; skip_first = true) {
        char* name = nullptr;
        char* value = nullptr;
        p = mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value,
                                                skip_first);
        if (p == nullptr)
            return std::nullopt;
        const std::unique_ptr<char, FreeDeleter> owned_name(name);
        const std::unique_ptr<char, FreeDeleter> owned_value(value);
        if (name && key == name)
            return std::string(value ? value : "");
    }
}

}  // namespace nk::nkex_mqtt

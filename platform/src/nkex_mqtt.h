// MQTT pieces of the message bus: broker address, topics, correlation ids, properties.
#pragma once

#include <mosquitto.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace nk::nkex_mqtt {

inline constexpr std::string_view kMsgPrefix = "nkex/msg/";
inline constexpr std::string_view kRspPrefix = "nkex/rsp/";
inline constexpr std::string_view kStatusProperty = "status";

inline bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// Copies `src` into a NUL-terminated array, cut on a UTF-8 character boundary when too long.
template <std::size_t N>
void copy_text(char (&dst)[N], std::string_view src) {
    std::size_t n = src.size();
    if (n > N - 1) {
        n = N - 1;
        while (n > 0 && (static_cast<unsigned char>(src[n]) & 0xC0) == 0x80)
            --n;
    }
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

// Where the broker listens: a unix socket path (port 0, as libmosquitto wants it) or TCP.
struct BrokerAddress {
    std::string host;
    int port = 0;
};

// "unix:PATH" or "tcp:HOST:PORT" (HOST may be a bracketed IPv6 address).
std::optional<BrokerAddress> parse_broker(std::string_view text);
// From NKEX_BROKER or its default; logs and gives nothing when malformed.
std::optional<BrokerAddress> broker_from_env();
// NKEX_TIMEOUT_MS, or its default when unset or malformed.
std::chrono::milliseconds timeout_from_env();

// A random first request id, so that answers still queued for this client id from before a
// restart do not match the new process's requests. Ids only grow from there.
uint64_t random_start_id();

// Correlation data: the request id as 8 bytes, big endian.
std::string encode_correlation(uint64_t id);
std::optional<uint64_t> decode_correlation(std::string_view data);

// "nkex/msg/<name>", or nothing when the name is empty, too long for Message.name, not UTF-8,
// or not a valid topic to publish (or, with `for_subscribe`, to subscribe) to.
std::optional<std::string> message_topic(const char* name, bool for_subscribe);
// For log lines about names that may be bad.
std::string_view printable_name(const char* name);

// An outgoing property list, freed with its owner.
class Properties {
public:
    Properties() = default;
    ~Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    bool add_int32(int id, uint32_t value);
    bool add_string(int id, const std::string& value);
    bool add_binary(int id, std::string_view value);
    bool add_user(std::string_view name, const std::string& value);
    const mosquitto_property* get() const { return list_; }

private:
    mosquitto_property* list_ = nullptr;
};

std::optional<std::string> read_string(const mosquitto_property* props, int id);
std::optional<std::string> read_binary(const mosquitto_property* props, int id);
std::optional<std::string> read_user_property(const mosquitto_property* props,
                                              std::string_view key);

}  // namespace nk::nkex_mqtt

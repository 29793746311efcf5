// The first segment of an HTTP/1.x request: its method, and the User-Agent among its header
// lines.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace nk::sniffer {

// The methods a client opens a request with; the capture filter lets through segments that
// start with one of them.
inline constexpr std::array<std::string_view, 7> kHttpMethods = {"GET",    "HEAD",    "POST", "PUT",
                                                                 "DELETE", "OPTIONS", "PATCH"};

// Longer agents are not forwarded: the daemon refuses them too.
inline constexpr std::size_t kMaxUserAgent = 2048;

// True when the bytes open a request line: one of kHttpMethods, then a space.
bool starts_request(std::string_view segment);

// The User-Agent value, without surrounding white space, when the segment opens a request and
// holds the whole User-Agent line. Nothing for an agent that is empty, longer than
// kMaxUserAgent, has control characters or is not UTF-8 (it could not travel as JSON text).
std::optional<std::string> user_agent_of(std::string_view segment);

}  // namespace nk::sniffer

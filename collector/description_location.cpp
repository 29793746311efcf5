#include "description_location.h"

#include <curl/curl.h>

#include <memory>

#include <fmt/format.h>

#include "printable.h"

namespace nk::collector {

namespace {

struct UrlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct TextFree {
    void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, TextFree>;

// A part of the URL, or empty when it has none.
std::string part(CURLU* url, CURLUPart which) {
    char* raw = nullptr;
    if (curl_url_get(url, which, &raw, 0) != CURLUE_OK)
        return {};
    const CurlText text(raw);
    return text.get();
}

std::optional<std::string> refuse(std::string& why, std::string text) {
    why = std::move(text);
    return std::nullopt;
}

}  // namespace

std::optional<std::string> description_url(std::string_view location,
                                           const sockutl::address& sender, std::string& why) {
    if (location.empty())
        return refuse(why, "no LOCATION");
    if (location.size() > kMaxLocation)
        return refuse(why, fmt::format("LOCATION of {:d} bytes", location.size()));
    const std::unique_ptr<CURLU, UrlFree> url(curl_url());
    if (!url)
        return refuse(why, "no memory for a URL");
    // Whatever libcurl could fetch is first read as a URL; the checks below narrow it.
    const std::string text(location);
    if (curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return refuse(why, fmt::format("LOCATION '{:s}' is not a URL", printable(location)));
    }
    if (part(url.get(), CURLUPART_SCHEME) != "http")
        return refuse(why, fmt::format("LOCATION '{:s}' is not http", printable(location)));
    if (!part(url.get(), CURLUPART_USER).empty() || !part(url.get(), CURLUPART_PASSWORD).empty())
        return refuse(why, fmt::format("LOCATION '{:s}' has a user", printable(location)));
    std::string host = part(url.get(), CURLUPART_HOST);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    const std::optional<sockutl::address> ip = sockutl::address::parse(host);
    if (!ip || *ip != sender) {
        return refuse(why, fmt::format("LOCATION '{:s}' is not on {}, which sent it",
                                       printable(location), sender));
    }
    std::string normal = part(url.get(), CURLUPART_URL);
    if (normal.empty())
        return refuse(why, fmt::format("LOCATION '{:s}' cannot be written", printable(location)));
    return normal;
}

}  // namespace nk::collector

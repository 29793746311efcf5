#include "host_names.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace nk::collector {

namespace {

constexpr std::size_t kMaxName = 253;
constexpr std::size_t kMaxLabel = 63;

// Names systems give themselves when nobody names them, and words that name a kind of device
// rather than one. docs/collector.md lists them.
constexpr std::array<std::string_view, 52> kGeneric = {
    "*",           "localhost", "localhost6", "unknown",     "none",       "null",    "(none)",
    "default",     "iphone",    "ipad",       "ipod",        "ipod-touch", "watch",   "apple-watch",
    "apple-tv",    "appletv",   "homepod",    "mac",         "imac",       "macbook", "macbook-air",
    "macbook-pro", "mac-mini",  "mac-studio", "mac-pro",     "android",    "phone",   "smartphone",
    "tablet",      "laptop",    "desktop",    "pc",          "computer",   "windows", "linux",
    "ubuntu",      "debian",    "fedora",     "raspberrypi", "chromebook", "kindle",  "galaxy",
    "pixel",       "esp32",     "esp8266",    "espressif",   "chromecast", "echo",    "tv",
    "printer",     "camera",    "host",
};

// Defaults made of a brand and a model ("Galaxy-S21", "Redmi-Note-8"): the same on every unit
// sold.
constexpr std::array<std::string_view, 13> kGenericPrefixes = {
    "galaxy-", "pixel-", "redmi-",  "oneplus-", "huawei-", "honor-", "xiaomi-",
    "oppo-",   "vivo-",  "realme-", "moto-",    "nokia-",  "sm-",
};

bool all_hex(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isxdigit(static_cast<unsigned char>(c)) != 0;
    });
}

// "iphone-2" is "iphone" renamed after a name conflict.
std::string_view without_conflict_suffix(std::string_view label) {
    const std::size_t dash = label.rfind('-');
    if (dash == std::string_view::npos || dash == 0 || dash + 1 == label.size())
        return label;
    const std::string_view tail = label.substr(dash + 1);
    const bool digits = std::all_of(tail.begin(), tail.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0;
    });
    return digits ? label.substr(0, dash) : label;
}

}  // namespace

bool is_generic_name(std::string_view label) {
    const std::string_view base = without_conflict_suffix(label);
    if (base.empty())
        return true;
    if (std::find(kGeneric.begin(), kGeneric.end(), base) != kGeneric.end())
        return true;
    // Android before 8 named itself "android-" and a hex id of the installation.
    constexpr std::string_view kAndroid = "android-";
    if (base.substr(0, kAndroid.size()) == kAndroid && all_hex(base.substr(kAndroid.size())))
        return true;
    return std::any_of(kGenericPrefixes.begin(), kGenericPrefixes.end(), [&](std::string_view p) {
        return base.size() > p.size() && base.substr(0, p.size()) == p;
    });
}

std::string distinctive_name(std::string_view name) {
    if (name.empty() || name.size() > kMaxName)
        return {};
    std::string lower;
    for (const char c : name) {
        const auto b = static_cast<unsigned char>(c);
        if (b < 0x21 || b > 0x7e)
            return {};
        lower.push_back(static_cast<char>(std::tolower(b)));
    }
    const std::string label = lower.substr(0, lower.find('.'));
    if (label.empty() || label.size() > kMaxLabel || is_generic_name(label))
        return {};
    return label;
}

}  // namespace nk::collector

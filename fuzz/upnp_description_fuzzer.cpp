// A UPnP device description as the collector reads it, whatever the fetch brought.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "service_messages.h"
#include "upnp_description.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view xml(reinterpret_cast<const char*>(data), size);
    std::string why;
    const auto info = nk::collector::upnp::read_description(xml, why);
    if (!info) {
        if (why.empty())
            __builtin_trap();
        return 0;
    }
    for (const auto& [name, value] : *info) {
        if (value.empty() || value.size() > nk::collector::upnp::kMaxValue)
            __builtin_trap();
    }
    // expat hands out UTF-8 only, so the line the daemon gets is always valid JSON.
    if (nk::collector::upnp_message("198.51.100.1", *info, "").empty())
        __builtin_trap();
    return 0;
}

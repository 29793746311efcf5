// A NetBIOS node status answer as the collector reads it, whatever the datagram holds.
#include <cstddef>
#include <cstdint>
#include <string>

#include "nbstat.h"
#include "service_messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string why;
    const auto status = nk::collector::nbstat::parse(data, size, why);
    if (!status) {
        if (why.empty())
            __builtin_trap();
        return 0;
    }
    // Every name read lies inside the datagram: 18 bytes each after the 12-byte header, the
    // answer's name (one byte at least), its 10 bytes of type to length and the name count.
    if (12 + 1 + 10 + 1 + status->names.size() * 18 > size)
        __builtin_trap();
    const auto table = nk::collector::nbstat::table_of(*status);
    // Names are made printable, so the line the daemon gets is always valid JSON.
    if (table && nk::collector::netbios_message("198.51.100.1", *table).empty())
        __builtin_trap();
    return 0;
}

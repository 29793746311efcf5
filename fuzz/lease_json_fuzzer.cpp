// The lease table read from a collector's "leases" message, and written back.
#include <jansson.h>

#include <cstddef>
#include <cstdint>

#include <nk/json.h>
#include <nk/log.h>

#include "leases.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        nk::log::set_level(nk::log::ERROR);
        return true;
    }();
    (void)quiet;
    const nk::json_ptr json(json_loadb(reinterpret_cast<const char*>(data), size, 0, nullptr));
    nk::leases::leases_t table;
    if (table.from_json(json.get())) {
        nk::leases::leases_t copy;
        const nk::json_ptr back = table.to_json();
        copy.from_json(back.get());
    }
    return 0;
}

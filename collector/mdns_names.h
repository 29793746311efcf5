// The host names devices announce over mDNS, by address, as the service browser resolves
// them: evidence of who a client is when it shows a new MAC.
#pragma once

#include <string>

#include <nk/sockutl.h>

#include "recent_map.h"
#include "service_messages.h"

namespace nk::collector {

class MdnsNames {
public:
    static constexpr std::size_t kMaxAddresses = 1024;

    void add(const MdnsService& service) {
        for (const std::string& ip : service.ips) {
            const sockutl::address address(ip);
            if (address.is_v4_or_v6() && !service.hostname.empty())
                names_.touch(address) = service.hostname;
        }
    }
    // Empty when the address announced none.
    std::string name_of(const sockutl::address& ip) const {
        const std::string* name = names_.find(ip);
        return name != nullptr ? *name : std::string();
    }

private:
    RecentMap<sockutl::address, std::string> names_{kMaxAddresses};
};

}  // namespace nk::collector

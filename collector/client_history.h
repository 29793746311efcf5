// Which MAC each DHCP client identity came with first, so that a client that later shows a
// randomised (locally administered) MAC is known as the device it was.
#pragma once

#include <map>
#include <optional>
#include <string>

#include <nk/sockutl.h>

namespace nk::collector {

// Kept in the settings store as one JSON object (hex identity to MAC), so that a restart of
// the collector does not split a device in two.
inline constexpr const char* kClientMacsKey = "/daemons/nkdevinfo/client_macs";

class ClientHistory {
public:
    static constexpr std::size_t kMaxClients = 1024;

    // Reads the stored history; an unreadable one starts empty.
    void load();
    // Writes it back when it changed since the last load or save.
    void save();

    // Records a lease of `identity` with `mac`. The MAC it first came with, when `mac` is a
    // locally administered one that replaced it; empty otherwise. A new universal MAC takes
    // over the identity (a new network card of the same client).
    std::optional<sockutl::macaddr> observe(const std::string& identity,
                                            const sockutl::macaddr& mac);

    const std::map<std::string, sockutl::macaddr>& clients() const { return clients_; }

private:
    std::map<std::string, sockutl::macaddr> clients_;  // raw identity bytes to MAC
    bool dirty_ = false;
};

bool is_locally_administered(const sockutl::macaddr& mac);

}  // namespace nk::collector

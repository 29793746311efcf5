// What the collector remembers of each client it has reported, so that a client that shows a
// new, randomised MAC is known as the device it was, across restarts of the collector and of
// the daemon.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nk/sockutl.h>

#include "dhcp_fingerprint.h"

namespace nk::collector {

// Kept in the settings store as one JSON object, written only when it changed.
inline constexpr const char* kClientsKey = "/daemons/nkdevinfo/clients";
// The former history: client identity (hex) to MAC. Read when kClientsKey is not there yet.
inline constexpr const char* kClientMacsKey = "/daemons/nkdevinfo/client_macs";

struct KnownClient {
    sockutl::macaddr mac;                   // the MAC it is reported under: the first it came with
    std::vector<sockutl::macaddr> aliases;  // randomised MACs found to be it, the newest last
    std::vector<std::string> ids;  // client identifiers and DUIDs not made of its MAC, raw bytes
    std::string host;              // its distinctive host name (see host_names.h), or empty
    std::string mdns;              // its distinctive mDNS host name, or empty
    DhcpFingerprint fingerprint;
    std::int64_t seen = 0;  // wall-clock seconds, renewed once a day
};

// What a client showed with its current MAC, to be remembered of the device it is.
struct ClientTraits {
    std::vector<std::string> ids;
    std::string host;  // distinctive forms, empty when none
    std::string mdns;
    DhcpFingerprint fingerprint;  // unknown leaves the remembered one
};

class ClientHistory {
public:
    static constexpr std::size_t kMaxClients = 512;
    static constexpr std::size_t kMaxAliases = 8;
    static constexpr std::size_t kMaxIds = 4;
    static constexpr std::size_t kMaxIdBytes = 64;

    // Reads the stored history; an unreadable one starts empty.
    void load(std::int64_t now);
    // Writes it back when it changed since the last load or save.
    void save();

    // The client reported under `mac`, or found to be it; null when none.
    const KnownClient* find(const sockutl::macaddr& mac) const;
    // The client that came with this identifier or DUID.
    const KnownClient* find_id(const std::string& id) const;
    const std::map<sockutl::macaddr, KnownClient>& clients() const { return clients_; }

    // A new client, reported under its own MAC. The least recently seen one makes room.
    void add(const sockutl::macaddr& mac, std::int64_t now);
    // `alias` is a randomised MAC of the client reported under `mac`.
    void add_alias(const sockutl::macaddr& mac, const sockutl::macaddr& alias);
    // Remembers what the client showed. An identifier another client holds stays that one's,
    // unless `take_ids` (a new network card of the same client).
    void learn(const sockutl::macaddr& mac, const ClientTraits& traits, std::int64_t now,
               bool take_ids = false);

private:
    void evict_oldest();
    void forget(const KnownClient& client);
    void add_id(KnownClient& client, const std::string& id, bool take);
    void load_former(std::int64_t now);

    std::map<sockutl::macaddr, KnownClient> clients_;
    std::map<sockutl::macaddr, sockutl::macaddr> alias_of_;  // alias to the client's MAC
    std::map<std::string, sockutl::macaddr> id_of_;          // identity to the client's MAC
    bool dirty_ = false;
    int save_error_ = 0;  // of the last failed save, 0 after a good one
};

bool is_locally_administered(const sockutl::macaddr& mac);

}  // namespace nk::collector

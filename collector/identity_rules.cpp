#include "identity_rules.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "lease.h"

namespace nk::collector {

namespace {

constexpr std::uint8_t kHardwareEthernet = 1;
constexpr std::size_t kMacSize = 6;

struct Evidence {
    sockutl::macaddr device;
    std::string what;
};

void by_identifiers(const Sighting& s, const ClientHistory& history, std::vector<Evidence>& out) {
    for (const std::string& id : s.ids) {
        const sockutl::macaddr named = mac_in_identifier(id);
        // Made of the new MAC: it changes with the MAC and tells nothing more.
        if (id.empty() || named == s.mac)
            continue;
        // The client that last came with the identifier holds it, even one made of another
        // client's MAC: a new network card takes its client's identifiers over.
        const std::string identity = client_identity(id);
        if (const KnownClient* c = history.find_id(identity))
            out.push_back({c->mac, fmt::format("identifier {:s}", hex_text(identity))});
        else if (const KnownClient* c = named.is_valid() ? history.find(named) : nullptr)
            out.push_back({c->mac, fmt::format("identifier made of its MAC {}", named)});
    }
}

void by_name(const Sighting& s, const ClientHistory& history, std::string KnownClient::*field,
             const std::string& name, const char* what, std::vector<Evidence>& out) {
    if (name.empty() || !s.fingerprint.known())
        return;
    for (const auto& [mac, c] : history.clients()) {
        if (c.*field == name && c.fingerprint == s.fingerprint)
            out.push_back({mac, fmt::format("{:s} '{:s}' and DHCP fingerprint", what, name)});
    }
}

Verdict verdict(Verdict::Kind kind, const sockutl::macaddr& device, std::string why) {
    return Verdict{kind, device, std::move(why)};
}

// Same, unless one of the device's MACs is (or may be) on the LAN.
Verdict unless_present(const KnownClient& device, const Sighting& s, const PresenceOf& presence,
                       std::string why) {
    std::vector<sockutl::macaddr> macs = device.aliases;
    macs.push_back(device.mac);
    const sockutl::macaddr* unknown = nullptr;
    for (const sockutl::macaddr& mac : macs) {
        if (mac == s.mac)
            continue;
        const Presence p = presence(mac);
        if (p == Presence::Here && mac == device.mac)
            return verdict(Verdict::Kind::New, {},
                           fmt::format("{:s}, but {} is on the LAN too", why, mac));
        if (p == Presence::Here)
            return verdict(
                Verdict::Kind::New, {},
                fmt::format("{:s}, but {}'s MAC {} is on the LAN too", why, device.mac, mac));
        if (p == Presence::Unknown && unknown == nullptr)
            unknown = &mac;
    }
    if (unknown != nullptr) {
        return verdict(Verdict::Kind::Wait, device.mac,
                       fmt::format("{:s}; checking that {} has left", why, *unknown));
    }
    return verdict(Verdict::Kind::Same, device.mac, std::move(why));
}

}  // namespace

sockutl::macaddr mac_in_identifier(const std::string& id) {
    if (id.size() == 1 + kMacSize && id[0] == kHardwareEthernet) {
        std::array<std::uint8_t, kMacSize> mac{};
        std::copy(id.begin() + 1, id.end(), mac.begin());
        return sockutl::macaddr(mac);
    }
    return duid_mac(client_identity(id));
}

Verdict judge(const Sighting& s, const ClientHistory& history, const PresenceOf& presence) {
    if (!is_locally_administered(s.mac))
        return verdict(Verdict::Kind::New, {}, "a universal MAC is a network card of its own");
    std::vector<Evidence> evidence;
    by_identifiers(s, history, evidence);
    by_name(s, history, &KnownClient::host, s.host, "host name", evidence);
    by_name(s, history, &KnownClient::mdns, s.mdns, "mDNS name", evidence);
    // Without its fingerprint neither a name can count nor a different fingerprint stop a merge.
    if (s.request_pending)
        return verdict(Verdict::Kind::Wait, {}, "its DHCP request is not read yet");
    if (evidence.empty())
        return verdict(Verdict::Kind::New, {}, "no earlier device matches");
    const sockutl::macaddr device = evidence.front().device;
    std::string why = evidence.front().what;
    for (const Evidence& e : evidence) {
        if (e.device != device) {
            return verdict(Verdict::Kind::New, {},
                           fmt::format("the evidence names {} ({:s}) and {} ({:s})", device, why,
                                       e.device, e.what));
        }
        if (why.find(e.what) == std::string::npos)
            why += ", " + e.what;
    }
    const KnownClient& known = *history.find(device);
    if (s.fingerprint.known() && known.fingerprint.known() && s.fingerprint != known.fingerprint) {
        return verdict(
            Verdict::Kind::New, {},
            fmt::format("{:s}, but its DHCP fingerprint differs from {}'s", why, device));
    }
    return unless_present(known, s, presence, std::move(why));
}

}  // namespace nk::collector

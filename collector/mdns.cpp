#include "mdns.h"

#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <nk/log.h>

#include "printable.h"

namespace nk::collector {

namespace {

// While no D-Bus system bus answers at all, avahi-client cannot even wait for the daemon.
constexpr std::chrono::seconds kRetryBus{30};

void client_cb(AvahiClient* client, AvahiClientState state, void* self) {
    static_cast<MdnsBrowser*>(self)->on_client(client, state);
}

void type_cb(AvahiServiceTypeBrowser* /*b*/, AvahiIfIndex iface, AvahiProtocol protocol,
             AvahiBrowserEvent event, const char* type, const char* domain,
             AvahiLookupResultFlags /*flags*/, void* self) {
    static_cast<MdnsBrowser*>(self)->on_type(iface, protocol, event, type, domain);
}

void service_cb(AvahiServiceBrowser* /*b*/, AvahiIfIndex iface, AvahiProtocol protocol,
                AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                AvahiLookupResultFlags flags, void* self) {
    static_cast<MdnsBrowser*>(self)->on_service(iface, protocol, event, name, type, domain, flags);
}

void resolve_cb(AvahiServiceResolver* r, AvahiIfIndex /*iface*/, AvahiProtocol /*protocol*/,
                AvahiResolverEvent event, const char* name, const char* type,
                const char* /*domain*/, const char* host, const AvahiAddress* address,
                std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags flags,
                void* self) {
    static_cast<MdnsBrowser*>(self)->on_resolved(r, event, name, type, host, address, port, txt,
                                                 flags);
}

std::string safe(const char* text) {
    return text != nullptr ? std::string(text) : std::string();
}

// The TXT record as avahi-browse shows it: "key=value" strings in quotes, bytes escaped.
std::string txt_text(AvahiStringList* txt) {
    char* raw = avahi_string_list_to_string(txt);
    const std::string text = safe(raw);
    avahi_free(raw);
    return text;
}

}  // namespace

MdnsBrowser::MdnsBrowser(EventLoop& loop, Report report)
    : loop_(loop), report_(std::move(report)), poll_(loop) {}

MdnsBrowser::~MdnsBrowser() {
    loop_.cancel_timer(reconnect_);
    drop_browsers();
    client_.reset();
}

void MdnsBrowser::set_interfaces(const std::set<int>& indexes) {
    interfaces_ = indexes;
    if (running_)
        browse();
    else if (!client_ && reconnect_ == 0 && !interfaces_.empty())
        connect();
}

void MdnsBrowser::connect() {
    reconnect_ = 0;
    drop_browsers();
    client_.reset();
    raw_ = nullptr;
    running_ = false;
    int error = 0;
    // NO_FAIL: without avahi-daemon the client waits for it to appear on the bus.
    client_.reset(avahi_client_new(poll_.api(), AVAHI_CLIENT_NO_FAIL, client_cb, this, &error));
    if (!client_) {
        if (!said_unreachable_) {
            NK_LOG(nk::log::WARN,
                   "no avahi-daemon reachable ({:s}): mDNS services unknown until "
                   "it is",
                   avahi_strerror(error));
            said_unreachable_ = true;
        }
        reconnect_in(kRetryBus);
    }
}

void MdnsBrowser::reconnect_in(std::chrono::seconds delay) {
    loop_.cancel_timer(reconnect_);
    reconnect_ = loop_.add_timer(Clock::now() + delay, [this]() { connect(); });
}

void MdnsBrowser::on_client(AvahiClient* client, AvahiClientState state) {
    raw_ = client;
    switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            if (!running_)
                NK_LOG(nk::log::INFO, "avahi-daemon reachable: browsing mDNS services");
            running_ = true;
            said_unreachable_ = false;
            browse();
            break;
        case AVAHI_CLIENT_CONNECTING:
            running_ = false;
            drop_browsers();
            if (!said_unreachable_) {
                NK_LOG(nk::log::WARN,
                       "no avahi-daemon reachable: mDNS services unknown until it is");
                said_unreachable_ = true;
            }
            break;
        case AVAHI_CLIENT_FAILURE: {
            // The daemon went away: the client is dead and is made anew, outside its callback.
            const int error = avahi_client_errno(client);
            NK_LOG(nk::log::WARN, "avahi-daemon lost ({:s}): waiting for it",
                   avahi_strerror(error));
            said_unreachable_ = true;
            running_ = false;
            reconnect_in(std::chrono::seconds(error == AVAHI_ERR_DISCONNECTED ? 0 : 30));
            break;
        }
        default:
            break;
    }
}

void MdnsBrowser::browse() {
    for (auto it = type_browsers_.begin(); it != type_browsers_.end();) {
        if (interfaces_.count(it->first) == 0)
            it = type_browsers_.erase(it);
        else
            ++it;
    }
    for (const int index : interfaces_) {
        if (type_browsers_.count(index) != 0)
            continue;
        AvahiServiceTypeBrowser* const b =
            avahi_service_type_browser_new(raw_, index, AVAHI_PROTO_UNSPEC, nullptr,
                                           static_cast<AvahiLookupFlags>(0), type_cb, this);
        if (b == nullptr) {
            NK_LOG(nk::log::ERROR, "cannot browse mDNS service types on interface {:d}: {:s}",
                   index, avahi_strerror(avahi_client_errno(raw_)));
            continue;
        }
        type_browsers_[index].reset(b);
    }
}

void MdnsBrowser::drop_browsers() {
    resolver_keys_.clear();
    services_.clear();
    browsers_.clear();
    type_browsers_.clear();
}

void MdnsBrowser::on_type(AvahiIfIndex iface, AvahiProtocol protocol, AvahiBrowserEvent event,
                          const char* type, const char* domain) {
    if (event == AVAHI_BROWSER_FAILURE) {
        NK_LOG(nk::log::ERROR, "mDNS type browser failed: {:s}",
               avahi_strerror(avahi_client_errno(raw_)));
        return;
    }
    const TypeKey key{iface, protocol, safe(type), safe(domain)};
    if (event == AVAHI_BROWSER_REMOVE) {
        browsers_.erase(key);
        return;
    }
    if (event != AVAHI_BROWSER_NEW || browsers_.count(key) != 0)
        return;
    if (browsers_.size() >= kMaxTypes) {
        if (!said_full_)
            NK_LOG(nk::log::WARN, "mDNS type {:s} skipped: {:d} types followed already",
                   printable(safe(type)), kMaxTypes);
        said_full_ = true;
        return;
    }
    AvahiServiceBrowser* const b = avahi_service_browser_new(
        raw_, iface, protocol, type, domain, static_cast<AvahiLookupFlags>(0), service_cb, this);
    if (b != nullptr)
        browsers_[key].reset(b);
}

void MdnsBrowser::on_service(AvahiIfIndex iface, AvahiProtocol protocol, AvahiBrowserEvent event,
                             const char* name, const char* type, const char* domain,
                             AvahiLookupResultFlags flags) {
    if (event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_REMOVE)
        return;
    // The BOX's own services are no device's.
    if ((flags & AVAHI_LOOKUP_RESULT_LOCAL) != 0)
        return;
    const ServiceKey key{iface, safe(name), safe(type), safe(domain)};
    auto found = services_.find(key);
    if (event == AVAHI_BROWSER_REMOVE) {
        if (found == services_.end())
            return;
        const auto r = found->second.resolvers.find(protocol);
        if (r != found->second.resolvers.end()) {
            resolver_keys_.erase(r->second.get());
            found->second.resolvers.erase(r);
        }
        found->second.resolved.erase(protocol);
        if (found->second.resolvers.empty())
            services_.erase(found);
        return;
    }
    if (found == services_.end() && services_.size() >= kMaxServices) {
        if (!said_full_)
            NK_LOG(nk::log::WARN, "mDNS service {:s} skipped: {:d} services followed already",
                   printable(key_text(key)), kMaxServices);
        said_full_ = true;
        return;
    }
    Service& service = services_[key];
    if (service.resolvers.count(protocol) != 0)
        return;
    // Kept after it resolves: it then reports every change of the instance.
    AvahiServiceResolver* const r =
        avahi_service_resolver_new(raw_, iface, protocol, name, type, domain, protocol,
                                   static_cast<AvahiLookupFlags>(0), resolve_cb, this);
    if (r == nullptr) {
        NK_LOG(nk::log::DEBUG, "cannot resolve mDNS service {:s}: {:s}", printable(key_text(key)),
               avahi_strerror(avahi_client_errno(raw_)));
        if (service.resolvers.empty())
            services_.erase(key);
        return;
    }
    service.resolvers[protocol].reset(r);
    resolver_keys_[r] = key;
}

void MdnsBrowser::on_resolved(AvahiServiceResolver* resolver, AvahiResolverEvent event,
                              const char* name, const char* type, const char* host,
                              const AvahiAddress* address, std::uint16_t port, AvahiStringList* txt,
                              AvahiLookupResultFlags flags) {
    const auto k = resolver_keys_.find(resolver);
    if (k == resolver_keys_.end())
        return;
    const ServiceKey key = k->second;
    Service& service = services_.at(key);
    int protocol = -1;
    for (const auto& [p, r] : service.resolvers) {
        if (r.get() == resolver)
            protocol = p;
    }
    if (event != AVAHI_RESOLVER_FOUND) {
        NK_LOG(nk::log::DEBUG, "mDNS service '{:s}' of type {:s} not resolved: {:s}",
               printable(safe(name)), printable(safe(type)),
               avahi_strerror(avahi_client_errno(raw_)));
        // A failed resolver is done; freeing it in its own callback is allowed.
        resolver_keys_.erase(k);
        service.resolvers.erase(protocol);
        if (service.resolvers.empty())
            services_.erase(key);
        return;
    }
    if ((flags & AVAHI_LOOKUP_RESULT_LOCAL) != 0 || address == nullptr)
        return;
    char ip[AVAHI_ADDRESS_STR_MAX] = {};
    avahi_address_snprint(ip, sizeof ip, address);
    service.resolved[protocol] = Resolved{safe(host), txt_text(txt), port, ip};
    report(key, service);
}

void MdnsBrowser::report(const ServiceKey& key, const Service& service) {
    std::set<std::string> ips;
    for (const auto& [protocol, r] : service.resolved)
        ips.insert(r.address);
    // Host, TXT and port as IPv4 resolved them, else as IPv6 did: the same instance.
    const auto v4 = service.resolved.find(AVAHI_PROTO_INET);
    const Resolved& r =
        v4 != service.resolved.end() ? v4->second : service.resolved.begin()->second;
    MdnsService out{{ips.begin(), ips.end()}, std::get<2>(key), r.host, r.text, r.port};
    report_(key_text(key), out);
}

std::string MdnsBrowser::key_text(const ServiceKey& key) {
    return std::to_string(std::get<0>(key)) + " " + std::get<1>(key) + "." + std::get<2>(key) +
           "." + std::get<3>(key);
}

}  // namespace nk::collector

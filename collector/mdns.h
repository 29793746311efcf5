// mDNS/DNS-SD through the system's avahi-daemon (avahi-client over D-Bus): every service type
// announced on the LAN interfaces is browsed and each instance resolved, and kept resolved so
// that a change of its addresses, TXT record or port is reported again.
#pragma once

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>

#include "avahi_poll.h"
#include "event_loop.h"
#include "service_messages.h"

namespace nk::collector {

class MdnsBrowser {
public:
    using Report = std::function<void(const std::string& key, const MdnsService& service)>;

    // Services beyond these bounds are not followed (logged once).
    static constexpr std::size_t kMaxTypes = 128;
    static constexpr std::size_t kMaxServices = 512;

    MdnsBrowser(EventLoop& loop, Report report);
    ~MdnsBrowser();
    MdnsBrowser(const MdnsBrowser&) = delete;
    MdnsBrowser& operator=(const MdnsBrowser&) = delete;

    // Connects (or waits for avahi-daemon to appear) and browses the interfaces given by index;
    // called again when they change.
    void set_interfaces(const std::set<int>& indexes);

    // For the C callbacks only.
    void on_client(AvahiClient* client, AvahiClientState state);
    void on_type(AvahiIfIndex iface, AvahiProtocol protocol, AvahiBrowserEvent event,
                 const char* type, const char* domain);
    void on_service(AvahiIfIndex iface, AvahiProtocol protocol, AvahiBrowserEvent event,
                    const char* name, const char* type, const char* domain,
                    AvahiLookupResultFlags flags);
    void on_resolved(AvahiServiceResolver* resolver, AvahiResolverEvent event, const char* name,
                     const char* type, const char* host, const AvahiAddress* address,
                     std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags flags);

private:
    struct ClientFree {
        void operator()(AvahiClient* c) const { avahi_client_free(c); }
    };
    struct TypeBrowserFree {
        void operator()(AvahiServiceTypeBrowser* b) const { avahi_service_type_browser_free(b); }
    };
    struct BrowserFree {
        void operator()(AvahiServiceBrowser* b) const { avahi_service_browser_free(b); }
    };
    struct ResolverFree {
        void operator()(AvahiServiceResolver* r) const { avahi_service_resolver_free(r); }
    };
    // Interface, protocol, type, domain.
    using TypeKey = std::tuple<int, int, std::string, std::string>;
    // Interface, name, type, domain: one instance, whichever protocols it is seen on.
    using ServiceKey = std::tuple<int, std::string, std::string, std::string>;
    struct Resolved {
        std::string host;
        std::string text;
        int port = 0;
        std::string address;
    };
    struct Service {
        std::map<int, std::unique_ptr<AvahiServiceResolver, ResolverFree>> resolvers;  // protocol
        std::map<int, Resolved> resolved;                                              // protocol
    };

    void connect();
    void reconnect_in(std::chrono::seconds delay);
    void browse();
    void drop_browsers();
    void report(const ServiceKey& key, const Service& service);
    static std::string key_text(const ServiceKey& key);

    EventLoop& loop_;
    Report report_;
    AvahiLoopPoll poll_;
    std::set<int> interfaces_;
    std::unique_ptr<AvahiClient, ClientFree> client_;
    AvahiClient* raw_ =
        nullptr;  // the client its callbacks name, set before avahi_client_new returns
    bool running_ = false;
    bool said_unreachable_ = false;
    bool said_full_ = false;
    EventLoop::Id reconnect_ = 0;
    std::map<int, std::unique_ptr<AvahiServiceTypeBrowser, TypeBrowserFree>> type_browsers_;
    std::map<TypeKey, std::unique_ptr<AvahiServiceBrowser, BrowserFree>> browsers_;
    std::map<ServiceKey, Service> services_;
    std::map<AvahiServiceResolver*, ServiceKey> resolver_keys_;
};

}  // namespace nk::collector

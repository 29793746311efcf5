#include "additional_info.h"

// Submission needs the expiring caches and the inventory; until then there is nothing to send.
void retry_user_agents() {}
void retry_fingerprints() {}
void process_avahi_services() {}
void process_upnp_devices() {}
void process_netbios_devices() {}
void reset_service_info(ServiceInfoKind /*kind*/) {}

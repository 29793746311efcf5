#include "event_processors.h"

// Each processor drains its queue once the inventory it changes exists.
void process_device_id_requests() {}
void process_sifter_user_agents() {}
void process_dhcp_results() {}
void process_removed_devices() {}
void process_new_devices() {}
void process_changed_devices() {}
void process_pending_devices() {}

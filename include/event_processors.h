// Queue processors: turn the work queued by the bus handlers into inventory changes.
// They run on the main loop, in the order the event pipe handler calls them.
#pragma once

// The device-id requests' processor is process_device_id_requests (device_id_answers.h): the
// answers given while the loop waits on the cloud use it too.

void process_sifter_user_agents();
void process_dhcp_results();
void process_removed_devices();
void process_new_devices();
void process_changed_devices();
void process_pending_devices();

// The event pipe became readable: drains it, then runs the processors in their fixed order.
// Device-id requests and user agents wait for the first lease table.
void process_event_pipe();

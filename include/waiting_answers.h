// Device-id requests answered while the main loop waits on a synchronous cloud request. A
// silent cloud holds such a request for the bus's time-out, which is also the askers' own, so
// every request queued behind it would go unanswered.
#pragma once

// The descriptor the device-id handler signals beside the event pipe; made before the bus
// opens, closed after it is closed. False when it could not be made.
bool open_device_id_wake();
void close_device_id_wake();
// From the bus thread, once a request is queued.
void signal_device_id_request();
// Hands the descriptor to the daemon's bus connection.
void serve_device_ids_while_waiting();
// The loop answers only while it is active; so does the wait.
void set_answering_while_waiting(bool active);
// Until the loop is active and has its first lease table, requests for the devices the store
// knows are answered from it, on this descriptor.
int device_id_wake_fd();
// Drains the descriptor and answers what the phase allows.
void answer_device_id_requests_now();
// Between two registrations of a pass: a pass that registers hundreds of clients would
// otherwise hold every answer until its end.
void answer_between_registrations();

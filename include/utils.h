// Identity messages on the bus and the cloud request layer.
#pragma once

// Tells every daemon to forget the device ids it cached (temporary ids restart).
void send_clear_device_id_cache_message();

// Onbox reports to the cloud: which devices this BOX manages, with their guest status and
// addresses. The per-device members are Device::handle_onbox_info and send_onbox_to_cloud.
#pragma once

// Sends the onbox reports held back as too soon whose pause is over; run by the loop.
void report_deferred_onbox();

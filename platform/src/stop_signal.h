// The daemon frame's stop pipe, seen by the platform's own blocking waits so that a stop
// never waits behind a silent peer.
#pragma once

namespace nk::daemon::detail {

// The read end of the stop pipe: readable once a stop signal arrived. -1 without a frame.
int stop_fd();

}  // namespace nk::daemon::detail

// Backend selection, done once by main() from the environment:
//   AFD_CLOCK=virtual     virtual clock (frames stamped by the virtual camera drive time);
//                         AFD_VCLOCK_FILE names the page where the current virtual time is shared
//   AFD_SIM_SOCKET=path   SPI and GPIO forwarded to the virtual camera over this Unix socket
// Without them the board's backends are used (real clock, spidev, vendor GPIO device).
#pragma once

namespace platform {

// Returns 0, or -1 when a requested simulation backend could not be set up (the message says
// which); the daemon then runs with the board's backend for that seam.
int select_backends_from_env();

}  // namespace platform

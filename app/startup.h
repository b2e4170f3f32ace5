// Start-up of the daemon and the entry of the afd executable.
#pragma once

#include <cstdint>

// ISP index chosen on the command line ("isp0"/"isp1"). Kept for the control software's
// benefit; the ISP connection is the same for both.
uint8_t get_isp_index();

// Scans the command line from argv[1]: "isp0", "isp1", "spi" N (N with atoi semantics, sets the
// MS41908 bus number). Unknown words are ignored; a trailing "spi" with no number is ignored.
void parse_command_line(int argc, char** argv);

// Hands the lower modules the operations of higher ones they call back: the iris its brightness
// source (the ISP link's exposure luma), autofocus the command channel's position publishing.
void connect_modules();

// SIGQUIT handler: reports the signal and lets the daemon run on.
void HandleExitSig(int signo);

// The whole daemon: start-up, then the frame loop for ever. Returns -1 only when the command
// thread cannot be started.
int afd_main(int argc, char** argv);

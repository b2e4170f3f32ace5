// Tuning TCP server for the desktop tuning tool.
//
// A lens engineer tuning the autofocus on a live camera wants to see the ISP's per-block
// statistics, try other AF filter parameters and read the focus position without stopping the
// daemon. The server does that over TCP, but only on a camera that has been switched into tuning:
// the win_socket thread waits until the switch file /dev/af_debug exists (checked once a second;
// it may appear at any time after start-up) and only then listens, on port 1207
// (AFD_TUNING_BIND / AFD_TUNING_PORT move it; see platform/ports.h). Removing the file later does
// not stop a server that is already listening.
//
// Up to five clients are served at once, each by its own recv_win_data thread; a sixth waits in
// the listen queue until a slot frees. Every request is 24 bytes, little-endian:
//   0 u32 command   4 u32 flag   8 s16 p0   10 s16 p1   12 s16 p2   14 s16 p3
//   16 u16 p4   18 u16 p5   20 reserved (4 bytes)
// Commands:
//   0  accepted, no effect, no reply
//   1  grid request, selector p0 (0 sharp_v, 1 sharp_h, 2 iir1, 3 fir_v, 4 iir2, 5 fir_h,
//      6 luma, 7 highlight): the statistics of the current frame are fetched as the autofocus
//      does (mode 1), the 15 x 15 grid of u32 is mirrored left to right (the tool shows the
//      picture as the viewer sees it) and sent to EVERY connected client as a 24-byte header
//      {u32 2, u32 900, 16 zero bytes} followed by the 900 bytes. Another selector: no reply.
//   2  set_filter_param(A = low byte of p4, B = low byte of p5, C = p0, D = p1), no reply
//   3  autofocus status, to the requester: header {u32 3, u32 16, 16 zero bytes}, then
//        0 u8 AF state (0 start, 1 searching, 2 focused)   1 u8 search phase (1 coarse, 2 climb,
//        3 fine, 4 final, 8 region, 9 finished)   2 u8 search direction (1 nearer, 2 farther)
//        3 u8 autofocus mode (0 off, 1..3)   4 u32 focus value of the last AF frame
//        8 u16 zoom position   10 u16 focus position   12 u16 iris value
//        14 u8 iris mode (1 automatic)   15 u8 calibration mode (0 none)
//      Nothing else on the camera provides this result; the record is this daemon's answer.
//   4  flag 1: 24 bytes to the requester, u32 4, u16 focus position, 18 zero bytes;
//      any other flag: no reply
//   other commands are ignored (logged), no reply.
//
// Robustness: a request is read until all 24 bytes have arrived (TCP may split it); a client that
// disconnects part-way through a request has the partial request dropped and its slot freed. The
// transfers to one client never interleave (one send lock per client), and a client that stops
// reading is disconnected after a send timeout (2 s) instead of holding up the other clients'
// threads.
// Malformed requests are logged (rate-limited) and never end the server.
#pragma once

#include <cstdint>

// Starts the win_socket thread. Returns 0, or non-zero when it cannot be created.
int win_socket_start();

// TCP port the server listens on; 0 while it is not listening (before the switch file appears,
// after a set-up or accept failure).
uint16_t tuning_server_port();

// Number of client slots in use (0..5).
int tuning_clients_in_use();

// Tests: the interval of the switch-file and free-slot polls (default one second).
void tuning_set_poll_us_for_testing(uint32_t us);
// Tests: ends the server as an accept failure would, disconnects its clients and waits until
// every thread of the server has ended, so that the next test can start a fresh one.
void tuning_server_stop_for_testing();

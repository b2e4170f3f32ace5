// Command channel. The camera's control software steers the lens with small UDP datagrams: read
// requests ("r"/"R" + id) are answered to the reply port (127.0.0.1:7000 by default), write
// commands ("w"/"W" + id + payload) change flags and records that the frame loop reads on its next
// iteration. The Message_Process thread receives and executes them; the frame loop publishes the
// lens positions every frame into /dev/sm_af_zoom_focus_value and reports the end of every motion.
//
// Shared state is single bytes, halfwords and words written by one thread and read by the other;
// the frame loop takes a copy of the MotionCommand before using it.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "base/command_state.h"
#include "command/motion_command.h"

// ---- Start-up and the thread ----

// Opens the reply socket (unbound) and the command socket (bound to the command port).
void command_sockets_open();
// Port the command socket is bound to (0 when it is not open).
uint16_t command_get_port();
// Command-state initialisation: defaults, version and offset files; marks a zoom motion active.
void command_state_init();
// Starts the Message_Process thread. 0, or non-zero when it cannot be created.
int command_thread_start();
// Executes one received datagram as the thread does (from = its sender).
void command_process_datagram(const uint8_t* data, size_t len, const sockaddr_in& from);

// ---- Frame loop ----

// Publishes the positions (first call creates and maps the device) and sends the end-of-motion
// report when the zoom-motion-active flag has fallen since the previous call.
void command_publish_positions();

// ---- Motion and modes ----
// The modes, flags and electronic zoom that lower modules read are in base/command_state.h.

MotionCommand command_motion_copy();
// Zone type 4 requested (the zone type is then 3 with this flag set).
uint8_t command_zone_type4();

// ---- Status ----

void command_set_homing_error(uint8_t error);
uint8_t command_homing_error();
// The 128-byte status text is in base/command_state.h (the calibrations write it too).

// Angle of view in degrees at zoom position z (from the field-of-view table).
float command_angle_of_view(uint16_t z);

// Zoom target of the last mode-1 command (-1 when none).
int32_t command_saved_zoom_target();

// Command channel: sockets, the Message_Process thread, command records and modes, and the
// published position record.
#pragma once

#include <cstdint>

#include "command/motion_command.h"

// Opens the reply and command sockets.
void command_sockets_open();
// Command-state initialisation (defaults; marks the start-up zoom motion active).
void command_state_init();
// Starts the Message_Process thread. Returns 0, or non-zero when it cannot be created.
int command_thread_start();

// Zoom-motion-active flag (written by the command thread and the motion executor).
uint8_t command_zoom_motion_active();
void command_set_zoom_motion_active(uint8_t on);
// Copy of the current MotionCommand.
MotionCommand command_motion_copy();

// Calibration mode (0 none, 1 curve calibration, 4 iris correction, 5 hall calibration, ...).
uint8_t command_calibration_mode();
void command_set_calibration_mode(uint8_t mode);

// Autofocus mode (autofocus_en): 0 off, 1 continuous, 2 once and hold, 3 single search.
uint8_t command_autofocus_mode();
void command_set_autofocus_mode(uint8_t mode);

// Homing status `error` reported to the control software.
void command_set_homing_error(uint8_t error);
uint8_t command_homing_error();

// 128-byte status text.
void command_set_status_text(const char* text);
const char* command_status_text();

// Publishes the zoom and focus positions (position device, every frame).
void command_publish_positions();

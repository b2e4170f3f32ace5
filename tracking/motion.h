// Execution of motion commands. The control software asks for zoom and focus motions (zoom in a
// direction, zoom to a target, focus in a direction or to a target, both together); the frame loop
// runs motion_execute once per processed frame with a copy of the current command, and each call
// moves the lens by at most one frame's worth. The call that finds the motion complete clears the
// zoom-motion-active flag (and still takes its last step). Zoom beyond the optical maximum goes on
// as electronic zoom.
#pragma once

#include <cstdint>

#include "data/command_wire.h"

void motion_execute(const MotionCommand& cmd);

// One electronic zoom step of 8: kind 0 in, 1 out, 2 in towards the command's electronic zoom
// target (reaching it ends the motion), 3 out towards it.
void ezoom_step(uint8_t kind, const MotionCommand& cmd);

// 1 right after a tracking zoom reached the optical maximum: the next call only clears it, so
// the picture settles before electronic zoom starts.
uint8_t motion_tele_latch();
void motion_reset_for_testing();

// Zoom move with focus tracking. A zoom lens loses focus as it zooms; for an object at a given
// distance the sharp focus position follows one of the zoom-focus curves. At the start of a zoom
// the curve through the current focus position is picked, and every frame the zoom moves by the
// commanded speed while the focus moves onto that curve's value at the new zoom position. While
// autofocus is on, the move also probes the neighbouring curves (a little nearer, a little
// farther) and re-centres on whichever gives the sharper centre, so a zoom that started slightly
// out of focus converges on the object instead of carrying the error along.
#pragma once

#include <cstdint>

// One frame's worth of a tracked zoom move: direction 1 raises the zoom position, 0 lowers it;
// speed 1..8 through the zoom speed table, 0 takes `fallback` as the step count, above 8 gives
// 60. Returns 1 when a move was issued, 0 at an end or on a reversal (which costs one frame).
uint8_t zoom_track_step(uint8_t direction, uint8_t speed, uint8_t fallback);

// Forgets the tracking set-up (end of a motion, focus-only commands, autofocus).
void zoom_track_clear_active();
uint8_t zoom_track_is_active();
// Focus trim (signed) learned near the wide end from the curve anchor, added to the focus
// position when a curve is searched and followed.
int8_t zoom_track_get_trim();

// Curves in use (for telemetry and tests).
uint8_t zoom_track_current_curve();
uint8_t zoom_track_move_curve();
uint8_t zoom_track_start_curve();

// Back to the power-on state (tests).
void zoom_track_reset_for_testing();

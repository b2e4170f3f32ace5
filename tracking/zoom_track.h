// Zoom move with focus tracking: while the zoom moves, the focus follows the zoom-focus curve of
// the object in focus.
#pragma once

#include <cstdint>

// One frame's worth of a tracked zoom move. 1 when a move was issued.
uint8_t zoom_track_step(uint8_t direction, uint8_t speed, uint8_t fallback);
// Forgets the tracking set-up (end of a motion, focus-only commands, autofocus).
void zoom_track_clear_active();
uint8_t zoom_track_is_active();
// Focus trim (signed) learned at the wide end, added when a curve is searched and followed.
int8_t zoom_track_get_trim();

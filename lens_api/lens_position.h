// Lens positions, bounds and moves. The motors have no encoders: the daemon knows where the zoom
// and focus lenses stand only by counting every step it commands from the home positions found at
// start-up. Every movement of the system passes through lens_move, which keeps the counts within
// their bounds and adds the backlash when a motor reverses (the gear train has play, so the first
// steps after a reversal do not move the lens).
#pragma once

#include <cstdint>

// Zoom count after a successful homing, and the mechanical travel limit for calibration moves.
inline constexpr uint16_t kZoomTravelLimit = 6624;

// Result of lens_move when the driver could not start a channel's move (its start/busy signal
// stuck): that channel's count stays where it was, since the motor did not turn.
inline constexpr uint8_t kMoveDropped = 2;

// Moves zoom and focus together. Zoom directions: 0 down to the zoom minimum, 1 up to the zoom
// maximum, 2 down to 0, 3 up to 6624. Focus directions: 0 down to the focus minimum, 1 up to the
// focus maximum, 2 down to 0, 3 up to the focus ceiling. At most 80 steps per channel. Returns 0
// when the move was issued, 1 when there was nothing to do or a direction was unknown (nothing
// moves), kMoveDropped when the driver dropped a channel's move (the counts follow only what
// the driver started).
uint8_t lens_move(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps);

// Applies the loaded lens parameter record to the bounds (start-up).
void lens_apply_parameters();

uint16_t lens_get_zoom_pos();
// Step-counted focus position (never negative: every move is clamped at 0).
uint16_t lens_get_focus_pos();
// Homing sets the counts: both 0 after a failure, zoom 6378 and the focus home after success.
void lens_set_positions(uint16_t zoom, uint16_t focus);
// Forgets the remembered motor directions (after homing both motors end in a known direction).
void lens_clear_directions();

uint16_t lens_get_zoom_min();
uint16_t lens_get_zoom_max();
// 0, or 1 (nothing changes) above 6624. Also stores lens parameters 8 and 9.
uint8_t lens_set_zoom_max(uint16_t value);
// 0, or 1 (nothing changes) above the zoom maximum. Also stores lens parameters 10 and 11.
uint8_t lens_set_zoom_min(uint16_t value);
uint16_t lens_get_focus_min();
uint16_t lens_get_focus_max();
// Focus position assigned when focus homing succeeds (2400 unless the lens parameters say else).
uint16_t lens_get_focus_home();
// Upper bound of focus moves of direction 3.
uint16_t lens_get_focus_ceiling();

// Backlash added on a motor reversal. The setters print the value ("focus offset %d\n",
// "zoom offset %d\n").
void lens_set_focus_backlash(uint16_t steps);
void lens_set_zoom_backlash(uint16_t steps);
uint16_t lens_get_focus_backlash();
uint16_t lens_get_zoom_backlash();

// Zoom steps per frame for a zoom speed 1..8 at the current zoom position (the lens moves fewer
// steps per frame towards the tele end, where a step changes the picture more); speed 0 returns
// the fallback. The first calls also publish the table in /dev/sm_zoom_speed_info.
uint8_t zoom_speed_steps(uint8_t speed, uint8_t fallback);

// Back to the power-on state (tests).
void lens_position_reset_for_testing();

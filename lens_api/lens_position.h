// Lens positions, bounds and moves.
#pragma once

#include <cstdint>

// Applies the loaded lens parameters to the bounds.
void lens_apply_parameters();

// Current zoom position in motor steps (0 until homing has counted it).
uint16_t lens_get_zoom_pos();
// Step-counted focus position; like the zoom count, meaningful only after a successful homing.
uint16_t lens_get_focus_pos();
// Homing sets the counts: both 0 after a failure, zoom 6378 and the focus home after success.
void lens_set_positions(uint16_t zoom, uint16_t focus);
// Forgets the remembered motor directions (after homing both motors end in a known direction).
void lens_clear_directions();
// Focus position assigned when focus homing succeeds (2400 unless the lens parameters say else).
uint16_t lens_get_focus_home();
// Ordinary zoom bounds (0 and the optical maximum 6624 unless the lens parameters say else).
uint16_t lens_get_zoom_min();
uint16_t lens_get_zoom_max();
// Ordinary focus bounds (0 and 6120 unless the lens parameters say else).
uint16_t lens_get_focus_min();
uint16_t lens_get_focus_max();

// Backlash added on a motor reversal, from the calibration-offset file. The setters print the
// value ("focus offset %d\n", "zoom offset %d\n").
void lens_set_focus_backlash(uint8_t steps);
void lens_set_zoom_backlash(uint8_t steps);
uint8_t lens_get_focus_backlash();
uint8_t lens_get_zoom_backlash();

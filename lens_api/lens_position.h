// Lens positions, bounds and moves.
#pragma once

#include <cstdint>

// Applies the loaded lens parameters to the bounds.
void lens_apply_parameters();

// Current zoom position in motor steps (0 until homing has counted it).
uint16_t lens_get_zoom_pos();

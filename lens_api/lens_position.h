// Lens positions, bounds and moves.
#pragma once

// Applies the loaded lens parameters to the bounds.
void lens_apply_parameters();

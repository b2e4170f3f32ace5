// Curve calibration and iris correction, stepped by the frame loop.
#pragma once

#include <cstdint>

// One curve-calibration step (calibration mode 1). Returns 2 when finished.
int curve_calibrate_step();
// Curve calibration variant: 1 measures every zoom step, 0 only the reference point.
void curve_calibration_set_variant(uint8_t full);
uint8_t curve_calibration_get_variant();
// One iris-correction step (calibration mode 4). 0 running, 1 done, 2 failed.
int iris_correct_step(uint8_t run);

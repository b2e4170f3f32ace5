// LC898201 lens-driver chip.
#pragma once

#include <cstdint>

// Alternate servo set-up used when the marker file is present.
void lc_alt_setup();
// Hall-sensor calibration of the iris servo. 0 on success.
int lc_hall_calibrate();
int32_t lc_get_iris_offset();
int32_t lc_get_bias_offset();

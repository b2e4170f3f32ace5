// The two calibrations' parts of calibration_supervise (tracking/ only).
#pragma once

#include <cstdint>

namespace calibration_detail {

// Ends the run when it has been interrupted; see calibration_supervise.
void curve_supervise(uint8_t mode, uint8_t frames_arriving);
void iris_supervise(uint8_t mode, uint8_t frames_arriving);

void curve_reset_for_testing();
void iris_reset_for_testing();

}  // namespace calibration_detail

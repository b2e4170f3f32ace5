#include "tracking/calibration.h"

#include "base/command_state.h"
#include "tracking/calibration_run.h"

void calibration_supervise(uint8_t frames_arriving) {
    const uint8_t mode = command_calibration_mode();
    calibration_detail::curve_supervise(mode, frames_arriving);
    calibration_detail::iris_supervise(mode, frames_arriving);
}

void calibration_reset_for_testing() {
    calibration_detail::curve_reset_for_testing();
    calibration_detail::iris_reset_for_testing();
}

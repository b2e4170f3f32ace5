// MS41908 lens-driver chip.
#pragma once

#include <cstdint>

// Home-sensor supply and test command from the control software (bit 0: 0 zoom, 1 focus).
void ms_sensor_command(uint8_t command);

// Motor-driver operation table and chip detection.
#pragma once

#include <cstdint>

// Detects the chip on the bus and fills the driver table.
void lens_detect_chip();
// Sets up the chip and homes zoom and focus. Bit 0: zoom failed, bit 1: focus failed.
uint8_t lens_motor_init();

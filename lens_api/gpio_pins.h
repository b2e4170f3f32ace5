// GPIO lines of the lens board and the pin file.
#pragma once

// Reads the pin file and opens the GPIO device.
void gpio_load_pins();
// Reset pulse on the driver's reset line.
void gpio_reset_pulse();

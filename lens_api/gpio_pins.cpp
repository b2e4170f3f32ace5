#include "lens_api/gpio_pins.h"

void gpio_load_pins() {}
void gpio_reset_pulse() {}

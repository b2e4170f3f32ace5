#include "lens_api/lens_driver.h"

void lens_detect_chip() {}
uint8_t lens_motor_init() {
    return 0;
}

#include "lens_api/lens_ms.h"

void ms_sensor_command(uint8_t) {}

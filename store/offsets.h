// Calibration-offset file /data/af_data.dat.
#pragma once

#include <cstdint>

// Stores value under key (key text ends in " =").
void offset_save(const char* key, int32_t value);

// Iris control and its shared-memory publication.
#pragma once

#include <cstdint>

void iris_publish_init();
// Drives the iris to value through the chip and publishes it.
void iris_drive_publish(uint16_t value);
void auto_iris_step();

// Iris mode (autoiris_en): non-zero runs the automatic loop.
void iris_set_mode(uint8_t mode);
uint8_t iris_get_mode();
// Drives the iris to the value of F-number step `step` (above 12 counts as 12).
void iris_goto_step(uint8_t step);
// Loads the iris step table from /data/iris_data.dat.
void iris_table_load();
// Day/night record handed over by the command channel (kept, not acted on).
void iris_set_day_night(uint32_t enable, uint32_t upper, uint32_t lower);
// Current iris value.
uint16_t iris_get_value();

// Iris control. The lens's motorised iris is positioned by the driver chip: a Hall-sensor servo
// with values 0..2300 on the LC898201, an iris output 0..1023 on the MS41908; larger values open
// the iris. This module keeps the current iris value, a table of thirteen iris values for the
// F-number steps (step 0 the most open), the iris mode (automatic or a fixed step), a slow
// automatic loop on the image brightness the ISP reports, and the iris state published in
// /dev/sm_af_iris_value for the camera's control software.
#pragma once

#include <cstdint>

inline constexpr uint8_t kIrisSteps = 13;

// The iris value is what the chip was last told to hold, as the chip driver limited it (2300 on
// the LC898201, 1023 on the MS41908): the drivers record it with iris_note_driven when a drive
// reaches the chip. A request that does not reach it (the LC898201's value 0, which only switches
// the servo's drive stage off; the MS41908's drive dropped on a stuck busy line) leaves it as it
// was. The automatic loop, relative iris commands and the published state all work from it.

// Creates and maps the shared device and fills it (start-up).
void iris_publish_init();
// Drives the iris through the chip, then publishes the iris value (offset 2).
void iris_drive_publish(uint16_t value);
// The same; the automatic loop's drive.
void iris_set(uint16_t value);
// Drives the iris to F-number step `step` (above 12 counts as 12).
void iris_goto_step(uint8_t step);
// Chip drivers: the value they have just driven, already limited to the chip's range.
void iris_note_driven(uint16_t value);
// Iris mode (autoiris_en): non-zero runs the automatic loop.
void iris_set_mode(uint8_t mode);
uint8_t iris_get_mode();
void iris_table_set(uint8_t step, uint16_t value);
uint16_t iris_table_get(uint8_t step);
// Table to or from /data/iris_data.dat.
void iris_table_save();
void iris_table_load();
// The MS41908's default table (chip detection picks it).
void iris_use_ms41908_table();
// Publishes zoom position + electronic zoom into the iris device.
void iris_publish_zoom();
// One call of the automatic loop (every sixth frame).
void auto_iris_step();

// Day/night record handed over by the command channel (kept, not acted on: no day/night
// switching runs in this system).
void iris_set_day_night(uint32_t enable, uint32_t upper, uint32_t lower);
// Current iris value: the last value driven, as limited by the chip.
uint16_t iris_get_value();

// Back to the power-on state (tests).
void iris_reset_for_testing();
// Brightness source of the automatic loop: the mean exposure luma (0..255) the ISP reports.
// Start-up installs the ISP link's; nullptr stops the loop.
void iris_set_brightness_source(uint32_t (*source)());

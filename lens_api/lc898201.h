// LC898201 lens controller.
//
// Two stepping-motor channels (zoom at 0x0100, focus at 0x0140), a Hall-sensor servo that holds
// the iris, and a drive output for the filter actuator, all reached through 8- and 32-bit register
// accesses on the LC898201 SPI link. The 32-bit servo registers take IEEE-754 single-precision
// values; the driver writes their bit patterns.
//
// The lens wires each home sensor into the other channel's status register: the zoom sensor is
// bit 4 of 0x014C, the focus sensor bit 4 of 0x010C. The sensors are lit only while the supply
// register 0x01A0 holds 0x11.
//
// Busy waits. The channel start/busy registers read 1 while a move runs, and the driver waits for
// them before every move. A chip that never clears busy would hang the daemon, so every wait is
// bounded: it gives up after kLcBusyWaitLimitUs on the platform clock, or after kLcBusyWaitMaxPolls
// reads if time does not advance. A move whose channel is stuck busy is dropped with a message
// ("... channel busy stuck ..."; repeats are counted, one line every few seconds), reported to the
// position counts (lens_report_dropped), and a homing that meets a stuck channel fails. Once a
// channel has been found stuck, its waits read the flag once until it reads idle again ("...
// channel idle again ..."), so that a dead channel does not cost every frame a two-second wait.
#pragma once

#include <cstdint>

#include "lens_api/lens_driver.h"

// The longest move the daemon starts lasts well under 0.3 s even at the slowest pulse period the
// registers can hold after a move; 2 s means the channel is stuck.
inline constexpr uint32_t kLcBusyWaitLimitUs = 2000000;
inline constexpr uint32_t kLcBusyWaitMaxPolls = 1000000;

// Per-unit settings, loaded from the offset file and the marker file before init_regs runs.
struct LcSettings {
    uint8_t iris_offset;  // Hall offset, 0x0079 ("IRIS_OFFSET =", default 176)
    uint8_t bias_offset;  // Hall bias, 0x007C ("BIAS_OFFSET =", default 64)
    uint8_t zoom_gain;    // 0x0103 ("ZOOM_GAIN =", default 0xCC)
    uint8_t focus_gain;   // 0x0143 ("FOCUS_GAIN =", default 0xCC)
    uint8_t s1;           // servo setting 0x0262: 3, or 2 with the marker file
    uint8_t s2;           // servo setting 0x0265: 3, or 2 with the marker file
};
LcSettings lc_get_settings();
void lc_set_settings(const LcSettings& s);

// The operation table of this chip.
extern const LensDriverOps kLc898201Ops;

void lc_init_regs();
void lc_sensor_power_on();
void lc_sensor_power_off();
uint32_t lc_zoom_home();
uint32_t lc_focus_home();
int32_t lc_init_all();
void lc_filter_switch(uint8_t direction);
void lc_iris_drive(uint16_t value);
void lc_focus_step(uint8_t direction, uint8_t steps);
void lc_zoom_step(uint8_t direction, uint8_t steps);
void lc_move_both(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps);

// Alternate servo set-up used when the marker file /data/QX-714B is present (S1 = S2 = 2).
void lc_alt_setup();

// Hall calibration of the iris servo: 0 calibrated, 1 bias ran out downwards, 2 upwards.
int lc_hall_calibrate();
// Store the Hall offset / bias and write them to the chip.
void lc_set_iris_offset(uint8_t offset);
void lc_set_bias_offset(uint8_t bias);
// Read them back from the chip.
int32_t lc_get_iris_offset();
int32_t lc_get_bias_offset();

// Net distance (position units, signed) moved by the last zoom / focus homing.
int16_t lc_zoom_travel();
int16_t lc_focus_travel();

// Servo target pattern for an iris value (already limited to 2300): -1.0 at 0, 0 at 1024,
// 0.99951171875 at 2047 and above.
uint32_t lc_iris_target_bits(uint16_t value);
// Number of waits that gave up on a stuck busy flag since start.
uint32_t lc_busy_timeouts();

// Restores the start values of the module (tests).
void lc_reset_for_testing();

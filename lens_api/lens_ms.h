// MS41908 lens-driver chip.
//
// A stepping-motor driver with two channels (zoom on the first, focus on the second) and an iris
// output, reached through 16-bit registers with 6-bit numbers on the MS41908 SPI link. The chip
// has no status registers: the two home sensors (photo-interrupters), the frame strobe `vd` and
// the busy output `pls` are plain GPIO lines. Motor settings written over SPI only reach the
// motors on the rising edge of `vd`, so every group of motor writes is framed by vd low before
// and vd high after, and `pls` stays high while the latched pulses run.
//
// Control words (registers 0x24 zoom, 0x29 focus): bits 0..7 the pulse count of the next move
// (0 = the channel stays), bit 8 set for direction 0 and clear for direction 1, bit 11 the supply
// of the channel's home sensor; the other bits keep their set-up value. A zoom step is two pulses,
// a focus step one.
//
// Threads. The main thread moves the lens; the command thread re-homes, drives the iris and
// switches the sensor supplies. One driver mutex is held around every group of register writes
// that ends with a strobe (and around every other change of the control words), so a group is
// never interleaved with another thread's writes. The wait for `pls` to fall happens before the
// mutex is taken.
//
// Bounded waits. `pls` should fall within a few tens of milliseconds of a strobe; a line that
// stays high (a stuck chip, or a GPIO device that does not answer, whose read leaves the pin
// number in place of a level) would hang the daemon. Every wait therefore gives up after
// kMsBusyWaitLimitUs on the platform clock, or after kMsBusyWaitMaxPolls reads if time does not
// advance, reports "busy line stuck" (repeats are counted, one line every few seconds), and drops
// the move, which move_both reports to the position counts (lens_report_dropped); a homing that
// meets it fails. Once the line has been found stuck, waits read it once until it reads low again
// ("busy line idle again"), so that a dead line does not cost every frame a two-second wait.
#pragma once

#include <cstdint>

#include "lens_api/lens_driver.h"

inline constexpr uint32_t kMsBusyWaitLimitUs = 2000000;
inline constexpr uint32_t kMsBusyWaitMaxPolls = 1000000;

// Entries of the pulse-period table (step counts 0..100). Larger step counts use the last entry.
inline constexpr uint8_t kMsPeriodEntries = 101;

// The operation table of this chip.
extern const LensDriverOps kMs41908Ops;

void ms_init_regs();
void ms_sensor_power_on();
void ms_sensor_power_off();
uint32_t lens_zoom_init_ms();
uint32_t lens_focus_init_ms();
int32_t ms_init_all();
void ms_filter_switch(uint8_t direction);
void ms_iris_drive(uint16_t value);
void ms_focus_step(uint8_t direction, uint8_t steps);
void ms_zoom_step(uint8_t direction, uint8_t steps);
void ms_move_both(uint8_t zoom_dir, uint8_t zoom_steps, uint8_t focus_dir, uint8_t focus_steps);

// Home-sensor supply command from the control software: bit 0 chooses the channel (0 zoom,
// 1 focus), bits 4..5 the action (0x10 toggle, 0x20 on, 0x30 off, 0x00 nothing). Acts only when
// the MS41908 drives the lens; written at once, without a strobe and without waiting for idle.
void ms_sensor_command(uint8_t command);

// Pulse period for a move of `steps` steps (entry 100 for anything above 100).
uint16_t ms_period_for_steps(uint8_t steps);

// Driver state, for the iris module, diagnostics and tests.
uint16_t ms_zoom_word();
uint16_t ms_focus_word();
uint8_t ms_sensor_last_command();
uint8_t ms_sensor_toggle_state();
// Waits that gave up on a stuck busy line since start.
uint32_t ms_busy_timeouts();

// Restores the start values of the module (tests).
void ms_reset_for_testing();

// Frame-pacing state: the sensor frame rate learned by the frame loop and the cadence divisors
// derived from it. It sits below every module that paces itself by the frame (ISP link,
// zoom tracking, autofocus, command channel), which read it through the getters; the frame loop
// and the autofocus state machine are the only writers.
#pragma once

#include <cstdint>

// Sensor frame rate in frames per second (60 until the loop has classified it).
uint32_t get_frame_rate();
void set_frame_rate(uint32_t fps);  // the frame loop's classification only
// Image size the statistics grid covers (3840 x 2160).
uint32_t get_image_width();
uint32_t get_image_height();

// Recomputes high_rate, the AF divisor (keeping the autofocus's slow or fast choice) and
// half_rate from frame_rate (not motion_divisor).
void update_frame_cadence();

uint8_t get_high_rate();
void set_high_rate(uint32_t on);  // non-zero stored as 1
uint8_t get_half_rate();
void set_half_rate(uint32_t on);  // non-zero stored as 1

// Motion cadence divisor: 2 while high_rate is set, else 1.
uint8_t get_motion_divisor();
void set_motion_divisor_from_high_rate();

// AF cadence divisor, 1..3.
uint8_t get_af_divisor();
void set_af_divisor(uint32_t d);  // values outside 1..3 store 1
// AF divider for the autofocus state machine: 3 when slow and high_rate, 2 when only one of
// them, 1 otherwise.
// Remembers the choice, so that a frame-rate change keeps it.
void set_af_divider(bool slow);
// 1 while the autofocus has the slow divider in force.
uint8_t get_af_slow();
void set_af_slow(uint8_t slow);  // the choice alone, leaving the divisor as it is

// Written by the command channel: 1 holds the frame loop idle.
uint32_t get_loop_paused();
void set_loop_paused(uint32_t paused);

// Tracking state as polled on the last processed frame.
uint32_t get_tracking_on();
void set_tracking_on(uint32_t on);

// Frame-rate classification of one frame interval: 60, 50, 30 or 25, or 0 when the interval
// lies in none of the (exclusive) ranges.
uint32_t classify_frame_interval(uint32_t interval_us);

// Back to the power-on values (tests).
void frame_pacing_reset_for_testing();

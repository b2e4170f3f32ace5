// Highlight masks and the window and block-range statistics read through them.
//
// A block with a lamp in it is sharp at almost any focus position: the edges of a defocused light
// disc raise the filter sums as much as real detail does. Each fetch therefore marks the blocks
// whose clipped-pixel measure is above 900, widens the marks by one block (the light's blur disc
// spills into the neighbours), and, while the autofocus search keeps the update armed, latches a
// copy so that every sharpness average of one search is taken over the same set of blocks. In dark
// scenes (exp_index above 1000) the sensor gain already blooms the lights and the widening would
// blank too much of the picture, so the marks are not widened there.
//
// The averages below exclude the blocks of the latched mask. Block counters are 8-bit and sums
// 32-bit unsigned, as on the board; a "capped" result of 0xFFFFFFF0 or more reads 0xFFFFFFF0.
// Block ranges are [from, to) in rows and columns; a bound above 15 is taken as 15.
#pragma once

#include <cstdint>

inline constexpr uint32_t kHighlightThreshold = 900;
inline constexpr uint32_t kAverageCap = 0xFFFFFFF0u;

// Computes the live mask (and the latched ones when armed) from the block table; the fetch calls
// it for every frame.
void highlight_compute_masks();

// Latched-mask update: armed and disarmed by the autofocus code (the frame loop arms it at a
// search start).
void highlight_arm_update();
void highlight_disarm_update();
uint8_t highlight_update_armed();
// Clears both latched masks.
void highlight_clear_latched();
// latched_highlight_core := latched_highlight_mask.
void highlight_latch_core_from_mask();

// Mask copies (225 bytes, 0 or 1).
void copy_live_highlight_mask(uint8_t* out);
void copy_latched_highlight_core(uint8_t* out);
void copy_latched_highlight_mask(uint8_t* out);

// Inputs owned by the autofocus side. The block weights are the focus zone's 225 u8 weights; the
// pointer must stay valid (nullptr restores the power-on weights, all 1). The box result is the
// last result of the tracking-box update as kept by the autofocus state machine: with tracking on
// and a result of 2 a tracking-region search is active, and the border windows are weighted too.
void highlight_set_block_weights(const uint8_t* weights);
void highlight_set_box_result(uint8_t result);
uint8_t highlight_tracking_search_active();

// Block-range averages.
uint32_t plain_sharpness_average(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1);
uint32_t weighted_window_sharpness(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1);
uint32_t window_iir2_average(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1);
uint32_t window_highlight_depth(uint8_t r0, uint8_t r1, uint8_t c0, uint8_t c1);
// out[z] := the weighted window sharpness of window z (25 u32).
void weighted_window_sharpness_table(uint32_t* out);

// Per-window values (window row and column 0..4; larger values are taken as 4).
uint32_t window_luma_deviation(uint8_t zr, uint8_t zc);
uint8_t live_highlight_count(uint8_t zr, uint8_t zc);
uint8_t window_has_many_highlights(uint8_t zr, uint8_t zc);
// Window index z (0..24; larger is taken as 24).
uint8_t latched_highlight_count(uint8_t z);
uint32_t centre_highlight_depth();

// Window average of caller values (225 u32), weighted like the window sharpness, + 50 below 20000.
uint32_t window_average_of(uint8_t zr, uint8_t zc, const uint32_t* values);
// For each window: the average of values over its blocks whose selection entry is non-zero,
// + 50 below 20000, into out (25 u32).
void window_averages_of(const uint32_t* values, const uint8_t* selection, uint32_t* out);

// Centre range state shared with the zoom-move step: which centre block range the size-0 measure
// uses (0 block (7,7); 1 rows 6..8 of column 7; 2 rows 6..8 x columns 6..8; 3 rows 5..9 x 5..9).
uint8_t get_centre_range_state();
void set_centre_range_state(uint8_t state);
// Plain sharpness average over the centre range of the given size:
//   0 by the centre range state, 1 rows/columns 5..9, 2 rows/columns 4..10, 3 block (7,7),
//   4 rows 6..8 of column 7, 5 rows/columns 6..8, above 5 as size 2.
uint32_t centre_sharpness_by_range(uint8_t size);

// Back to the power-on state (tests).
void highlight_reset_for_testing();

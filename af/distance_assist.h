// Distance assist: an object distance (from the rangefinder beside the lens) tells the autofocus
// where the subject is in focus, without a sweep. The distance table turns a distance into the
// focus position it needs at the current zoom; the tests here decide from distances and the lens
// position whether the focus still fits, and the shortcuts drive the lens straight to the
// expected position when the picture alone would make the search slow (a subject that moved in
// depth, a flat scene, a zoom that left the focus far off).
//
// The assist is switched by the command channel and works only while every AF window reports to
// the ISP (the full window mask): with a partial mask the distance may belong to something the
// windows do not see.
//
// Main thread only. move_to_distance blocks the frame loop while the lens moves (33 ms per move
// of at most 20 steps).
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

inline constexpr int kDistanceHistory = 60;

struct DistanceState {
    // Focus offsets (distance table) of the current distance and of the distance at the search
    // start; 1000 stands for "none taken yet".
    int16_t currentOffset = 1000;
    int16_t offsetAtStart = 1000;
    // One distance per processed frame, oldest first.
    uint16_t history[kDistanceHistory] = {};
    uint8_t historyCount = 0;
    // Calls of distance_still_valid since the last search start (at most 230): the longer a focus
    // has held, the tighter the test gets.
    uint32_t stabilityCalls = 0;
    // The distance a flat-scene jump used (the watch checks it once the picture settled).
    uint16_t jumpDistance = 8192;
    // The AF windows as last read from the ISP.
    uint8_t windowMask[kWindowCount] = {};
};
extern DistanceState g_distance;
// Back to the power-on values.
void distance_state_reset();

// The frame loop's reading of the object distance, once per processed frame (8192: none).
void af_distance_input(uint16_t distance);

// 1 while the assist is switched on and the full window mask is in force.
uint8_t distance_assist_active();
// Focus position the current distance is in focus at.
uint16_t expected_focus_now();

// Over the n newest history entries: 1 the distance has been falling, 2 rising, 0 neither (or a
// change too small to count, or fewer than n + 1 entries).
uint8_t distance_trend(uint8_t n);
// 1 when the n newest history entries are all unknown.
uint8_t distance_unknown_run(uint8_t n);
// Whether the focus stands at the near (low) or the far (high) end of the span between the
// expected positions of two distances; 0 when the span is below the distance margin.
uint8_t focus_near_low_end(uint16_t d1, uint16_t d2);
uint8_t focus_near_high_end(uint16_t d1, uint16_t d2);
// d0 the distance at focus, d1 the current one: 1 when the focus can stay.
uint8_t distance_still_valid(uint16_t d0, uint16_t d1);
// Drives the focus to the expected position of d, kept 2 steps inside the search range.
void move_to_distance(uint16_t d);
// 1 when the centre blocks show a signal worth measuring (at the far tele end).
uint8_t centre_has_signal();

// refresh_window_mask (the AF windows reported to the ISP) is declared in af/auto_focus.h.
// Refills the five window-history rows from the statistics frame ring over the zone's blocks.
void refill_window_history(uint32_t rows[5][kWindowCount]);
// At a search start: the window mask from the ISP, the stability count and the start offset.
void distance_assist_refresh();

// ---- Where the distance steers the search ----
// Search start: after a zoom, a focus far from the current distance's position drives the lens
// there and hands over to the region search.
void distance_start_jump();
// Search frame: the distance moved by more than the margin since the search began. Restarts or
// jumps; true when it ended the frame.
bool distance_search_shortcut();
// Sampled frame: a flat scene with the lens within 5 steps of the distance's position ends the
// search there. True when it did.
bool distance_flat_jump();
// Focused watch: first = the first focused frame (which also learns the lens calibration offset
// from a good focus). Compares the distance at the search start with the current one and may
// restart the search; 1 when it ended the frame.
uint8_t watch_distance_check(bool first);
// Focused watch, once the picture settled after a flat-scene jump: whether the distance it used
// still holds.
void watch_jump_check();

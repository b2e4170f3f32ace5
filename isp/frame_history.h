// Statistics frame history of a focus search.
//
// A contrast search judges a frame against the frames before it and against what the picture
// looked like at focus positions it has already passed. This one object keeps that memory: a ring
// of the last five statistics frames (the filter-table export of the block statistics), a table of
// samples keyed by focus position, per-block sharpest and dullest values with where they were
// seen, the best sample of the search with its per-window peak table, an event log of search steps
// and the search phase of the last five frames.
//
// Everything is fixed-size module state: the sample table holds at most 51 entries kept sorted by
// position in an array, so recording a sample during a long search never touches the heap.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

// One frame record: 15 x 15 x 5 u32, for block (r, c) at r x 75 + c x 5 the words iir1 + 1,
// fir_v + 1, iir2 + 1, fir_h + 1, luma.
struct FhFrame {
    uint32_t w[kFilterTableWords];
};

// An ordered list of blocks.
struct FhCellList {
    uint8_t rc[kGridBlocks][2];
    uint8_t n = 0;
    void clear() { n = 0; }
    void add(uint8_t r, uint8_t c) {
        if (n < kGridBlocks) {
            rc[n][0] = r;
            rc[n][1] = c;
            ++n;
        }
    }
};

// A short list of values (and positions) handed back by the series operations.
inline constexpr int kFhSeriesMax = 64;
struct FhSeries {
    uint32_t v[kFhSeriesMax];
    uint8_t n = 0;
};
struct FhPositions {
    uint16_t p[kFhSeriesMax];
    uint8_t n = 0;
};

struct FhEvent {
    uint32_t phase;
    uint32_t kind;
    uint16_t position;
};

inline constexpr int kFhMaxSamples = 51;
inline constexpr int kFhRingSize = 5;
inline constexpr int kFhEventCapacity = 128;

// Reset for a new search (the frame ring is kept).
void fh_reset_for_search();
// which non-zero: the start position, 0: the end position.
void fh_set_position(uint16_t position, uint8_t which);
uint16_t fh_start_position();
uint16_t fh_end_position();
uint16_t fh_best_position();
uint32_t fh_best_mean();
uint16_t fh_visited_min();
uint16_t fh_visited_max();

// Records grid A (block sharpness) and grid B (IIR2) taken at a focus position.
void fh_record_sample(const uint32_t* grid_a, const uint32_t* grid_b, uint16_t position);
uint8_t fh_sample_count();
// Per-block extremes since the reset (block index 0..224).
uint32_t fh_block_max(uint8_t block);
uint32_t fh_block_min(uint8_t block);
uint16_t fh_block_max_pos(uint8_t block);
uint16_t fh_block_min_pos(uint8_t block);

void fh_copy_peak_table(uint32_t* out25);
// Best sample on either side of the search start: the position of the sample with the largest
// inner mean below the start (near) or above it (far); the best position when that side is empty.
uint16_t fh_near_candidate();
uint16_t fh_far_candidate();

void fh_event_append(uint32_t phase, uint32_t kind, uint16_t position);
// Empties the event log (the samples and extremes stay).
void fh_event_clear();
// Copies the newest event into out; returns 0 (out untouched) when the log is empty.
uint8_t fh_last_event(FhEvent* out);
uint32_t fh_event_count();

void fh_ring_fill(const FhFrame& frame);
void fh_ring_push(const FhFrame& frame);
void fh_ring_clear();
uint8_t fh_ring_size();
void fh_phase_push(uint8_t phase);
// The newest n phases, oldest first.
void fh_phase_series(uint8_t* out, uint8_t* out_n, uint8_t n);

// Per frame of the ring (newest n, oldest first), the mean of a kind (0..5) over the cells.
void fh_ring_series(FhSeries* out, const FhCellList& cells, uint8_t kind, uint8_t n);
uint32_t fh_cell_mean_grid(const uint32_t* grid, const FhCellList& cells);
// Means over the cells of the samples around a position: up to `below` samples under it, then up
// to `from_up` samples from it upwards, in rising position order. kind 4 reads grid A, 5 grid B.
void fh_neighbour_series(const FhCellList& cells, uint16_t position, uint8_t below, uint8_t from_up,
                         uint8_t kind, FhSeries* out, FhPositions* positions = nullptr);

// Per block, the average of a kind (0..6) over the newest n frames of the ring.
void fh_ring_average_grid(uint32_t* out225, uint8_t kind, uint8_t n);
// The kind's value of every block of the frame `back` frames before the newest; a grid of
// 0x32323232 (and an error line) when the ring does not reach that far.
void get_sm_his_frame(uint32_t* out225, uint8_t kind, uint8_t back);
void fh_ring_window_averages(uint32_t* out25, const uint8_t* selection, uint8_t kind, uint8_t n);
void fh_ring_window_averages_no_highlights(uint32_t* out25, uint8_t kind, uint8_t n);
void fh_past_window_averages(uint32_t* out25, const uint8_t* selection, uint8_t kind, uint8_t back);
// The values of one block over the newest n frames, oldest first: (w2 + w3) / 2 for kind 5,
// (w0 + w1) / 2 otherwise.
void fh_block_series(FhSeries* out, uint8_t row, uint8_t col, uint8_t kind, uint8_t n);

// Builds a frame record from the statistics of the last fetch.
void fh_frame_from_stats(FhFrame* out);

// Power-on state (tests).
void fh_reset_for_testing();

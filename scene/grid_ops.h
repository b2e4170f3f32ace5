// Small operations on 15 x 15 block grids, shared by the scene analysis and autofocus.
//
// Counters keep the widths the analysis was tuned with: count_set counts in 8 bits and
// masked_mean divides by an 8-bit member count, so their results wrap past 255 members.
#pragma once

#include <cstdint>

#include "scene/scene_types.h"

// For every interior block set in `in`: out = 1 when one of its four edge neighbours is set in
// `in`, else 0. Border blocks and blocks not set in `in` keep their value in out. Returns the
// number of non-zero blocks of out.
uint32_t remove_isolated_blocks(const uint8_t* in, uint8_t* out);
// Non-zero entries among the first n bytes, modulo 256.
uint8_t count_set(const uint8_t* bytes, uint32_t n);
// Non-zero blocks of a mask.
uint16_t count_set_grid(const uint8_t* mask);
// Non-zero blocks with r0 <= row < r1 and c0 <= column < c1.
uint16_t count_set_window(const uint8_t* mask, uint8_t r0, uint8_t c0, uint8_t r1, uint8_t c1);
// Integer mean over r0..r1 x c0..c1 (inclusive); 0 for an empty window.
uint32_t window_mean(const uint32_t* grid, uint8_t r0, uint8_t c0, uint8_t r1, uint8_t c1);
// Mean of the grid over the blocks of a cell list (a block listed twice counts once).
uint32_t masked_mean(const uint32_t* grid, const CellList& cells);
// Smooths a map of +1 / -1 / 0 in place, in raster order (later blocks see earlier results).
void majority_filter(float* map);
// 1 when the sequences agree within 4 % on average (relative to b), else 0.
uint8_t stable_pair(const uint32_t* a, const uint32_t* b, uint32_t n);

// Block-level focus: the per-block peak map kept during a sweep, the regions built from it
// (region checks, centre confirmation) and the region search that dithers around a subject the
// lens was driven close to. The hooks in af/af_seams.h are the entry points the search calls;
// this header adds the state and helpers they share.
//
// A subject that fills only part of the AF windows peaks at its own lens position while the rest
// of the picture peaks elsewhere. Each block's sharpness curve over the sweep tells where that
// block is sharpest; the blocks that agree form the region the focus value is then measured over.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

// ---- Block peak map ----
// Per block: 0 nothing known, 1 peaked (at position, with value), 2 the peak lies towards larger
// focus positions, 3 towards smaller ones (position and value of the frame that said so).
enum : uint32_t { kPeakNone = 0, kPeakFound = 1, kPeakAbove = 2, kPeakBelow = 3 };

struct BlockPeak {
    uint32_t state = 0;
    uint32_t position = 0;
    uint32_t value = 0;
};

struct PeakMapState {
    BlockPeak map[kGridBlocks] = {};
    // Blocks that have shown enough horizontal detail during this sweep to be trusted in low
    // light (sticky until the map is cleared).
    uint8_t bright[kGridBlocks] = {};
    // Blocks whose peak the low-light update has already judged in this sweep.
    uint8_t done[kGridBlocks] = {};
};
extern PeakMapState g_peakMap;

// The relaxed test used to spread state 3 to a neighbour: 1 when the block's own trend points
// the way the lens is moving.
uint8_t neighbour_points_small(uint8_t row, uint8_t col);

// ---- Region checks ----
struct RegionCheckState {
    // Per region block, the focus position the peak map recorded for it; 0 elsewhere.
    uint16_t positions[kGridBlocks] = {};
    // Search reference the rezone resets to three quarters of the new focus value.
    uint32_t quarterRef = 0;
    // Set when a check sent the search into the final approach with a move towards a peak.
    uint8_t finalEntry = 0;
};
extern RegionCheckState g_regionCheck;

// 1 when the block's sharpness rose over the last depth + 2 frames, 2 when it fell, else 0.
uint8_t block_trend(uint8_t row, uint8_t col, uint8_t depth);

// ---- Region search ----
struct RegionSearchState {
    uint8_t sub = 0;      // 0 probe, 1 climbing down, 2 climbing up
    uint8_t prevSub = 0;  // sub-state of the last completed round
    uint8_t frame = 0;
    uint8_t step = 1;
    uint8_t minStep = 1;
    uint8_t maxStep = 3;
    uint8_t latency = 0;
    uint32_t A[kGridBlocks] = {};
    uint32_t B[kGridBlocks] = {};
    uint32_t C[kGridBlocks] = {};
    uint16_t PA = 0, PB = 0, PC = 0;
    uint8_t R[kGridBlocks] = {};
    uint8_t prevR[kGridBlocks] = {};
    uint16_t classPos[kGridBlocks][2] = {};
    uint8_t cls[kGridBlocks] = {};
    uint32_t prevLevel = 0;
    uint16_t ring[5] = {};
    uint8_t ringCount = 0;
    uint8_t stabilityLimit = 3;
    int8_t failure = 0;
    uint8_t noDecision = 0;
    uint8_t climbs[2] = {};  // rounds climbed down, up
    uint8_t wholeZone = 0;
    uint8_t retries = 2;
    // Phase and direction when phase 8 began, given back when the region search hands over.
    uint32_t savedPhase = 1;
    uint32_t savedDir = 2;
};
extern RegionSearchState g_regionSearch;

void classify_region_blocks();
void build_region_mask();
uint32_t region_mean(const uint8_t* region, const uint32_t* grid);

void block_regions_reset_for_testing();

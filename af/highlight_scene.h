// Highlight (point-light) scenes: what autofocus keeps about lamps and other point lights in the
// picture between frames. The operations are declared with the other hooks in af/af_seams.h.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

struct PointLightState {
    // The last five search frames, newest last.
    struct Frame {
        uint32_t meanAll = 0;
        uint32_t meanInner = 0;
        uint32_t meanSelected = 0;
        uint32_t largest = 0;
        uint16_t position = 0;
        uint16_t zoom = 0;
    };
    Frame frames[5] = {};
    uint8_t count = 0;
    uint16_t plFrames = 0;
    uint16_t onlyLights = 0;
    uint16_t brightElsewhere = 0;
    uint16_t noDetailFrames = 0;
    uint32_t maxWindow = 0;
    uint8_t best[3] = {};
    uint8_t bestCount = 0;
    // Refocus cause of the search the list belongs to.
    uint32_t refocusCause = 0;
    // Blocks around the brightest IIR2 and FIR_H responses, and the five-frame means over them
    // (oldest first) that tell the coarse approach it is passing a light.
    uint8_t blocksIir2[kGridBlocks] = {};
    uint8_t blocksFirH[kGridBlocks] = {};
    uint32_t seriesIir2[5] = {};
    uint32_t seriesFirH[5] = {};
    uint8_t seriesN = 0;
    // Exposure changes that may still restart a search while focused on lights.
    uint8_t watchChances = 0;
};
extern PointLightState g_pointLight;

// The blocks around the brightest responses of a grid (rows and columns 1..13).
void PointLightBlocks(const uint32_t* grid225, uint8_t* list225);
// Builds both block lists from the current statistics and empties the series.
void point_light_build_lists();
// Rebuilds the series from the statistics history: the means over the block lists of the last
// five frames (while armed; empty otherwise).
void point_light_series_rebuild();
// Trend of the IIR2 series for the coarse approach: 0 nothing to act on, 1 rising, 2 falling.
uint8_t point_light_series_trend();
// The zone refinement's reaction to a picture with no contrast outside its lights: true when it
// changed the zone (the refinement stops there).
bool point_light_no_detail_rule();
void PointLightZone();

void point_light_reset_for_testing();

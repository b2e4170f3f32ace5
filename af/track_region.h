// Tracking-region focus: while the camera's object tracker follows something, the autofocus
// focuses on the blocks under its box instead of on its usual zone.
//
// A new box (or a zoom or pan/tilt movement the tracking input reports) stops whatever the
// autofocus is doing and prepares a new search; the search then takes the box's blocks as its
// zone. The trigger kind remembers what the last trigger brought until the search has ended:
//   0 none, 1 a trigger without a region (zoom, pan/tilt, a malformed or too small box: the
//   centre fallback), 2 a region.
// A tracking-region search is active while tracking is on and the trigger kind is 2; the rules of
// the other autofocus parts that read it (window sharpness of the border windows, the block path
// of the focus value, the zone refinement, the wobble region) ask
// tracking_region_search_active().
//
// Main thread only, inside AfFrame.
#pragma once

#include <cstdint>

#include "isp/af_stat.h"

// The blocks the box covers: rows firstRow..rowLimit-1, columns firstCol..colLimit-1.
struct TrackBounds {
    uint8_t firstRow = 3;
    uint8_t rowLimit = 12;
    uint8_t firstCol = 4;
    uint8_t colLimit = 11;
};

struct TrackRegionState {
    TrackBounds bounds;
    // 1 for the blocks under the box (lights left out), as the tracking input gave it last.
    uint8_t region[kGridBlocks] = {};
};
extern TrackRegionState g_track;
// Back to the power-on values (bounds at their defaults, no region).
void track_region_state_reset();

// The bounds back to their defaults (3, 12, 4, 11).
void ResetTrackBounds();
// Sets the bounds; a negative first row or column becomes 0.
void SetTrackBounds(int firstRow, int rowLimit, int firstCol, int colLimit);
void SetTrackRegion(const uint8_t* mask225);
// The last three restart reasons: a search start appends the current one.
void PushRestartReason(uint32_t reason);
// True when each of the last three searches was asked for by the watch's motion-hint path.
bool AllReasonsTwo();

// 1 while tracking is on and the last trigger set a region.
uint8_t tracking_region_search_active();
// Block rows and columns (first, last, inclusive) a tracking-region search looks at.
void tracking_region_bounds(uint8_t* r0, uint8_t* r1, uint8_t* c0, uint8_t* c1);

// One AF frame's look at the tracker (while tracking is on): a trigger sets the AF state to 0
// (a new search) and becomes the trigger kind. Also hands the trigger kind to the statistics
// side, whose border windows are weighted by the zone during a tracking-region search.
void track_trigger();
// At a search start: during a tracking-region search the region becomes the zone (the block mask,
// and every window with a region block), and the region is logged as a block map.
void track_region_to_zone();

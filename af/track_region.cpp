#include "af/track_region.h"

#include <cstdio>
#include <cstring>

#include "af/af_seams.h"
#include "af/auto_focus.h"
#include "af/focus_zone.h"
#include "base/dbgout.h"
#include "base/frame_pacing.h"
#include "isp/highlight.h"
#include "isp/track_input.h"

TrackRegionState g_track;

void track_region_state_reset() {
    g_track = TrackRegionState{};
}

void ResetTrackBounds() {
    g_track.bounds = TrackBounds{};
}

void SetTrackBounds(int firstRow, int rowLimit, int firstCol, int colLimit) {
    auto u8 = [](int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); };
    g_track.bounds = TrackBounds{u8(firstRow), u8(rowLimit), u8(firstCol), u8(colLimit)};
}

void SetTrackRegion(const uint8_t* mask225) {
    std::memcpy(g_track.region, mask225, kGridBlocks);
}

void PushRestartReason(uint32_t reason) {
    g_seams.reasons[2] = g_seams.reasons[1];
    g_seams.reasons[1] = g_seams.reasons[0];
    g_seams.reasons[0] = reason;
}

bool AllReasonsTwo() {
    return g_seams.reasons[0] == 2 && g_seams.reasons[1] == 2 && g_seams.reasons[2] == 2;
}

uint8_t tracking_region_search_active() {
    return get_tracking_on() != 0 && g_seams.triggerKind == kBoxTracked ? 1 : 0;
}

void tracking_region_bounds(uint8_t* r0, uint8_t* r1, uint8_t* c0, uint8_t* c1) {
    const TrackBounds& b = g_track.bounds;
    *r0 = b.firstRow;
    *c0 = b.firstCol;
    // Exclusive limits; an empty range keeps its first row or column alone.
    *r1 = b.rowLimit > b.firstRow ? static_cast<uint8_t>(b.rowLimit - 1) : b.firstRow;
    *c1 = b.colLimit > b.firstCol ? static_cast<uint8_t>(b.colLimit - 1) : b.firstCol;
}

void track_trigger() {
    if (get_tracking_on() != 0) {
        // The tracking input leaves what it has nothing new for untouched: start from ours.
        TrackRegion box;
        box.rowStart = g_track.bounds.firstRow;
        box.rowEnd = g_track.bounds.rowLimit;
        box.colStart = g_track.bounds.firstCol;
        box.colEnd = g_track.bounds.colLimit;
        std::memcpy(box.mask, g_track.region, kGridBlocks);
        const uint8_t kind = track_box_update(&box);
        if (kind != kBoxNothing) {
            SetTrackBounds(box.rowStart, box.rowEnd, box.colStart, box.colEnd);
            SetTrackRegion(box.mask);
            g_afState = 0;
            g_seams.triggerKind = kind;
        }
    }
    highlight_set_box_result(g_seams.triggerKind);
}

namespace {

// "跟踪聚焦设置的区域: " and the 15 x 15 map, one line per block row. The map is printed as the
// tracker sees the picture: the sensor is mounted mirrored, so column 14 comes first.
void log_region_map(const uint8_t* region) {
    static constexpr char kHeader[] = "跟踪聚焦设置的区域: \n";
    char text[sizeof kHeader + kGridRows * (kGridCols * 4 + 1) + 1];
    size_t n = std::snprintf(text, sizeof text, "%s", kHeader);
    for (int r = 0; r < kGridRows; ++r) {
        for (int c = kGridCols - 1; c >= 0; --c) {
            std::memcpy(text + n, region[r * kGridCols + c] != 0 ? "o   " : "-   ", 4);
            n += 4;
        }
        text[n++] = '\n';
    }
    text[n] = '\0';
    traceout("%s", text);
}

}  // namespace

void track_region_to_zone() {
    if (!tracking_region_search_active())
        return;
    g_focusZone.copy_block_mask_in(g_track.region);
    g_focusZone.windows_from_block_mask(g_track.region);
    log_region_map(g_track.region);
}

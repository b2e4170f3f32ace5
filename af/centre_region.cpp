// Centre region confirmation: at the end of a low-light search, a second look at a dim centre.
//
// In the dark the bright surroundings carry most of the contrast, so a search can settle on them
// while a dim subject in the middle stays soft. When the centre blocks are dim, never peaked
// during the sweep and are ringed by enough usable blocks that did not peak either, the subject
// is most likely nearer than anything the sweep visited: the zone narrows to the centre and its
// ring and a new search starts towards smaller focus positions. This happens once per restart.
#include <algorithm>
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/block_regions.h"
#include "af/focus_zone.h"
#include "isp/af_stat.h"

namespace {

bool in_centre(int r, int c) {
    return r >= 6 && r <= 8 && c >= 6 && c <= 8;
}

bool in_ring(int r, int c) {
    const bool mid_rows = r >= 6 && r <= 8;
    const bool mid_cols = c >= 6 && c <= 8;
    return (mid_cols && ((r >= 3 && r <= 5) || (r >= 9 && r <= 11))) ||
           (mid_rows && ((c >= 3 && c <= 5) || (c >= 9 && c <= 11)));
}

// The region the second search should measure, or false when the centre does not qualify.
bool centre_candidate(uint8_t M[kGridBlocks]) {
    if (!(g_zoneType != 3 && g_search.firstAfterZoom != 0 && g_presetFlag == 1 &&
          g_seams.pointLightZone != 0))
        return false;
    uint32_t h[kGridBlocks];
    af_stat_copy_grid(StatGrid::kSharpH, h);
    bool lit = false;
    for (int r = 6; r <= 8; ++r)
        for (int c = 6; c <= 8; ++c)
            lit = lit || h[r * kGridCols + c] > 300;
    if (!lit)
        return false;
    uint32_t* f0 = g_focusValue.gridHist[0];
    af_stat_copy_grid(StatGrid::kSharpV, f0);
    uint32_t largest = 0;
    for (int r = 3; r <= 11; ++r)
        for (int c = 3; c <= 11; ++c)
            largest = std::max(largest, f0[r * kGridCols + c]);
    for (int r = 6; r <= 8; ++r)
        for (int c = 6; c <= 8; ++c) {
            const int b = r * kGridCols + c;
            if (f0[b] > largest / 2 || f0[b] > 800 || g_peakMap.map[b].state == kPeakFound)
                return false;
        }
    std::memset(M, 0, kGridBlocks);
    int k = 0;
    int kb = 0;
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        if (in_centre(r, c)) {
            M[b] = 1;
            continue;
        }
        if (!in_ring(r, c))
            continue;
        const uint32_t s = g_peakMap.map[b].state;
        if (g_focusValue.highlightMask[b] == 0 && f0[b] < 800 &&
            (s == kPeakNone || s == kPeakBelow)) {
            M[b] = 1;
            ++k;
            kb += h[b] > 200 ? 1 : 0;
        }
    }
    return k > 24 && kb >= 9;
}

}  // namespace

void confirm_centre_region() {
    uint8_t M[kGridBlocks];
    if (g_seams.regionCount2 != 0 || !centre_candidate(M)) {
        g_search.hitLower = 0;
        g_search.hitUpper = 0;
        g_afState = 2;
        return;
    }
    g_focusZone.clear_window_mask();
    for (int wr = 1; wr <= 3; ++wr)
        for (int wc = 1; wc <= 3; ++wc)
            for (int d = 0; d < 9; ++d)
                if (M[(wr * 3 + d / 3) * kGridCols + wc * 3 + d % 3] != 0)
                    g_focusZone.windowMask[wr * 5 + wc] = 1;
    g_focusZone.copy_block_mask_in(M);
    g_seams.trackLock = 1;
    g_search.searchDir = 1;
    SnapshotReference();
    g_seams.regionCount2 = 1;
}

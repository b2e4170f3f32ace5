// Region checks: in a low-light sweep, the blocks whose peak lies ahead of the lens become the
// focus zone, and the zone follows them while the lens moves.
//
// At dusk a near subject in the middle of a lit background is smaller than the AF windows, and
// the window focus value peaks on the background. The peak map knows which blocks are still
// getting sharper the way the lens moves; when enough of them hang together they are the
// subject. The unlocked check takes them as the zone and holds the direction; the locked check
// keeps the region honest frame by frame (blocks that turn out to have peaked elsewhere leave,
// newly rising ones join) and gives it up when it falls apart. Both hand the search to the final
// approach as soon as the region's value has peaked.
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/block_regions.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/track_region.h"
#include "base/frame_pacing.h"
#include "scene/grid_ops.h"

RegionCheckState g_regionCheck;

namespace {

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

bool in_window(int r, int c) {
    const BlockSearchWindow& w = g_blockSearchWindow;
    return r >= w.firstRow && r < w.endRow && c >= w.firstCol && c < w.endCol;
}

bool positions_monotonic(int n) {
    const uint16_t* p = g_focusValue.posHist;
    bool up = true;
    bool down = true;
    for (int k = 0; k + 1 < n; ++k) {
        up = up && p[k] > p[k + 1];
        down = down && p[k] < p[k + 1];
    }
    return up || down;
}

bool fv_peak_shape() {
    const uint32_t* fv = g_focusValue.fvHist;
    return fv[2] > fv[1] && fv[1] > fv[0] && fv[2] > fv[3] && fv[3] > fv[4];
}

// The focus value peaked two frames ago, clearly on both sides.
bool fv_peaked() {
    const uint32_t* fv = g_focusValue.fvHist;
    return fv_peak_shape() && fv[2] - fv[0] > fv[0] * 5 / 128 && fv[2] - fv[4] > fv[4] * 5 / 128;
}

bool preconditions() {
    if (distance_assist_active() && af_focus() < expected_focus_now())
        return false;
    return af_low_light() != 0 && g_seams.regionCollapseCount <= 1;
}

uint32_t minimum_region() {
    if (af_zoom() < 2556)
        return distance_assist_active() ? 5 : 8;
    return 4;
}

// Turn towards the frame k back and move there.
void move_to_history(int k) {
    const uint16_t p0 = g_focusValue.posHist[0];
    const uint16_t pk = g_focusValue.posHist[k];
    g_search.searchDir = p0 <= pk ? 2 : 1;
    StepMove(static_cast<uint16_t>(absdiff(p0, pk)));
    g_regionCheck.finalEntry = 1;
}

// The histories follow the new block mask: every focus value of the five frames is measured over
// the region, so the trend tests compare like with like.
void rezone() {
    refill_window_history(g_focusValue.winHist);
    g_focusZone.windows_from_block_mask(g_focusZone.blockMask);
    RezoneHistories();
    g_regionCheck.quarterRef = g_focusValue.fvHist[0] * 3 / 4;
    SetBestFv(g_focusValue.fvHist[0]);
    g_final.finalZoneBits = g_focusZone.window_bits();
}

// Rises (newer above older) and falls over the four pairs of the focus history; `flat` is the
// first pair that did not rise.
struct PairCount {
    int rises = 0;
    int falls = 0;
    int flat = -1;
};

PairCount count_pairs() {
    const uint32_t* fv = g_focusValue.fvHist;
    PairCount pc;
    for (int k = 0; k < 4; ++k) {
        if (fv[k] > fv[k + 1])
            ++pc.rises;
        else if (pc.flat < 0)
            pc.flat = k;
        if (fv[k] < fv[k + 1])
            ++pc.falls;
    }
    return pc;
}

// Three or four falls in a row: the region was sharper behind the lens; go back to where it was
// sharpest and let the final approach take over from there.
bool hand_over_on_falls(const PairCount& pc) {
    const uint32_t* fv = g_focusValue.fvHist;
    if (pc.falls == 4 || (pc.falls == 3 && fv[3] <= fv[4])) {
        move_to_history(4);
        g_final.finalRef = fv[4];
    } else if (pc.falls == 3) {
        move_to_history(3);
        g_final.finalRef = fv[3];
    } else {
        return false;
    }
    return true;
}

void best_of_history() {
    const uint32_t* fv = g_focusValue.fvHist;
    int best = 4;
    for (int k = 3; k >= 0; --k)
        if (fv[k] >= fv[best])
            best = k;
    g_final.finalBest = fv[best];
    g_final.finalBestPos = g_focusValue.posHist[best];
}

// The unlocked check's review of a final approach it started.
void unlocked_phase4() {
    const uint32_t* fv = g_focusValue.fvHist;
    if (!positions_monotonic(5)) {
        g_search.searchPhase = 3;
        return;
    }
    if (fv_peak_shape()) {
        if (fv_peaked())
            move_to_history(2);
        else
            g_search.searchPhase = 3;
        return;
    }
    const PairCount pc = count_pairs();
    if (hand_over_on_falls(pc) || pc.rises == 4)
        return;
    if (pc.rises == 3 && (pc.flat == 0 || fv[pc.flat - 1] >= fv[pc.flat + 1]))
        return;
    g_search.searchPhase = 3;
}

void give_up_region() {
    g_seams.trackLock = 0;
    SelectSearchZone();
    g_focusZone.reset_block_mask();
    if (g_watch.changedDuringSearch == 0) {
        SnapshotReference();
        g_search.hitLower = g_search.hitUpper = 0;
        g_search.restartReason = 4;
    } else {
        RezoneHistories();
    }
    ++g_seams.regionCollapseCount;
    if (af_focus() < g_search.searchStartPos)
        g_search.searchDir = 2;
}

}  // namespace

uint8_t block_trend(uint8_t row, uint8_t col, uint8_t depth) {
    if (depth > 1)
        return 0;
    const int b = row * kGridCols + col;
    uint32_t f[4];
    for (int k = 0; k < 4; ++k)
        f[k] = g_focusValue.gridHist[k][b];
    if (f[0] > f[1] && f[1] > f[2] && (depth == 0 || f[2] > f[3]))
        return 1;
    if (f[0] < f[1] && f[1] < f[2] && (depth == 0 || f[2] < f[3]))
        return 2;
    return 0;
}

void unlocked_region_check() {
    if (!preconditions())
        return;
    const uint32_t m = minimum_region();
    uint8_t M[kGridBlocks] = {};
    uint8_t kept[kGridBlocks] = {};
    for (int b = 0; b < kGridBlocks; ++b)
        M[b] = in_window(b / kGridCols, b % kGridCols) && g_peakMap.map[b].state == kPeakBelow;
    uint32_t n = remove_isolated_blocks(M, kept);
    if (n < m) {
        for (int b = 0; b < kGridBlocks; ++b) {
            const uint32_t s = g_peakMap.map[b].state;
            M[b] = in_window(b / kGridCols, b % kGridCols) && (s == kPeakFound || s == kPeakBelow);
        }
        std::memset(kept, 0, sizeof kept);
        n = remove_isolated_blocks(M, kept);
        if (n < m)
            return;
    }
    if (n == 0)
        return;
    std::memset(g_regionCheck.positions, 0, sizeof g_regionCheck.positions);
    g_focusZone.copy_block_mask_in(kept);
    rezone();
    for (int b = 0; b < kGridBlocks; ++b)
        if (kept[b] != 0)
            g_regionCheck.positions[b] = static_cast<uint16_t>(g_peakMap.map[b].position);
    g_seams.trackLock = 1;
    g_search.searchDir = 1;
    g_seams.dirHold = 1;
    g_windowAverage = 0;  // the region's own blocks measure now, not the plain window average
    // A region whose value has just peaked enters the final approach, and the review of the
    // final approach then runs on the same frame: the lens goes back to the peak.
    if (g_search.searchPhase == 3 && positions_monotonic(5) && fv_peaked())
        g_search.searchPhase = 4;
    if (g_search.searchPhase == 4)
        unlocked_phase4();
    if (g_search.searchPhase == 4)
        best_of_history();
}

void locked_region_check() {
    if (!preconditions() || !positions_monotonic(5))
        return;
    if ((g_search.searchPhase == 3 || g_search.searchPhase == 4) && fv_peaked()) {
        move_to_history(2);
        g_search.searchPhase = 4;
        best_of_history();
        return;
    }
    uint8_t W[kGridBlocks] = {};
    uint8_t O[kGridBlocks] = {};
    if (g_seams.trackLock) {
        std::memcpy(W, g_focusZone.blockMask, sizeof W);
        std::memcpy(O, g_focusZone.blockMask, sizeof O);
    }
    uint16_t* pos = g_regionCheck.positions;
    const uint16_t* p = g_focusValue.posHist;
    // Blocks whose own curve contradicts the position recorded for them leave; the others have
    // their position moved along with what they show.
    if (positions_monotonic(4)) {
        for (int b = 0; b < kGridBlocks; ++b) {
            const int r = b / kGridCols;
            const int c = b % kGridCols;
            if (W[b] == 0 || !in_window(r, c))
                continue;
            const uint8_t t = block_trend(static_cast<uint8_t>(r), static_cast<uint8_t>(c), 1);
            if (p[1] < p[0]) {
                if (t == 1 && pos[b] < p[3]) {
                    W[b] = 0;
                    pos[b] = 0;
                } else if (t == 2 && pos[b] > p[3]) {
                    pos[b] = p[3];
                }
            } else if (p[1] > p[0]) {
                if (t == 1 && pos[b] > p[0]) {
                    pos[b] = p[0];
                } else if (t == 2 && pos[b] < p[0]) {
                    W[b] = 0;
                    pos[b] = 0;
                }
            }
        }
    }
    const uint16_t z = af_zoom();
    const uint32_t t = z > 5372 ? 7 : z > 4476 ? 5 : 3;
    const uint16_t f = af_focus();
    for (int b = 0; b < kGridBlocks; ++b) {
        if (!in_window(b / kGridCols, b % kGridCols))
            continue;
        const BlockPeak& e = g_peakMap.map[b];
        if (W[b] != 0) {
            if (e.state == kPeakNone)
                W[b] = 0;
        } else if (e.state == kPeakBelow) {
            W[b] = 1;
            pos[b] = static_cast<uint16_t>(e.position);
        } else if (e.state == kPeakFound && f >= e.position && f - e.position < t) {
            W[b] = 1;
            pos[b] = static_cast<uint16_t>(e.position);
        }
    }
    uint8_t kept[kGridBlocks] = {};
    const uint32_t n = remove_isolated_blocks(W, kept);
    const uint8_t* region = kept;
    if (n < minimum_region()) {
        const uint32_t* fv = g_focusValue.fvHist;
        if (fv[0] > fv[1] && fv[1] > fv[2] && fv[2] > fv[3] && fv[3] > fv[4])
            return;  // still climbing: the region may fill in
        if (tracking_region_search_active()) {
            // The tracker still follows its box: its blocks hold the subject in the region's place.
            region = g_track.region;
            ++g_seams.regionCollapseCount;
        } else {
            give_up_region();
            return;
        }
    }
    uint8_t next[kGridBlocks] = {};
    bool same = true;
    for (int b = 0; b < kGridBlocks; ++b) {
        if (!in_window(b / kGridCols, b % kGridCols))
            continue;
        next[b] = region[b] != 0 ? 1 : 0;
        same = same && next[b] == (O[b] != 0 ? 1 : 0);
    }
    if (same)
        return;
    g_focusZone.copy_block_mask_in(next);
    rezone();
    FineReset(0);
    if (g_search.searchPhase == 3) {
        if (fv_peak_shape()) {
            if (fv_peaked())
                g_search.searchPhase = 4;
        } else if (hand_over_on_falls(count_pairs())) {
            g_search.searchPhase = 4;
        }
    }
    if (g_search.searchPhase == 4)
        best_of_history();
}

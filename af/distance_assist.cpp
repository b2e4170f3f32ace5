#include "af/distance_assist.h"

#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/auto_focus.h"
#include "af/focus_watch.h"
#include "af/focus_zone.h"
#include "af/track_region.h"
#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/isp_link.h"
#include "platform/clock.h"
#include "scene/scene_analyzer.h"
#include "tracking/curves.h"
#include "tracking/distance_table.h"

DistanceState g_distance;

void distance_state_reset() {
    g_distance = DistanceState{};
}

namespace {

// A move of the blocking drive, and the time the lens gets for it (about one frame).
constexpr uint16_t kDriveStep = 20;
constexpr uint32_t kDriveWaitUs = 33000;
constexpr uint32_t kStabilityCap = 230;

int absdiff(int a, int b) {
    return a > b ? a - b : b - a;
}

bool known(uint16_t d) {
    return d != kDistanceUnknown;
}

// Distance entry k of the history counting back from the newest (k = 1).
uint16_t entry(uint8_t k) {
    return g_distance.history[g_distance.historyCount - k];
}

int margin() {
    return g_watch.distanceMargin;
}

// The distance the decisions that move the lens go by: the median of the known readings among
// the newest five, unknown while the newest is. A rangefinder's readings scatter by a few per cent,
// which at the tele end is a depth of focus; the median lets a subject that really moved through
// within two frames but not a single stray reading.
uint16_t steady_distance() {
    const uint8_t n = g_distance.historyCount;
    if (n == 0 || !known(entry(1)))
        return kDistanceUnknown;
    uint16_t v[5];
    uint8_t m = 0;
    for (uint8_t k = 1; k <= 5 && k <= n; ++k)
        if (known(entry(k)))
            v[m++] = entry(k);
    // Insertion sort of at most five values; the lower middle for an even count.
    for (uint8_t i = 1; i < m; ++i)
        for (uint8_t j = i; j > 0 && v[j - 1] > v[j]; --j) {
            const uint16_t t = v[j];
            v[j] = v[j - 1];
            v[j - 1] = t;
        }
    return v[(m - 1) / 2];
}

// Tolerances of distance_still_valid: rows by distance band (from dMin), then by zoom (up to
// zMax). A and B shrink by v, the stability level, except where the lens is too coarse for it.
struct Tolerance {
    uint16_t dMin;
    uint16_t zMax;
    int8_t a, b;
    int16_t c;
    bool byLevel;
};
constexpr Tolerance kTolerances[] = {
    {50, 499, 6, 10, 40, true},     {50, 2879, 7, 11, 30, true},    {50, 3746, 9, 13, 10, true},
    {100, 31, 6, 9, 40, true},      {100, 447, 7, 10, 30, true},    {100, 1343, 8, 11, 20, true},
    {100, 3746, 9, 12, 10, true},   {200, 175, 5, 7, 70, true},     {200, 863, 6, 8, 60, true},
    {200, 1231, 7, 9, 50, true},    {200, 1823, 7, 10, 50, true},   {200, 3746, 7, 11, 45, true},
    {300, 1007, 5, 5, 80, true},    {300, 1631, 6, 6, 70, true},    {300, 1999, 7, 7, 60, true},
    {300, 2447, 7, 8, 55, true},    {300, 2703, 7, 9, 55, true},    {300, 3167, 7, 10, 55, true},
    {300, 3746, 7, 10, 50, true},   {500, 1103, 5, 4, 100, true},   {500, 1839, 6, 5, 90, true},
    {500, 2767, 7, 6, 80, true},    {500, 3391, 7, 7, 70, true},    {500, 3746, 7, 8, 70, true},
    {700, 2383, 4, 4, 110, true},   {700, 3295, 5, 5, 100, true},   {700, 3746, 6, 5, 90, true},
    {1000, 2999, 3, 3, 400, false}, {1000, 3599, 4, 4, 350, false}, {1000, 3746, 5, 4, 300, true},
};

const Tolerance* tolerance_for(uint16_t d0, uint16_t z) {
    const Tolerance* found = nullptr;
    uint16_t band = 0;
    for (const Tolerance& t : kTolerances)
        if (d0 >= t.dMin && t.dMin >= band)
            band = t.dMin;
    for (const Tolerance& t : kTolerances)
        if (t.dMin == band && z <= t.zMax) {
            found = &t;
            break;
        }
    return found;
}

// The bookkeeping of a restart from inside a search frame.
void restart_search() {
    g_search.refocusCause = 9;
    g_lastAfPos = af_focus();
    g_afState = 0;
    g_fine.lowContrastRetry = 0;
    g_seams.regionCollapseCount = 0;
    g_seams.regionCount2 = 0;
    g_watch.motionHint = 0;
}

// The distance moved by more than the margin since the search start: 0 the lens still fits (it
// stands at the new distance's end of the span), 1 a nearer subject with the lens still at the
// old position (the next search drives it there first), 2 a farther subject with the lens still
// at the old position, 3 the lens at neither. Needs both distances known.
uint8_t compare_with_start(uint16_t d0, uint16_t d1) {
    if (!known(d0) || !known(d1) || absdiff(focus_offset(d1), focus_offset(d0)) <= margin())
        return 0;
    const bool at_near = focus_near_low_end(d0, d1) != 0;
    const bool at_far = focus_near_high_end(d0, d1) != 0;
    if (d1 < d0 && at_far)
        return 1;
    if (d1 > d0 && at_near) {
        // The subject went away: the next search goes towards larger positions.
        g_search.upwardMarker = 1;
        return 2;
    }
    return at_near || at_far ? 0 : 3;
}

// The lens calibration offset from a good focus at the wide end: the focus position less the
// base curve and the distance's offset, kept within +-15 steps.
void learn_calibration() {
    const uint16_t d = steady_distance();
    const uint16_t z = af_zoom();
    if (!known(d) || g_search.noPeak != 0)
        return;
    int k;
    if (z < 500 && d >= 600 && d < 3000) {
        k = d <= 649    ? -4
            : d <= 699  ? -3
            : d <= 799  ? -2
            : d <= 899  ? -1
            : d <= 1299 ? 0
            : d <= 1699 ? 2
            : d < 2100  ? 3
                        : 4;
        if (z > 199)
            k = focus_offset(d);
    } else if (d >= 3000 && z <= 1000) {
        k = z < 49 ? 4 : z < 197 ? 5 : z < 801 ? 6 : 7;
    } else {
        return;
    }
    // The difference of the low bytes, as the board's 8-bit arithmetic takes it.
    const uint8_t low = static_cast<uint8_t>((af_focus() & 0xFF) - (curve_focus_at(0, z) & 0xFF));
    int v = static_cast<int8_t>(low) - k;
    v = v < -15 ? -15 : (v > 15 ? 15 : v);
    set_calibration_offset(static_cast<int8_t>(v));
}

}  // namespace

void af_distance_input(uint16_t distance) {
    g_seams.currentDistance = distance;
    g_distance.currentOffset = focus_offset(distance);
    if (g_distance.historyCount == kDistanceHistory) {
        std::memmove(g_distance.history, g_distance.history + 1,
                     (kDistanceHistory - 1) * sizeof g_distance.history[0]);
        --g_distance.historyCount;
    }
    g_distance.history[g_distance.historyCount++] = distance;
}

uint8_t distance_assist_active() {
    return get_distance_assist_mode() == 1 && g_seams.fullMaskFlag == 1 ? 1 : 0;
}

uint16_t expected_focus_now() {
    return expected_focus(g_seams.currentDistance);
}

uint8_t distance_trend(uint8_t n) {
    if (n == 0 || g_distance.historyCount <= n)
        return 0;
    int t = 0;
    int lo = entry(1);
    int hi = lo;
    for (uint8_t k = 1; k <= n; ++k) {
        const int newer = entry(k);
        const int older = entry(static_cast<uint8_t>(k + 1));
        t += newer > older ? 1 : (newer < older ? -1 : 0);
        lo = newer < lo ? newer : lo;
        hi = newer > hi ? newer : hi;
    }
    const int range = hi - lo;
    // Readings jitter more the farther the subject; a change within the jitter is no trend.
    if (af_zoom() > 2556 && lo < 450) {
        if (range < 25)
            return 0;
    } else if (lo > 1500 && lo < 2000) {
        if (range <= 99)
            return 0;
    } else if (range < (lo <= 2000 ? 30 : 150)) {
        return 0;
    }
    if (t < -(n / 3))
        return 1;
    if (t > n / 3)
        return 2;
    return 0;
}

uint8_t distance_unknown_run(uint8_t n) {
    if (g_distance.historyCount < n)
        return 0;
    for (uint8_t k = 1; k <= n; ++k)
        if (known(entry(k)))
            return 0;
    return 1;
}

uint8_t focus_near_low_end(uint16_t d1, uint16_t d2) {
    const int L = expected_focus(d1 < d2 ? d1 : d2);
    const int H = expected_focus(d1 < d2 ? d2 : d1);
    const int F = af_focus();
    if (H - L < margin())
        return 0;
    return F < L || F - L <= (H - L) / 3 ? 1 : 0;
}

uint8_t focus_near_high_end(uint16_t d1, uint16_t d2) {
    const int L = expected_focus(d1 < d2 ? d1 : d2);
    const int H = expected_focus(d1 < d2 ? d2 : d1);
    const int F = af_focus();
    if (H - L < margin())
        return 0;
    return F > H + 3 || H - F <= (H - L) / 2 ? 1 : 0;
}

uint8_t distance_still_valid(uint16_t d0, uint16_t d1) {
    if (g_distance.stabilityCalls < kStabilityCap)
        ++g_distance.stabilityCalls;
    int v = static_cast<int>(g_distance.stabilityCalls / 75);
    if (d0 > 500 && v > 2)
        v = 2;
    const uint16_t z = af_zoom();
    if (z > 3746 || d0 < 50)
        return 0;
    const Tolerance* t = tolerance_for(d0, z);
    if (t == nullptr)
        return 0;
    const int a = t->a - (t->byLevel ? v : 0);
    const int b = t->b - (t->byLevel ? v : 0);
    const bool focus_fits = absdiff(af_focus(), expected_focus(d0)) < a;
    const bool offset_fits = absdiff(focus_offset(d0), focus_offset(d1)) < b;
    // Signed: a subject that came nearer never fails the last test.
    const bool not_receded = static_cast<int>(d1) - static_cast<int>(d0) < t->c;
    return focus_fits && offset_fits && not_receded ? 1 : 0;
}

void move_to_distance(uint16_t d) {
    uint16_t target = expected_focus(d);
    if (target > g_search.upperBound)
        target = static_cast<uint16_t>(g_search.upperBound - 2);
    else if (target < g_search.lowerBound)
        target = static_cast<uint16_t>(g_search.lowerBound + 2);
    for (uint16_t p = af_focus(); p != target; p = af_focus()) {
        g_search.searchDir = target > p ? 2 : 1;
        const int left = absdiff(target, p);
        StepMove(static_cast<uint16_t>(left < kDriveStep ? left : kDriveStep));
        // A lens that did not move (a driver refusing steps) would hold the frame loop for ever.
        if (af_focus() == p)
            break;
        platform::sleep_us(kDriveWaitUs);
    }
}

uint8_t centre_has_signal() {
    uint32_t grid[kGridBlocks];
    af_stat_copy_grid(StatGrid::kSharpH, grid);
    const uint32_t centre_window = g_focusValue.winHist[0][12];
    for (int r = 6; r <= 9; ++r)
        for (int c = 6; c <= 9; ++c)
            if (grid[r * kGridCols + c] >= 801 || centre_window >= 301)
                return 1;
    return 0;
}

uint8_t refresh_window_mask(uint8_t use_isp) {
    uint8_t mask[kWindowCount];
    std::memcpy(mask, g_distance.windowMask, sizeof mask);
    if (use_isp == 0 || isp_read_window_mask(mask) == 1) {
        std::memset(g_distance.windowMask, 1, sizeof g_distance.windowMask);
        g_seams.fullMaskFlag = 1;
        return 0;
    }
    g_seams.fullMaskFlag = 0;
    if (std::memcmp(mask, g_distance.windowMask, sizeof mask) == 0)
        return 0;
    std::memcpy(g_distance.windowMask, mask, sizeof mask);
    return 1;
}

void refill_window_history(uint32_t rows[5][kWindowCount]) {
    // The zone's blocks, without the latched lights; the outer ring of blocks always counts, so a
    // subject that leaves the middle still registers in the border windows. A tracked region is
    // the exception: its blocks are the zone wherever the box lies.
    uint8_t selection[kGridBlocks];
    const bool keep_zone = tracking_region_search_active() != 0;
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        selection[b] = g_focusZone.blockMask[b];
        if (g_focusValue.excludedMask[b] != 0)
            selection[b] = 0;
        else if ((r < 3 || r > 11 || c < 3 || c > 11) && !keep_zone)
            selection[b] = 1;
    }
    const uint8_t kind = get_statistics_mode() == 0 ? 5 : 4;
    for (uint8_t k = 0; k < 5; ++k)
        fh_past_window_averages(rows[k], selection, kind, k);
}

void distance_assist_refresh() {
    refresh_window_mask(1);
    g_distance.stabilityCalls = 0;
    g_seams.distanceAtStart = steady_distance();
    g_distance.offsetAtStart = focus_offset(g_seams.distanceAtStart);
}

void distance_start_jump() {
    const uint16_t d = steady_distance();
    if (g_search.firstAfterZoom == 1 && distance_assist_active()) {
        scene_clear_result();
        const int f = af_focus();
        // A near distance the lens already stands short of is left to the search: the table is
        // least certain there and the sweep from the near side finds it quickly.
        const bool near_and_short = d < 3000 && f <= expected_focus(3000);
        if (known(d) && !near_and_short && absdiff(f, expected_focus(d)) > margin())
            g_sceneResult.decision = 1;
    }
    // Also a decision the scene analysis or the watch's distance check left for this start.
    if (g_sceneResult.decision == 1 && distance_assist_active() && known(d)) {
        move_to_distance(d);
        enter_region_search();  // the region search takes over from here
    }
}

bool distance_search_shortcut() {
    if (!distance_assist_active())
        return false;
    const uint16_t d0 = g_seams.distanceAtStart;
    const uint16_t d1 = steady_distance();
    if (!known(d0) || !known(d1) || absdiff(focus_offset(d1), g_distance.offsetAtStart) <= margin())
        return false;
    // With the lens still at the old distance's end, what the sweep measured so far belongs to the
    // old picture: go to the new distance and let the region search finish there. Otherwise the
    // search is already on its way: start it afresh on the picture as it is now.
    const bool lens_at_old = d1 < d0 ? focus_near_high_end(d0, d1) : focus_near_low_end(d0, d1);
    if (!lens_at_old) {
        if (d1 > d0 && af_focus() < expected_focus(d1))
            g_search.upwardMarker = 1;
        restart_search();
        return true;
    }
    g_seams.distanceAtStart = d1;
    g_distance.offsetAtStart = focus_offset(d1);
    g_sceneResult.decision = 1;
    g_focusValue.posHist[0] = af_focus();
    move_to_distance(d1);
    SnapshotReference();
    g_afState = 1;
    enter_region_search();  // the region search takes over from here
    return true;
}

bool distance_flat_jump() {
    const uint16_t d = steady_distance();
    if (!distance_assist_active() || !known(d))
        return false;
    if (af_zoom() > 6000 && SceneHasDetail() == 1)
        return false;
    const uint16_t target = expected_focus(d);
    const uint16_t p = af_focus();
    if (absdiff(target, p) > 5)
        return false;
    uint32_t grid[kGridBlocks];
    af_stat_grid_by_kind(grid, 4);
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int r = 4; r <= 11; ++r)
        for (int c = 4; c <= 11; ++c) {
            const int b = r * kGridCols + c;
            if (g_focusValue.excludedMask[b] == 0 && grid[b] > 55) {
                sum += grid[b];
                ++n;
            }
        }
    if (n != 0 && sum / n >= 200)
        return false;
    // Too flat for the sweep to find a peak: the distance knows better.
    if (target != p) {
        g_search.searchDir = target > p ? 2 : 1;
        StepMove(static_cast<uint16_t>(absdiff(target, p)));
    }
    g_afState = 2;
    g_watch.motionHint = 0;
    g_focusZone.reset_block_mask();
    SelectSearchZone();
    g_seams.jumped = 1;
    g_distance.jumpDistance = d;
    return true;
}

uint8_t watch_distance_check(bool first) {
    if (!distance_assist_active())
        return 0;
    uint8_t outcome = 0;
    if (!first || g_search.firstAfterZoom == 0)
        outcome = compare_with_start(g_seams.distanceAtStart, steady_distance());
    if (outcome == 0) {
        if (first)
            learn_calibration();
        return 0;
    }
    g_sceneResult.pending = 0;
    g_sceneResult.decision = outcome == 1 ? 1 : 0;
    g_afState = 0;
    g_search.restartReason = 3;
    // A nearer subject: the next search starts by driving the lens there, nothing else to do.
    return outcome == 1 ? 1 : 0;
}

void watch_jump_check() {
    g_seams.jumped = 0;
    const uint16_t d1 = steady_distance();
    const uint16_t dj = g_distance.jumpDistance;
    if (known(d1) && absdiff(focus_offset(d1), focus_offset(dj)) <= margin())
        return;
    scene_clear_result();
    g_sceneResult.decision = known(d1) && d1 < dj && focus_near_high_end(dj, d1) ? 1 : 0;
    g_afState = 0;
    g_focusZone.reset_block_mask();
    SelectSearchZone();
}

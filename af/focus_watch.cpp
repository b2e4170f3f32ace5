// Focused watch and wobble check.
//
// A search ends on a peak that the picture showed at that moment; the watch keeps asking whether
// it still holds. It first lets the picture settle for a few AF frames (longer for the wider
// zone types, whose value reacts more slowly), takes the reference the scene analysis compares
// against, and then decides every frame by one of two paths:
//  - the scene path: the change analysis of the block grids against the reference. It sees a
//    subject that came, went or changed, however little the focus value moved;
//  - the motion-hint path, taken when something moved while the search ran or right after it:
//    the change analysis would see that same motion as a change, so the focus itself is checked
//    instead, by whether the subject's blocks still peak at the focus position (from the samples
//    of the search, or by a small wobble of the lens).
#include "af/focus_watch.h"

#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/track_region.h"
#include "base/command_state.h"
#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "scene/scene_analyzer.h"
#include "tracking/curves.h"

WatchState g_watch;

namespace {

void (*g_capture)(const FocusReference&) = capture_reference;
uint32_t (*g_sceneStep)(SceneResult&, const SceneInput&) = scene_step;
uint32_t (*g_sharpnessCheck)(const FocusReference&) = reference_sharpness_check;

// Per-frame records kept here rather than on the stack of the frame (each is over 2 KB).
FhFrame g_frame;
SceneInput g_input;
FocusReference g_reference;

constexpr uint8_t kInner[9] = {6, 7, 8, 11, 12, 13, 16, 17, 18};
constexpr uint8_t kCross[5] = {7, 11, 12, 13, 17};

uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

uint8_t window_of_block(int b) {
    return static_cast<uint8_t>((b / kGridCols / 3) * 5 + (b % kGridCols) / 3);
}

// Mean of a set of window values over the selected windows: without digital zoom each selected
// window counts twice against all 25 (the whole picture is the reference); with it, the plain
// mean of the selected ones, 50 when none.
uint32_t doubled_selection_mean(const uint32_t* w) {
    const uint8_t* wm = g_focusZone.windowMask;
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (wm[z] != 0) {
            sum += w[z];
            ++n;
        }
    if (command_get_ezoom() == 0)
        return 2 * sum / kWindowCount;
    return n == 0 ? 50 : sum / n;
}

// Plain mean over the selected windows (50 when none is selected).
uint32_t selected_mean(const uint32_t* w) {
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0) {
            sum += w[z];
            ++n;
        }
    return n == 0 ? 50 : sum / n;
}

// Window values of the frame ring over the watch mask, the newest five frames averaged: the
// light-dependent statistic (the lower band in low light, whose noise is smaller).
void zone_means(uint32_t* out25) {
    const uint8_t kind = get_statistics_mode() == 0 ? 4 : 5;
    fh_ring_window_averages(out25, g_watch.watchMask, kind, 5);
}

void fill_scene_context() {
    SceneContext& c = g_sceneContext;
    c.searchPhase = static_cast<uint8_t>(g_search.searchPhase);
    c.pointLightMeasure = g_pointLightMeasure;
    c.motionHint = g_watch.motionHint;
    c.distanceAssist = distance_assist_active();
    c.distance = g_seams.currentDistance;
    c.distanceMargin = g_watch.distanceMargin;
    c.lowerBound = g_search.lowerBound;
    c.upperBound = g_search.upperBound;
    c.trackingOn = get_tracking_on() != 0 ? 1 : 0;
    c.lastSearchNoPeak = g_search.noPeak;
    c.distanceStillValid = distance_still_valid;
    c.distanceTrend = distance_trend;
    c.refreshReport = 0;
}

// ---- First focused frame ----
void begin_watch() {
    g_coarse.nearEndTried = 0;
    g_coarse.farEndTried = 0;
    if (g_pointLightMeasure != 0)
        g_watch.plSettle = 30;
    af_stat_copy_grid(StatGrid::kSharpV, g_watch.focusGrid);
    af_stat_copy_grid(StatGrid::kLuma, g_watch.focusLuma);
    g_search.refocusCause = 0;
    // The jumped flag stays until the settled picture has been checked against the distance the
    // jump used (watch frame 5); the next search start clears it otherwise.
    g_seams.distanceAtLastFocus = g_seams.currentDistance;
    const uint16_t m = af_zoom() / 512;
    g_watch.distanceMargin = m < 4 ? 4 : (m > 8 ? 8 : m);
}

// ---- Watch frame 0: the settle period begins ----
void settle_begins() {
    PointLightRecord(0);
    std::memcpy(g_watch.windowMask, g_focusZone.windowMask, kWindowCount);
    SetSearchBounds();
    fh_event_clear();
    // The subject blocks of the reference: the zone's blocks inside the selected windows.
    for (int b = 0; b < kGridBlocks; ++b)
        g_watch.refBlockMask[b] =
            g_focusZone.windowMask[window_of_block(b)] != 0 ? g_focusZone.blockMask[b] : 0;
    g_focusZone.reset_block_mask();
    for (int b = 0; b < kGridBlocks; ++b)
        g_watch.watchMask[b] = g_focusValue.excludedMask[b] == 0 ? 1 : 0;
    af_stat_fetch(1);
    af_stat_copy_window_sharpness(g_watch.refWindows);
    g_watch.wobbleStage = 0;
    g_seams.trackLock = 0;
    if (g_search.searchPhase != 9)
        focused_range_record(af_focus());
    // At the wide end the zoom tracking trims its curve to where this unit really focuses.
    curve_anchor(1);
    if (g_watch.lumaCheckArmed) {
        // The luma changed while the search ran: what the search measured was not one picture.
        uint32_t marked = 0;
        for (int b = 0; b < kGridBlocks; ++b) {
            const uint32_t now = g_watch.focusLuma[b];
            const uint32_t then = g_watch.startLuma[b];
            const uint32_t larger = now > then ? now : then;
            if (absdiff(now, then) * 10 >= larger && larger != 0 &&
                g_focusZone.windowMask[window_of_block(b)] != 0)
                ++marked;
        }
        if (marked > 8) {
            g_watch.changedDuringSearch = 1;
            if (g_presetFlag == 0)
                g_watch.recheck = 1;
        }
    }
    af_stat_copy_grid(StatGrid::kLuma, g_watch.focusLuma);
    highlight_arm_update();
    // The exposure moved by more than a tenth since the search began: the search saw a picture
    // that was still changing.
    const uint32_t e = get_exp_gain_ratio();
    const uint32_t e0 = g_search.startExposure;
    const uint32_t smaller = e < e0 ? e : e0;
    if (absdiff(e, e0) * 10 > smaller && point_light_take_chance())
        g_refocusRequest = 1;
}

// ---- Before the settle length: count, capture the reference at frame 5 ----
void settle_frame() {
    const uint16_t k = g_watch.watchFrames;
    ++g_watch.watchFrames;
    uint8_t low = 0;
    const bool centre_low = get_window_luma_deviation(12) < 15;
    for (uint8_t z : kInner)
        if (centre_low && get_window_luma_deviation(z) < 15)
            ++low;
    if (low > 6)
        ++g_watch.lowTextureFrames;
    if (k == 5) {
        uint32_t cur[kWindowCount];
        af_stat_copy_window_sharpness(cur);
        const uint32_t ref = doubled_selection_mean(g_watch.refWindows);
        const uint32_t now = doubled_selection_mean(cur);
        uint32_t ref_sum = 0;
        uint32_t cur_sum = 0;
        for (uint8_t z : kCross) {
            ref_sum += g_watch.refWindows[z];
            cur_sum += cur[z];
        }
        // A flat picture whose value moved this much while it settled: something moved in it.
        if (g_pointLightMeasure == 0 && g_search.restartReason != 2 &&
            absdiff(ref_sum, cur_sum) > ref_sum * 13 / 64 && absdiff(ref, now) > ref * 5 / 32 &&
            low > 6)
            g_watch.motionHint = 1;
        zone_means(g_watch.refWindows);
        g_seams.zoneChoiceArmed = 1;
        const uint16_t p = af_focus();
        g_watch.focusPosition = p;
        fh_set_position(p, 0);
        uint32_t hgrid[kGridBlocks];
        af_stat_grid_by_kind(hgrid, 5);
        fh_record_sample(g_watch.focusGrid, hgrid, p);
        g_reference.flag = 1;
        std::memcpy(g_reference.windowMask, g_watch.windowMask, kWindowCount);
        std::memcpy(g_reference.windowValues, g_watch.refWindows, sizeof g_reference.windowValues);
        std::memcpy(g_reference.sharpness, g_watch.focusGrid, sizeof g_reference.sharpness);
        std::memcpy(g_reference.luma, g_watch.focusLuma, sizeof g_reference.luma);
        std::memcpy(g_reference.blockMask, g_watch.refBlockMask, kGridBlocks);
        g_reference.focusPosition = p;
        g_reference.distance = g_seams.distanceAtLastFocus;
        fill_scene_context();
        g_capture(g_reference);
        if (g_seams.jumped)
            watch_jump_check();
    }
    if (g_watch.watchFrames == g_watch.settleFrames) {
        if (g_watch.hintAtSettle && g_watch.lowTextureFrames < 2)
            g_watch.motionHint = 1;
        g_watch.lowTextureFrames = 0;
    }
}

// ---- After the settle length: decide ----
void decide() {
    uint32_t cur[kWindowCount];
    zone_means(cur);
    g_fine.lowContrastRetry = 0;
    uint32_t d = 0;
    bool from_hint = false;
    if (g_watch.motionHint == 0) {
        g_watch.watchSkip = 0;
        if (g_watch.recheck) {
            d = 2;
        } else {
            af_stat_copy_grid(StatGrid::kSharpV, g_input.sharpness);
            af_stat_copy_grid(StatGrid::kLuma, g_input.luma);
            g_input.kind = 4;
            static_assert(sizeof cur <= sizeof g_input.windowData);
            std::memcpy(g_input.windowData, cur, sizeof cur);
            fill_scene_context();
            d = g_sceneStep(g_sceneResult, g_input);
            if (g_sceneContext.refreshReport)
                g_search.refocusCause = 2;
        }
        if (d == 2)
            g_watch.recheck = 0;
        else
            d = 0;
    } else if (g_pointLightMeasure != 0) {
        g_watch.motionHint = 0;
    } else if (g_watch.watchSkip == 0) {
        // The frame the hint arrives on still shows the motion.
        g_watch.watchSkip = 1;
    } else {
        from_hint = true;
        const bool tracking = get_tracking_on() != 0;
        bool wobble = false;
        if (ended_by_region_search() || tracking)
            wobble = true;
        else if (g_watch.changedDuringSearch == 1)
            wobble = g_blockPath == 1 && g_search.searchPhase != 9 && g_seams.pointLightZone;
        if (wobble) {
            d = WobbleCheck(0);
        } else {
            fill_scene_context();
            d = g_sharpnessCheck(g_reference);
        }
        if (watch_distance_check(false))
            return;
        // The value fell below a fifth of what it was at focus: whatever still peaks, the
        // subject is not the one that was focused.
        if (d != 0 && 5 * selected_mean(cur) < selected_mean(g_watch.refWindows))
            d = 2;
        if (d == 1) {
            d = 0;
            g_watch.motionHint = 0;
        }
        if (d == 2) {
            scene_clear_result();
            g_search.refocusCause = 1;
        }
    }
    // A tracker that holds the subject itself keeps it through changes the scene reports.
    if (d == 2 && get_tracking_on() != 0 && g_seams.triggerKind == 0 && g_search.refocusCause != 1)
        d = 0;
    if (d != 2)
        return;
    g_watch.motionHint = 0;
    if (g_blockPath == 0)
        SnapshotReference();
    g_search.restartReason = from_hint ? 2 : 1;
    g_watch.hintAtSettle = g_search.refocusCause == 1 ? 0 : 1;
    platform::wall_time(&g_search.searchStartTime);
    g_afState = 0;
}

// ---- Wobble ----
struct Region {
    uint8_t r0, r1, c0, c1;
};

Region wobble_region() {
    Region g{4, 11, 4, 11};
    if (!g_seams.pointLightZone)
        g = Region{1, 14, 1, 14};
    if (highlight_tracking_search_active())
        tracking_region_bounds(&g.r0, &g.r1, &g.c0, &g.c1);
    return g;
}

// Blocks whose middle slot (G1) stands above both neighbours by a visible margin.
uint32_t peaking_blocks() {
    const Region g = wobble_region();
    const uint32_t* G0 = g_focusValue.gridHist[0];
    const uint32_t* G1 = g_focusValue.gridHist[1];
    const uint32_t* G2 = g_focusValue.gridHist[2];
    uint32_t n = 0;
    for (uint8_t r = g.r0; r <= g.r1 && r < kGridRows; ++r)
        for (uint8_t c = g.c0; c <= g.c1 && c < kGridCols; ++c) {
            const int b = r * kGridCols + c;
            if (g_focusValue.excludedMask[b] != 0)
                continue;
            if (G1[b] > G2[b] && G1[b] > G0[b] &&
                (G1[b] - G2[b] > G2[b] / 64 || G1[b] - G0[b] > G0[b] / 32))
                ++n;
        }
    return n;
}

uint32_t peak_map_found() {
    const Region g = wobble_region();
    uint32_t n = 0;
    for (uint8_t r = g.r0; r <= g.r1 && r < kGridRows; ++r)
        for (uint8_t c = g.c0; c <= g.c1 && c < kGridCols; ++c) {
            const int b = r * kGridCols + c;
            if (g_focusValue.excludedMask[b] == 0 && peak_map_state(b) == 1)
                ++n;
        }
    return n;
}

void store(int slot) {
    af_stat_copy_grid(StatGrid::kSharpV, g_focusValue.gridHist[slot]);
}

// The older slots move up by one (G1 becomes G2, G0 becomes G1), or all four for the long wobble
// (whose peak map reads the five slots as five consecutive positions).
void shift(int top) {
    for (int k = top; k > 0; --k)
        std::memcpy(g_focusValue.gridHist[k], g_focusValue.gridHist[k - 1],
                    sizeof g_focusValue.gridHist[k]);
}

void up(uint32_t n) {
    lens_move(0, 0, 1, static_cast<uint8_t>(n));
}
void down(uint32_t n) {
    lens_move(0, 0, 0, static_cast<uint8_t>(n));
}

// One stage per call. The grid read on a stage shows the lens where the previous stage left it.
uint32_t wobble_stage(uint32_t d) {
    const uint16_t z = af_zoom();
    const uint8_t s = g_watch.wobbleStage;
    if (z < 1088) {
        // A short wobble: focus + d, focus, focus - d, back.
        switch (s) {
            case 0:
                up(d);
                return 0;
            case 1:
                store(2);
                down(d);
                return 0;
            case 2:
                store(1);
                down(d);
                return 0;
            case 3:
                store(0);
                up(d);
                return peaking_blocks() < 8 ? 2 : 1;
            default:
                return 3;
        }
    }
    if (z <= 2555) {
        // Peaks within a step either side of the focus position count.
        switch (s) {
            case 0:
                update_peak_map(0);
                up(2 * d);
                return 0;
            case 1:
                store(2);
                down(d);
                return 0;
            case 2:
                store(1);
                down(d);
                return 0;
            case 3:
                store(0);
                if (peaking_blocks() > 5)
                    return 1;
                down(d);
                return 0;
            case 4:
                shift(2);
                store(0);
                if (peaking_blocks() > 5) {
                    up(d);
                    return 1;
                }
                down(d);
                return 0;
            case 5:
                shift(2);
                store(0);
                update_peak_map(2);
                up(2 * d);
                return peak_map_found() < 6 ? 2 : 1;
            default:
                return 3;
        }
    }
    // Towards the tele end the peak is wider: sweep three steps either side through the peak map.
    switch (s) {
        case 0:
            update_peak_map(0);
            up(3 * d);
            return 0;
        case 1:
            store(4);
            down(d);
            return 0;
        case 2:
            store(3);
            down(d);
            return 0;
        case 3:
            store(2);
            down(d);
            return 0;
        case 4:
            store(1);
            down(d);
            return 0;
        case 5:
            store(0);
            update_peak_map(2);
            down(d);
            return 0;
        case 6:
            shift(4);
            store(0);
            update_peak_map(2);
            down(d);
            return 0;
        case 7:
            shift(4);
            store(0);
            update_peak_map(2);
            up(3 * d);
            return peak_map_found() < 4 ? 2 : 1;
        default:
            return 3;
    }
}

}  // namespace

void watch_state_reset() {
    g_watch = WatchState{};
}

uint32_t WobbleCheck(uint8_t mode) {
    if (mode == 1)
        return peaking_blocks();
    if (mode != 0)
        return 0;
    const uint32_t d = af_zoom() > 3000 ? 2 : 1;
    const uint32_t r = wobble_stage(d);
    if (r == 3) {
        g_watch.wobbleStage = 0;
        return 0;
    }
    if (r == 0)
        ++g_watch.wobbleStage;
    else
        g_watch.wobbleStage = 0;
    return r;
}

void FocusWatch(uint8_t focused) {
    if (focused == 0) {
        g_watch.watchFrames = 0;
        g_watch.wobbleStage = 0;
        g_watch.watchSkip = 0;
        g_watch.lowTextureFrames = 0;
        g_watch.plSettle = 0;
        return;
    }
    // 1. First focused frame.
    if (g_watch.watchBegun == 0) {
        begin_watch();
        if (watch_distance_check(true))
            return;
        g_watch.watchBegun = 1;
    }
    // 2. A point-light scene waits before it is watched.
    if (g_watch.plSettle != 0) {
        --g_watch.plSettle;
        return;
    }
    point_light_exposure_watch();
    // The settle length by zone type: the wider the zone, the slower its value settles.
    const bool high = get_high_rate() != 0;
    switch (g_zoneType) {
        case 1:
            g_watch.settleFrames = high ? 12 : 6;
            break;
        case 2:
            g_watch.settleFrames = high ? 16 : 8;
            break;
        default:
            g_watch.settleFrames = high ? 20 : 12;
            break;
    }
    // 3.
    if (g_watch.watchFrames == 0)
        settle_begins();
    // 4. The later grid (the next search start compares it with the grid at focus) and the
    //    frame ring the zone means are taken from.
    af_stat_copy_grid(StatGrid::kSharpV, g_watch.laterGrid);
    fh_frame_from_stats(&g_frame);
    fh_ring_push(g_frame);
    // 5-6.
    if (g_watch.watchFrames >= g_watch.settleFrames)
        decide();
    else
        settle_frame();
}

void focused_range_reset() {
    g_watch.focusedRange[0] = lens_get_focus_max();
    g_watch.focusedRange[1] = lens_get_focus_min();
    g_watch.focusedRange[2] = lens_get_focus_max();
}

void focused_range_record(uint16_t p) {
    uint16_t* r = g_watch.focusedRange;
    if (p < r[0])
        r[0] = p;
    if (p > r[1])
        r[1] = p;
    // At the top of the range "last" stands for the whole range from its bottom.
    r[2] = r[1] - p < 5 ? r[0] : p;
}

void watch_set_reference_windows() {
    af_stat_copy_window_sharpness(g_watch.refWindows);
}

const uint8_t* watch_reference_block_mask() {
    return g_reference.blockMask;
}

void watch_clear_reference_mask() {
    std::memset(g_watch.refBlockMask, 0, sizeof g_watch.refBlockMask);
    af_stat_copy_grid(StatGrid::kLuma, g_watch.startLuma);
}

void watch_set_scene_hooks_for_testing(const WatchSceneHooks& hooks) {
    g_capture = hooks.capture != nullptr ? hooks.capture : capture_reference;
    g_sceneStep = hooks.step != nullptr ? hooks.step : scene_step;
    g_sharpnessCheck = hooks.check != nullptr ? hooks.check : reference_sharpness_check;
}

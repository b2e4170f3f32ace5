// AF state machine: decides, frame by frame, whether autofocus prepares a search (state 0), runs
// one (state 1) or watches a focused picture (state 2), and restarts the search when the zoom,
// the exposure or the pan/tilt head change.
//
// The frame divider is part of the optics here: after a lens move the statistics of the next
// frame or two still show the old position (the sensor exposes while the motor runs and the ISP
// reports a frame late), so the phases that move and then judge run on the slow divider, and only
// the climb, whose decisions tolerate a one-frame lag, runs on the fast one.
#include "af/auto_focus.h"

#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/block_regions.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/highlight_scene.h"
#include "af/track_region.h"
#include "base/command_state.h"
#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/iris.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "scene/scene_analyzer.h"
#include "tracking/curves.h"
#include "tracking/distance_table.h"
#include "tracking/zoom_track.h"

SearchState g_search;

void search_state_reset() {
    g_search = SearchState{};
}

namespace {

// The ISP's statistics mode as its listener last reported it, and whether the listener and the
// zone's block weights have been handed to the statistics side.
uint8_t g_lowLight = 0;
uint8_t g_hooksInstalled = 0;

volatile uint8_t g_distanceAssist = 0;

// Publishes the positions after a zoom change (the command channel's shared record).
// The command channel's position publishing, installed at start-up (nothing before).
void (*g_publishPositions)() = nullptr;

// Zoom position above which the tele end uses the low-noise filter profile.
constexpr uint16_t kFilterZoomSplit = 5682;

void on_low_light(uint8_t low_light) {
    g_lowLight = low_light != 0 ? 1 : 0;
}

// The statistics side reads the zone's block weights and the tracking trigger directly.
void install_hooks() {
    if (g_hooksInstalled)
        return;
    g_hooksInstalled = 1;
    highlight_set_block_weights(g_focusZone.blockMask);
    isp_set_low_light_listener(on_low_light);
    g_lowLight = get_statistics_mode() != 0 ? 1 : 0;
}

uint16_t digital_zoom() {
    const uint32_t d = command_get_ezoom();
    return static_cast<uint16_t>(d > 0xFFFF ? 0xFFFF : d);
}

uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// Restart bookkeeping shared by the restart paths: a new search will be prepared.
void clear_search_markers() {
    g_fine.lowContrastRetry = 0;
    g_seams.regionCollapseCount = 0;
    g_seams.regionCount2 = 0;
    g_watch.motionHint = 0;
}

bool check_restart() {
    const uint16_t z = af_zoom();
    const uint16_t d = digital_zoom();
    bool restart = false;
    const bool request = g_refocusRequest == 1;
    if (z == g_search.lastZoom && d == g_search.lastDigitalZoom && !request) {
        restart = exposure_change_test(g_afState != 0 ? 1 : 0) == 1;
    } else {
        restart = true;
    }
    if (!restart) {
        // A focus outside the range (a manual move, a new range) starts over.
        const uint16_t f = af_focus();
        if (f < g_search.lowerBound || f > g_search.upperBound) {
            g_search.refocusCause = 9;
            g_lastAfPos = f;
            SelectSearchZone();
            g_afState = 0;
            g_fine.lowContrastRetry = 0;
            FineReset(2);
            g_seams.regionCollapseCount = 0;
            g_seams.regionCount2 = 0;
            g_watch.motionHint = 0;
            g_focusValue.markerA = 1;
            g_pointLightMeasure = 0;
            g_seams.zoneChoiceArmed = 1;
        }
        return false;
    }
    // 1. A digital zoom alone does not move the optics.
    if (z == g_search.lastZoom && d != g_search.lastDigitalZoom && !request) {
        g_search.lastDigitalZoom = d;
        return false;
    }
    if (get_window_preset() == 3)
        g_blockPath = d == 0 ? 1 : 0;
    const bool zoom_changed = z != g_search.lastZoom;
    g_search.refocusCause = 9;
    g_focusZone.reset_block_mask();
    g_seams.trackLock = 0;
    g_search.lastDigitalZoom = d;
    g_search.giveUp = 0;
    // Every restart gives the fine scan its full tolerance back (a fine scan or final approach
    // that fell below its reference lowered it for the searches of the same picture).
    FineReset(2);
    g_lastAfPos = af_focus();
    g_search.searchStartPos = af_focus();
    g_afState = 0;
    // The search moves the focus off the curve the last zoom followed: the next zoom must pick
    // its curve from where the focus is then.
    zoom_track_clear_active();
    // Zooming in moves the in-focus position towards smaller focus positions.
    g_search.searchDir = z > g_search.lastZoom ? 1 : 2;
    update_peak_map(0);
    g_search.hitLower = g_search.hitUpper = 0;
    SnapshotReference();
    clear_search_markers();
    if (zoom_changed || request) {
        g_search.restartReason = 0;
        g_search.dirCheckArmed = 1;
        ResetTrackBounds();
        scene_clear_events();
        g_seams.detailTestOn = 1;
        g_search.visitMin = g_search.upperBound;
        g_search.visitMax = g_search.lowerBound;
        g_search.startFresh = 1;
        g_seams.centreChance = 1;
    }
    if (zoom_changed) {
        g_zoomChanged = 1;
        if (g_publishPositions != nullptr)
            g_publishPositions();
        focused_range_reset();
        g_search.firstAfterZoom = 1;
        // The statistics filters follow the zoom across 5682 (the power-on "last zoom" of 10000
        // counts as above it, so the first restart at a wider zoom sets them too).
        if (g_search.lastZoom <= kFilterZoomSplit && z > kFilterZoomSplit) {
            set_filter_param(1, 2, 60, 80);
            set_statistics_mode(0);
            platform::sleep_us(10000);
        } else if (g_search.lastZoom > kFilterZoomSplit && z <= kFilterZoomSplit) {
            if (get_exp_gain_ratio() > 119)
                set_filter_param(3, 3, 80, 80);
            else
                set_filter_param(1, 2, 60, 80);
            platform::sleep_us(10000);
        }
    } else {
        SelectSearchZone();
    }
    g_search.lastZoom = z;
    g_refocusRequest = 0;
    SetSearchBounds();
    g_seams.dirHold = 0;
    platform::wall_time(&g_search.searchStartTime);
    g_focusValue.markerA = 1;
    g_pointLightMeasure = 0;
    g_seams.zoneChoiceArmed = 1;
    g_watch.hintAtSettle = 1;
    return true;
}

bool sharpness_test(uint8_t sensitivity, uint32_t v) {
    static constexpr uint32_t kT[16] = {0,   0,   100, 200, 300, 400, 450, 500,
                                        500, 500, 500, 500, 550, 600, 650, 700};
    if (!af_low_light())
        return false;
    const uint32_t T = kT[(af_zoom() / 512) & 15];
    if (sensitivity == 1)
        return v > T + 400 || (g_zoneType > 1 && v > T + 300);
    return v > T + 400;
}

// Whether a search starts with the coarse approach (true) or straight in the fine scan.
bool start_phase_is_coarse() {
    const uint16_t z = af_zoom();
    const uint8_t* wm = g_focusZone.windowMask;
    if (g_search.startFresh == 1) {
        uint8_t n = 0;
        for (int w = 0; w < kWindowCount; ++w)
            n += wm[w] != 0;
        if (z >= 1000) {
            uint8_t count = 0;
            for (int w = 0; w < kWindowCount; ++w) {
                if (wm[w] == 0)
                    continue;
                const uint32_t v = get_window_sharpness(static_cast<uint8_t>(w));
                if (z >= 1500 && v > 1500)
                    return false;
                if (sharpness_test(z >= 1500 ? 0 : 1, v))
                    ++count;
                if (z >= 1500) {
                    if (count > 1 || (count > 0 && count >= n / 2) || n == 1)
                        return false;
                } else if (count > 3 || (count == n && count > 0)) {
                    return false;
                }
            }
            return true;
        }
        uint32_t largest = 0;
        uint8_t below = 0;
        for (int w = 0; w < kWindowCount; ++w) {
            if (wm[w] == 0)
                continue;
            const uint32_t v = get_window_sharpness(static_cast<uint8_t>(w));
            largest = v > largest ? v : largest;
            below += v < 1200;
        }
        if (largest >= 1600)
            return below + 1 >= n && n > 1;
        if (n > 1)
            return true;
        if (wm[12] == 0)
            return false;
        uint8_t dim_lights = 0;
        for (int w = 0; w < kWindowCount; ++w)
            if (is_highlight_window(w) && get_window_sharpness(static_cast<uint8_t>(w)) < 600)
                ++dim_lights;
        return dim_lights > 3;
    }
    // A refocus from a focused picture: compare the grid at the last focus with the one the
    // focused watch saw last. Blocks that were sharp and are now much less so say the subject
    // left its focus and the peak may be far; no change at all says the same of a scene the
    // watch could not judge by sharpness. Otherwise the peak is near and the fine scan finds it.
    if (z > 3746 && !af_low_light() && (g_sceneResult.event == 0 || g_sceneResult.event == 1))
        return true;
    uint32_t then = 0;
    uint32_t now = 0;
    for (int w = 0; w < kWindowCount; ++w) {
        if (wm[w] == 0)
            continue;
        // The walk starts one block into the window (the last window row and column stop at
        // the picture's edge).
        for (int r = 3 * (w / 5) + 1; r <= 3 * (w / 5) + 3 && r < kGridRows; ++r)
            for (int c = 3 * (w % 5) + 1; c <= 3 * (w % 5) + 3 && c < kGridCols; ++c) {
                const uint32_t f = g_watch.focusGrid[r * kGridCols + c];
                const uint32_t l = g_watch.laterGrid[r * kGridCols + c];
                if (f > 800 && 4 * f > 5 * l)
                    ++then;
                if (l > 800 && 4 * l > 5 * f)
                    ++now;
            }
    }
    if (then == 0 && now == 0)
        return true;
    return then > 5 && then > 2 * now && (z >= 2556 || g_focusValue.fvHist[0] <= 3000);
}

}  // namespace

void ChooseStartDirection() {
    const uint16_t p = af_focus();
    const uint16_t p0 = g_focusValue.posHist[0];
    const int32_t B = af_curve_base();
    // 1. A refocus asked by the focused watch: what changed in the picture, and the
    //    focused-position range, say where the subject went.
    if (g_search.restartReason == 1 || g_search.restartReason == 2) {
        const uint16_t lo = g_watch.focusedRange[0];
        const uint16_t hi = g_watch.focusedRange[1];
        const uint32_t W = hi > lo ? hi - lo : 0;
        if (g_blockPath == 1 && g_sceneResult.pending == 0) {
            // Changed blocks inside the block search window, lights left out.
            const BlockSearchWindow& bw = g_blockSearchWindow;
            uint32_t n = 0;
            for (uint8_t r = bw.firstRow; r < bw.endRow; ++r)
                for (uint8_t c = bw.firstCol; c < bw.endCol; ++c) {
                    const int b = r * kGridCols + c;
                    if (g_focusValue.excludedMask[b] != 0)
                        g_sceneResult.region[b] = 0;
                    n += g_sceneResult.region[b] != 0 ? 1 : 0;
                }
            const bool near_high_end = p > B && (W <= 10 || absdiff(p, hi) < W / 3);
            if (n < 8 && !near_high_end) {
                // Little changed where the subject was: it most likely came nearer.
                g_search.searchDir = 2;
            }
            // What the scene analysis saw has the last word.
            if (g_sceneResult.event == kObjectOut) {
                g_search.searchDir = 2;
            } else if (g_sceneResult.event == kObjectIn) {
                g_search.searchDir = g_seams.pointLightStartMarker ? 2 : 1;
            } else {
                uint32_t dim = 0;
                for (int w = 0; w < kWindowCount; ++w)
                    dim += window_value_now(w) < 600 ? 1 : 0;
                g_search.searchDir = dim < 17 ? 1 : 2;
            }
        } else if (g_blockPath == 1) {
            g_search.searchDir = 1;
        }
        if (W > 10) {
            if (absdiff(p, lo) < W / 3)
                g_search.searchDir = 2;
            else if (absdiff(p, hi) < W / 3)
                g_search.searchDir = 1;
        }
    }
    // 2. Outside the range: step in and search inwards.
    if (p0 < g_search.lowerBound) {
        uint32_t d = g_search.lowerBound - p0;
        lens_move(0, 0, 1, static_cast<uint8_t>(d > 30 ? 30 : d));
        g_search.searchDir = 2;
        g_search.hitLower = 1;
        g_lastAfPos = af_focus();
    } else if (p0 > g_search.upperBound) {
        uint32_t d = p0 - g_search.upperBound;
        lens_move(0, 0, 0, static_cast<uint8_t>(d > 30 ? 30 : d));
        g_search.searchDir = 1;
        g_search.hitUpper = 1;
        g_lastAfPos = af_focus();
    } else {
        if (g_seams.fullMaskFlag == 1 && g_blockPath == 1 && g_search.firstAfterZoom == 1 &&
            g_search.dirCheckArmed) {
            uint8_t c = 0;
            bool all_dim = true;
            for (int w = 0; w < kWindowCount; ++w) {
                const uint32_t v = get_window_sharpness(static_cast<uint8_t>(w));
                if (g_focusZone.windowMask[w] != 0 && v > 1000)
                    ++c;
                if (v >= 601)
                    all_dim = false;
            }
            uint32_t grid[kGridBlocks];
            af_stat_grid_by_kind(grid, 4);
            const bool D = IsDarkFlat(grid);
            if (p > B + af_far_offset(27) && D)
                g_search.searchDir = 1;
            else if (p < B + af_far_offset(15) && D)
                g_search.searchDir = 2;
            else if (p > B + af_far_offset(32) + 5)
                g_search.searchDir = all_dim ? 2 : 1;
            else if (c == 0)
                g_search.searchDir = 2;
            else
                g_search.searchDir = 1;
            g_search.dirCheckArmed = 0;
        }
        if (g_sceneResult.event == 1)
            g_search.searchDir = 2;
        if (p < B - 50)
            g_search.searchDir = 2;
        else if (p > B + af_far_offset(50) + 50)
            g_search.searchDir = 1;
    }
    // 3. Distance assist: a subject nearer than the focus asks for larger positions.
    if (distance_assist_active() && g_seams.currentDistance != kDistanceUnknown &&
        g_seams.distanceAtLastFocus < 3000 && p < expected_focus_now())
        g_search.searchDir = 2;
}

namespace {

void restart_preparation() {
    if (g_search.restartReason == 1 || g_search.restartReason == 2) {
        g_seams.trackLock = 0;
        update_peak_map(0);
        g_seams.regionCollapseCount = 0;
        g_seams.regionCount2 = 0;
        g_pointLightMeasure = 0;
        g_windowAverage = 0;
        g_search.hitLower = g_search.hitUpper = 0;
        g_watch.lumaCheckArmed = 1;
        point_light_rearm_watch(2);
    }
    SnapshotReference();
    if (g_search.firstAfterZoom == 1) {
        g_watch.lumaCheckArmed = 1;
        point_light_rearm_watch(2);
        g_coarse.nearEndTried = g_coarse.farEndTried = 0;
        g_watch.hintAtSettle = 1;
        scene_clear_result();
    }
    g_coarse.nearEndTried = g_coarse.farEndTried = 0;
    g_refocusRequest = 0;
    g_seams.distanceAtStart = g_seams.currentDistance;
    distance_assist_refresh();
}

void start_search() {
    SetBestFv(50);
    g_search.giveUp = 0;
    g_seams.pointLightStartMarker = 0;
    const uint32_t exposure = get_exposure_mode();
    SetSearchBounds();
    if (exposure < 10) {
        set_statistics_mode(0);
        g_presetFlag = 0;
    } else if (exposure > 12) {
        set_statistics_mode(2);
        g_presetFlag = 1;
    }
    // A new filter profile needs a frame before its statistics are valid.
    if (isp_auto_filter_update() != 0)
        return;
    restart_preparation();
    clear_trend_series();
    point_light_clear_series();
    PointLightRecord(0);
    g_search.framesInDir = 0;
    uint32_t grid[kGridBlocks];
    af_stat_grid_by_kind(grid, 4);
    g_seams.plSeriesArmed = IsDarkFlat(grid) ? 1 : 0;
    if (g_seams.plSeriesArmed)
        point_light_build_lists();
    PushRestartReason(g_search.restartReason);
    if (g_search.restartReason != 1)
        g_sceneResult.event = kObjectNon;
    g_watch.motionHint = AllReasonsTwo() ? 0 : 1;
    fh_reset_for_search();
    const uint16_t p = af_focus();
    fh_set_position(p, 1);
    fh_event_append(1, 4, p);
    uint32_t hgrid[kGridBlocks];
    af_stat_grid_by_kind(hgrid, 5);
    fh_record_sample(g_focusValue.gridHist[0], hgrid, p);
    g_search.lastZoom = af_zoom();
    watch_clear_reference_mask();
    g_search.noPeak = 0;
    if (g_search.firstAfterZoom == 1) {
        g_search.visitMin = g_search.upperBound;
        g_search.visitMax = g_search.lowerBound;
    }
    PrepareWatch();
    ChooseStartZone();
    RefineStartZone();
    ChooseStartDirection();

    // 4. Inside the range the search begins.
    const uint16_t f = af_focus();
    if (f >= g_search.lowerBound && f <= g_search.upperBound) {
        g_seams.zoneChoiceArmed = 0;
        g_afState = 1;
        g_search.searchPhase = start_phase_is_coarse() ? 1 : 3;
        const int32_t B = af_curve_base();
        if (f < B - 50 || f > B + af_far_offset(50) + 50)
            g_search.searchPhase = 1;
        // Whether the search itself chose to start fine; a point-light measure starts fine in
        // any case, but the coarse approach's own step rules stay in force if it comes to them.
        g_fine.startedFine = g_search.searchPhase == 3 ? 1 : 0;
        if (g_pointLightMeasure != 0)
            g_search.searchPhase = 3;
        g_search.startExposure = get_exp_gain_ratio();
        g_search.startIris = iris_get_value();
        distance_start_jump();
        if (g_sceneResult.event == kObjectConFar)
            g_search.upwardMarker = 1;
        g_seams.jumped = 0;
        if (g_search.upwardMarker)
            g_search.searchDir = 2;
        g_search.upwardMarker = 0;
    }
    // 5. A tracked region is the zone of its search.
    track_region_to_zone();
    g_zoomChanged = 0;
    g_ptChanged = 0;
}

void unsuccessful_finish() {
    g_final.finalStep = 1;
    g_climb.finalReturn = 0;
    g_focusZone.reset_block_mask();
    g_seams.trackLock = 0;
    af_stat_fetch(1);
    g_search.hitLower = g_search.hitUpper = 0;
    update_peak_map(0);
    g_seams.regionCollapseCount = 0;
    g_seams.regionCount2 = 0;
    g_search.failCount = 0;
    g_watch.motionHint = 0;
    g_afState = 2;
    watch_set_reference_windows();
    SetBestFv(50);
    g_search.searchPhase = 9;
    g_search.noPeak = 1;
}

// Drives towards the best place seen after a search found no peak. Returns true on arrival.
bool return_to_best_seen() {
    const uint16_t target = g_focusValue.searchMaxWindow > 99 ? g_focusValue.searchMaxWindowPos
                                                              : g_search.searchStartPos;
    g_search.returnEpisode = 0;
    const uint16_t p = af_focus();
    if (p == target || (g_focusValue.frameMaxWindow >= g_focusValue.searchMaxWindow &&
                        g_focusValue.frameMaxWindow >= 101))
        return true;
    const uint32_t want = target < p ? 1 : 2;
    if (g_search.searchDir == want) {
        const uint32_t d = absdiff(target, p);
        StepMove(static_cast<uint16_t>(d > 30 ? 30 : d));
    } else {
        g_search.searchDir = want;
    }
    return false;
}

void search_frame() {
    const uint16_t f = af_focus();
    // 1. Visited range.
    if (f < g_search.visitMin)
        g_search.visitMin = f;
    if (f > g_search.visitMax)
        g_search.visitMax = f;
    if (g_search.visitMin < g_search.lowerBound)
        g_search.visitMin = g_search.lowerBound;
    if (g_search.visitMax > g_search.upperBound)
        g_search.visitMax = g_search.upperBound;
    // 2. The frame after a turn still shows the old side: skip it.
    if (g_search.searchDir != g_search.lastDirSeen) {
        g_search.lastDirSeen = static_cast<uint16_t>(g_search.searchDir);
        return;
    }
    // 3. Divider.
    if (g_search.searchPhase == 2) {
        if (af_slow_divider())
            af_set_slow_divider(false);
    } else if (!af_slow_divider()) {
        af_set_slow_divider(true);
        return;
    }
    // 4. The subject moved in depth while the search ran.
    if (distance_search_shortcut())
        return;
    // 5. Region search frames.
    if (g_search.searchPhase == 8) {
        af_stat_copy_grid(StatGrid::kSharpV, g_focusValue.gridHist[0]);
        region_search(1);
        return;
    }
    // 6. Sample and step.
    if (SampleFrame())
        return;
    // No peak: both ends of the range were reached and the lens stands still or is back at an
    // end. Nothing between the ends peaked, so go back to the best place seen.
    const bool at_rest =
        g_focusValue.posHist[1] == f || f <= g_search.lowerBound || f >= g_search.upperBound;
    if ((g_climb.finalReturn == 0 && g_search.hitLower && g_search.hitUpper && at_rest) ||
        g_search.giveUp == 1) {
        SetSearchBounds();
        if (return_to_best_seen()) {
            ++g_search.failCount;
            g_search.hitLower = g_search.hitUpper = 0;
            g_search.giveUp = 0;
            const uint32_t smax = g_focusValue.searchMaxWindow;
            if (!g_seams.pointLightZone || g_search.failCount > 1 ||
                smax / 2 < g_focusValue.frameMaxWindow || g_watch.changedDuringSearch) {
                unsuccessful_finish();
            } else {
                // One more try with the sharpest single window.
                g_search.searchPhase = 1;
                g_fine.retryMarker = 1;
                SetBestFv(50);
                uint8_t best = 0;
                uint32_t v = 50;
                for (uint8_t w = 0; w < kWindowCount; ++w)
                    if (g_focusValue.winHist[0][w] > v) {
                        v = g_focusValue.winHist[0][w];
                        best = w;
                    }
                g_focusZone.clear_window_mask();
                g_focusZone.windowMask[best] = 1;
            }
            return;
        }
        // Still on the way back: no phase step runs, the rest of the frame does.
        g_search.searchPhase = 9;
    }
    CountDirectionFrames();
    switch (g_search.searchPhase) {
        case 1:
            update_running_extremes();
            CoarseStep();
            ClimbReset();
            break;
        case 2:
            update_running_extremes();
            ClimbStep();
            CoarseReset();
            g_fine.retryMarker = 0;
            FineReset(get_statistics_mode() == 0 ? 3 : 0);
            break;
        case 3:
            clear_final_counters();
            AnchorSet(1);
            FineStep();
            break;
        case 4:
            FinalStep();
            FineReset(0);
            g_fine.retryMarker = 0;
            g_fine.fineRetries = 0;
            break;
        default:
            break;
    }
    g_lastAfPos = af_focus();
    if (g_afState == 2) {
        highlight_clear_latched();
        fh_set_position(af_focus(), 0);
        if (command_autofocus_mode() == 3 && g_oneShotStage == 1)
            g_oneShotStage = 2;
    }
}

void pan_tilt_moving() {
    if (g_search.ptMoveFrames < 255)
        ++g_search.ptMoveFrames;
    update_peak_map(0);
    g_seams.regionCollapseCount = 0;
    g_seams.regionCount2 = 0;
    ResetZoneCross();
    g_search.firstAfterZoom = 1;
    g_search.restartReason = 0;
    ResetTrackBounds();
    scene_clear_events();
    g_seams.dirHold = 0;
    focused_range_reset();
    g_focusValue.markerA = 1;
    g_seams.detailTestOn = 1;
    g_pointLightMeasure = 0;
    g_search.startFresh = 1;
    g_seams.zoneChoiceArmed = 1;
    g_search.dirCheckArmed = 1;
    g_seams.centreChance = 1;
    g_ptChanged = 1;
}

void restart_for_head() {
    g_search.ptHold = 10;
    g_fine.fineGain = 9;
    g_search.refocusCause = 9;
    g_search.failCount = 0;
    g_search.hitLower = g_search.hitUpper = 0;
    g_afState = 0;
    g_fine.lowContrastRetry = 0;
    g_watch.motionHint = 0;
    if (g_blockPath == 0)
        ResetZoneCross();
    else
        g_seams.trackLock = 0;
}

}  // namespace

bool StartPhaseIsCoarse() {
    return start_phase_is_coarse();
}

uint8_t af_low_light() {
    return g_lowLight;
}

uint16_t af_zoom() {
    return lens_get_zoom_pos();
}

uint16_t af_focus() {
    return lens_get_focus_pos();
}

uint16_t af_curve_base() {
    return curve_get_point(af_zoom() / 32);
}

int32_t af_far_offset(uint8_t row) {
    const uint16_t s = af_zoom() / 32;
    const uint16_t zs = static_cast<uint16_t>(s * 32);
    return static_cast<int32_t>(curve_focus_at(static_cast<uint8_t>(row + 1), zs)) -
           static_cast<int32_t>(curve_get_point(s));
}

uint8_t af_slow_divider() {
    return get_af_slow();
}

void af_set_slow_divider(bool slow) {
    set_af_divider(slow);
}

void FlipDirection() {
    if (g_seams.dirHold)
        return;
    g_search.searchDir = g_search.searchDir == 1 ? 2 : 1;
}

void SetSearchBounds() {
    const uint16_t z = af_zoom();
    g_search.lowerBound = curve_get_lower_bound(z / 32);
    g_search.upperBound = curve_get_upper_bound(z / 32);
    g_search.nearThreshold =
        static_cast<uint16_t>((2u * curve_focus_at(0, z) + g_search.lowerBound) / 3);
    g_search.farThreshold = g_search.upperBound;
}

void CountDirectionFrames() {
    // Its own memory of the direction: the skip of the frame after a turn has already taken
    // g_search.lastDirSeen along.
    if (g_search.searchDir != g_search.countedDir) {
        g_search.countedDir = g_search.searchDir;
        g_search.framesInDir = 1;
        g_search.dirChangePos = af_focus();
    } else {
        ++g_search.framesInDir;
    }
}

void AfFrame() {
    install_hooks();
    // 1-2.
    g_zoomMotionMarker = 0;
    // A window preset or digital zoom the command channel changed takes effect now, before the
    // restart check (whose digital-zoom rule for preset 3 must see the new preset).
    window_preset_rebuild(command_get_ezoom());
    if (check_restart())
        return;
    // 3. The first searching frame takes a fresh reference from a settled picture.
    if (g_afState == 1) {
        if (++g_search.stateOneFrames == 1) {
            SnapshotReference();
            g_afState = 1;
        }
    } else {
        g_search.stateOneFrames = 0;
    }
    // 4-6. Pan/tilt: hold the search while the head moves, restart once it has stopped.
    const bool head_moving = command_pt_moving() != 0;
    if (head_moving) {
        pan_tilt_moving();
        if (g_search.ptMoveFrames < 255) {
            SetBestFv(50);
            if (g_search.ptHold == 0)
                g_search.ptHold = 2;
            else
                restart_for_head();
        }
    } else {
        g_search.ptMoveFrames = 0;
        if (g_search.ptHold != 0) {
            if (g_search.ptHold > 2 && g_search.ptHold < 9) {
                const uint32_t column = (get_window_sharpness(7) + get_window_sharpness(12) +
                                         get_window_sharpness(17)) /
                                        3;
                if (g_afState == 2 && column > 999) {
                    g_watch.motionHint = 0;
                } else {
                    g_search.refocusCause = 9;
                    g_lastAfPos = af_focus();
                    g_search.hitLower = g_search.hitUpper = 0;
                    g_afState = 0;
                    g_fine.lowContrastRetry = 0;
                    g_fine.fineGain = 9;
                }
            }
            g_search.ptHold = g_search.ptHold > 6 ? static_cast<uint8_t>(g_search.ptHold - 6) : 0;
            platform::wall_time(&g_search.searchStartTime);
        }
    }
    // 7. A new tracker box (or a zoom or pan/tilt it reports) starts a new search.
    track_trigger();
    // 8.
    if (g_search.ptHold == 0) {
        switch (g_afState) {
            case 0:
                if (!af_slow_divider()) {
                    af_set_slow_divider(true);
                    break;
                }
                start_search();
                reset_search_max_window();
                CoarseReset();
                FineReset(0);
                update_peak_map(0);
                reset_running_extremes();
                g_watch.changedDuringSearch = 0;
                highlight_disarm_update();
                g_focusValue.rule3Acted = 0;
                g_search.lastDirSeen = static_cast<uint16_t>(g_search.searchDir);
                g_focusValue.markerC = 1;
                g_seams.zoneResetCountdown = 3;
                break;
            case 1:
                search_frame();
                FocusWatch(0);
                g_seams.dirHold = 0;
                if (g_afState == 2)
                    af_set_slow_divider(true);
                if (g_afState == 0)
                    g_sceneResult.decision = 0;
                break;
            case 2:
                if (!af_slow_divider()) {
                    af_set_slow_divider(true);
                    break;
                }
                g_search.failCount = 0;
                g_focusValue.markerA = 1;
                g_seams.detailTestOn = 1;
                ResetTrackBounds();
                FineReset(0);
                if (distance_assist_active() && expected_focus_now() < g_search.lowerBound)
                    g_search.lowerBound = expected_focus_now() <= 50
                                              ? 0
                                              : static_cast<uint16_t>(expected_focus_now() - 50);
                FocusWatch(1);
                g_search.firstAfterZoom = 0;
                g_search.focusDone = 1;
                g_lastAfPos = af_focus();
                g_search.searchStartPos = af_focus();
                if (g_afState != 2) {
                    g_search.visitMin = g_search.upperBound;
                    g_search.visitMax = g_search.lowerBound;
                }
                g_search.startFresh = 0;
                g_seams.triggerKind = 0;
                break;
            default:
                break;
        }
    }
    // 9.
    if (g_afState != 2)
        g_watch.watchBegun = 0;
}

void ReturnToLastPosition() {
    SetSearchBounds();
    uint16_t target = g_lastAfPos;
    if (target < g_search.lowerBound)
        target = g_search.lowerBound;
    if (target > g_search.upperBound)
        target = g_search.upperBound;
    g_lastAfPos = target;
    const uint16_t p = af_focus();
    if (p < target) {
        g_search.searchDir = 2;
        const uint32_t d = target - p;
        StepMove(static_cast<uint16_t>(d > 30 ? 30 : d));
    } else if (p > target) {
        g_search.searchDir = 1;
        const uint32_t d = p - target;
        StepMove(static_cast<uint16_t>(d > 30 ? 30 : d));
    }
    if (af_focus() == target)
        g_returnToLast = 0;
}

uint8_t get_distance_assist_mode() {
    return g_distanceAssist;
}
void set_distance_assist_mode(uint8_t on) {
    g_distanceAssist = on;
}

void af_set_position_publisher(void (*publish)()) {
    g_publishPositions = publish;
}

void af_reset_for_testing() {
    g_afState = 0;
    g_refocusRequest = 0;
    g_returnToLast = 0;
    g_oneShotStage = 0;
    g_zoomMotionMarker = 0;
    g_lastAfPos = 0;
    search_state_reset();
    set_af_slow(0);
    g_hooksInstalled = 0;
    focus_zone_reset_for_testing();
    focus_value_reset_for_testing();
    contrast_search_reset_for_testing();
    fine_scan_reset_for_testing();
    af_seams_reset_for_testing();
    block_regions_reset_for_testing();
    point_light_reset_for_testing();
    distance_state_reset();
    track_region_state_reset();
    scene_clear_result();
    fh_reset_for_testing();
    SetSearchBounds();
}

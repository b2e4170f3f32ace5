// Focus value: one number per frame that peaks when the zone is in focus.
//
// The ISP's band-pass and high-pass filter sums grow with the fine detail a block shows, and fine
// detail is largest when the lens images the subject sharply. The focus value is their mean over
// the focus zone (windows or blocks), floored at 50 so that a featureless frame reads 50 and never
// 0. Because the zone can change in mid-search, the five-frame histories keep the raw window and
// block values and every frame recomputes all five focus values under the zone now in force; the
// trend tests then never compare values measured over different parts of the picture.
#include <algorithm>
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/distance_assist.h"
#include "af/focus_zone.h"
#include "af/highlight_scene.h"
#include "base/command_state.h"
#include "base/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "scene/scene_analyzer.h"

FocusValueState g_focusValue;

void focus_value_state_reset() {
    g_focusValue = FocusValueState{};
}

namespace {

// Frame record scratch (kept out of the stack: 4.5 KiB).
FhFrame g_frameRecord;

inline uint32_t plus50(uint32_t v) {
    return v < 20000 ? v + 50 : v;
}

void refresh_masks() {
    copy_live_highlight_mask(g_focusValue.highlightMask);
    copy_latched_highlight_core(g_focusValue.excludedMask);
}

void push_queues() {
    for (int k = 0; k < 5; ++k) {
        g_focusValue.fvQueue[k] = g_focusValue.fvHist[4 - k];
        g_focusValue.posQueue[k] = g_focusValue.posHist[4 - k];
    }
}

// Light reference of a point-light measure: the frame's highlight depth, or the summed highlight
// depth of the selected windows.
uint32_t light_reference() {
    if (g_pointLightMeasure == 1)
        return get_centre_highlight_depth();
    uint32_t sum = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0)
            sum += get_window_highlight_depth(static_cast<uint8_t>(z));
    return sum;
}

uint32_t selected_highlight_mean() {
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0) {
            sum += get_window_highlight_depth(static_cast<uint8_t>(z));
            ++n;
        }
    return n ? sum / n : 0;
}

void end_point_light_mode() {
    g_pointLightMeasure = 0;
    g_watch.lumaCheckArmed = 0;
    highlight_clear_latched();
}

void deselect_highlight_windows() {
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0 && is_highlight_window(z))
            g_focusZone.windowMask[z] = 0;
}

// Zone refinement, run once per sampled search frame.
void refine_zone() {
    const uint32_t* w0 = g_focusValue.winHist[0];
    const bool tracking = get_tracking_on() != 0;
    // 2. Tracking-region search.
    if (tracking && g_seams.triggerKind == 2) {
        if (g_focusZone.selected_count() != 0) {
            update_peak_map(1);
            if (g_seams.trackLock)
                locked_region_check();
            else
                unlocked_region_check();
        } else {
            SelectSearchZone();
        }
        return;
    }
    const bool low_light = af_low_light() != 0;
    // 3. A low-light search that bounced off the lower bound and now climbs well above its start
    //    measures the plain window average: the block path chases lamps in the dark.
    if (g_zoneType != 3 && low_light && g_seams.pointLightZone && g_search.hitLower &&
        !g_focusValue.rule3Acted && g_search.searchDir == 2 &&
        af_focus() > g_search.searchStartPos + 5) {
        g_windowAverage = 1;
        g_seams.trackLock = 0;
        SelectSearchZone();
        RezoneHistories();
        update_peak_map(0);
        g_focusValue.rule3Acted = 1;
        return;
    }
    // 4. Window average in low light: keep three to five sharp inner windows.
    if (g_windowAverage == 1 && !g_seams.trackLock && low_light && g_pointLightMeasure == 0 &&
        g_zoneType != 3) {
        const uint8_t n = g_focusZone.selected_count();
        Ranked r[kWindowCount];
        if (n < 3) {
            const uint8_t m = rank_windows(
                r, w0, [](int z) { return is_inner_window(z) && !is_highlight_window(z); });
            bool added = false;
            if (m > 0 && r[0].v > g_focusValue.fvHist[0])
                for (uint8_t i = 0; i < m && i < 3; ++i)
                    if (g_focusZone.windowMask[r[i].z] == 0 && r[i].v > 500) {
                        g_focusZone.windowMask[r[i].z] = 1;
                        added = true;
                    }
            if (added) {
                RezoneHistories();
                g_search.hitLower = g_search.hitUpper = 0;
                return;
            }
        } else if (n >= 6) {
            deselect_highlight_windows();
            const uint8_t m =
                rank_windows(r, w0, [](int z) { return g_focusZone.windowMask[z] != 0; });
            if (m > 3 && r[0].v > 2 * g_focusValue.fvHist[0] && r[0].v > 500) {
                g_focusZone.clear_window_mask();
                g_focusZone.reset_block_mask();
                for (uint8_t i = 0; i < 3; ++i)
                    if (r[i].v > 300)
                        g_focusZone.windowMask[r[i].z] = 1;
                RezoneHistories();
                g_search.hitLower = g_search.hitUpper = 0;
                return;
            }
        }
    }
    // 5. The highlight-scene frame list.
    if (g_zoneType != 3) {
        PointLightRecord(1);
        if (point_light_no_detail_rule())
            return;
    }
    // 6. Block-level region checks.
    if (g_search.searchPhase != 9 && g_pointLightMeasure == 0 && g_zoneType != 3) {
        if (g_seams.trackLock) {
            if (g_seams.regionCount2 == 0) {
                update_peak_map(1);
                locked_region_check();
            }
        } else {
            update_peak_map(1);
            if (g_blockPath == 1)
                unlocked_region_check();
        }
    }
    const uint32_t event = g_sceneResult.event;
    Ranked r[kWindowCount];
    // 7. Rule A: an object appeared in a wide zone: narrow to its three sharpest windows.
    if (g_pointLightMeasure == 0 && event != 0 && g_presetFlag == 0 && g_focusValue.markerA == 1) {
        deselect_highlight_windows();
        const uint8_t m = rank_windows(r, w0, [](int z) { return g_focusZone.windowMask[z] != 0; });
        if (m > 12 && r[0].v > g_focusValue.fvHist[0] * 5 / 4) {
            g_focusZone.clear_window_mask();
            g_focusZone.reset_block_mask();
            for (uint8_t i = 0; i < 3; ++i)
                g_focusZone.windowMask[r[i].z] = 1;
            g_focusValue.markerA = 0;
            RezoneHistories();
            return;
        }
    }
    // 8. Rule B: windows much sharper than the zone become the zone.
    if (event != 0 && g_presetFlag == 0 && g_focusValue.markerA == 0) {
        uint8_t collected[kWindowCount] = {};
        bool any = false;
        for (int z = 0; z < kWindowCount; ++z)
            if (!is_highlight_window(z) && g_focusZone.windowMask[z] == 0 &&
                w0[z] >= 2 * g_focusValue.fvHist[0]) {
                collected[z] = 1;
                any = true;
            }
        if (any) {
            g_focusZone.set_windows(collected);
            g_focusValue.markerA = 2;
            RezoneHistories();
            return;
        }
    }
    // 9. Rule C: in low light, a much sharper window leads the zone.
    if (g_pointLightMeasure == 0 && g_presetFlag == 1 && event == 1 && !g_seams.pointLightZone &&
        g_focusValue.markerC == 1) {
        deselect_highlight_windows();
        const uint8_t m = rank_windows(r, w0, [](int z) { return g_focusZone.windowMask[z] != 0; });
        if (m >= 3 && r[0].v > 2 * g_focusValue.fvHist[0]) {
            g_focusZone.clear_window_mask();
            g_focusZone.reset_block_mask();
            g_focusZone.windowMask[r[0].z] = 1;
            for (uint8_t i = 1; i < 3; ++i)
                if (r[i].v > 400)
                    g_focusZone.windowMask[r[i].z] = 1;
            g_focusValue.markerC = 0;
            RezoneHistories();
            return;
        }
    }
    // 10. Centre lock, and never an empty zone.
    CentreLock(1, w0[12]);
    if (g_focusZone.selected_count() == 0)
        SelectSearchZone();
}

}  // namespace

// Sorts window indices by value, largest first (stable on ties).
uint8_t rank_windows(Ranked* out, const uint32_t* w, bool (*keep)(int)) {
    uint8_t n = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (keep(z))
            out[n++] = Ranked{w[z], static_cast<uint8_t>(z)};
    // Insertion sort: stable, and no scratch buffer.
    for (uint8_t i = 1; i < n; ++i) {
        const Ranked x = out[i];
        int j = i - 1;
        while (j >= 0 && out[j].v < x.v) {
            out[j + 1] = out[j];
            --j;
        }
        out[j + 1] = x;
    }
    return n;
}

bool is_weak_window(uint32_t v) {
    if (v > 2800)
        return false;
    if (af_low_light() == 0)
        return true;
    return v <= 800 && !(g_zoneType > 1 && v >= 501);
}

uint32_t WindowSetMean(const uint8_t* set25) {
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int z = 0; z < kWindowCount; ++z)
        if (set25[z] != 0) {
            sum += g_focusValue.winHist[0][z];
            ++n;
        }
    return n == 0 ? 50 : sum / n;
}

uint32_t SelectedWindowsMean() {
    const uint8_t* wm = g_focusZone.windowMask;
    if (command_get_ezoom() == 0) {
        // Without digital zoom the whole picture is the reference: the selected windows count
        // twice against all 25.
        uint32_t sum = 0;
        for (int z = 0; z < kWindowCount; ++z)
            if (wm[z] != 0)
                sum += 2 * g_focusValue.winHist[0][z];
        return sum / kWindowCount;
    }
    return WindowSetMean(wm);
}

bool is_highlight_window(int z) {
    const int r0 = (z / 5) * 3;
    const int c0 = (z % 5) * 3;
    int n = 0;
    for (int r = r0; r < r0 + 3; ++r)
        for (int c = c0; c < c0 + 3; ++c)
            n += g_focusValue.highlightMask[r * kGridCols + c] != 0;
    return n > 3;
}

uint32_t window_value_now(int z) {
    return plus50(get_window_sharpness(static_cast<uint8_t>(z)));
}

uint32_t ComputeFocusValue(const uint32_t* W, const uint32_t* G) {
    if (g_pointLightMeasure != 0)
        return W[0];
    const uint8_t* wm = g_focusZone.windowMask;
    uint32_t S = 0;
    uint8_t n = 0;
    const bool average = g_windowAverage == 1 && g_seams.trackLock == 0;
    if (!average && g_blockPath == 1 && g_seams.pointLightZone && g_zoneType != 3) {
        // Block path: the zone's blocks, without the latched lights. Border windows take all their
        // blocks unless a tracking region is being searched.
        const bool region = get_tracking_on() != 0 && g_seams.triggerKind == 2;
        uint32_t sum = 0;
        uint32_t count = 0;
        for (int z = 0; z < kWindowCount; ++z) {
            if (wm[z] != 1)
                continue;
            const bool use_mask = is_inner_window(z) || region;
            const int r0 = (z / 5) * 3;
            const int c0 = (z % 5) * 3;
            for (int r = r0; r < r0 + 3; ++r)
                for (int c = c0; c < c0 + 3; ++c) {
                    const int b = r * kGridCols + c;
                    if (g_focusValue.excludedMask[b] != 0)
                        continue;
                    if (use_mask && g_focusZone.blockMask[b] != 1)
                        continue;
                    sum += G[b];
                    ++count;
                }
        }
        return count ? sum / count : 50;
    }
    for (int z = 0; z < kWindowCount; ++z) {
        n = static_cast<uint8_t>(n + wm[z]);
        if (wm[z] != 0)
            S += W[z];
    }
    if (!average && g_zoneType == 3) {
        // Type 3 leans on the middle: the inner ring counts twice and the centre three times.
        for (int z = 0; z < kWindowCount; ++z)
            if (is_inner_window(z))
                S += W[z] * wm[z];
        S += W[12] * wm[12];
    }
    const uint32_t div = n ? n : 25;
    uint32_t fv = S / div;
    if (fv > 0xFFFFFFF0u)
        fv = 0xFFFFFFF0u;
    return fv < 50 ? 50 : fv;
}

uint32_t ComputeSceneSharpness(const uint32_t* W, const uint32_t* G) {
    if (g_pointLightMeasure != 0)
        return W[0];
    if (g_blockPath == 0 || g_zoneType == 3) {
        uint32_t s = 0;
        for (int z = 0; z < kWindowCount; ++z)
            s += W[z];
        s /= 25;
        return s < 50 ? 50 : s;
    }
    uint32_t sum = 0;
    uint32_t n = 0;
    for (int b = 0; b < kGridBlocks; ++b)
        if (G[b] > 10) {
            sum += G[b];
            ++n;
        }
    return n ? sum / n : 50;
}

void SetBestFv(uint32_t value) {
    g_focusValue.bestFv = value;
    g_focusValue.bestFvPos = af_focus();
}
uint32_t BestFv() {
    return g_focusValue.bestFv;
}
uint16_t BestFvPos() {
    return g_focusValue.bestFvPos;
}

void reset_search_max_window() {
    g_focusValue.searchMaxWindow = 0;
    g_focusValue.searchMaxWindowPos = af_focus();
}

void SnapshotReference() {
    g_afState = 0;
    fh_frame_from_stats(&g_frameRecord);
    fh_ring_fill(g_frameRecord);

    uint32_t W[kWindowCount];
    af_stat_copy_window_sharpness(W);
    for (int z = 0; z < kWindowCount; ++z) {
        const uint32_t iir2 = plus50(get_window_iir2(static_cast<uint8_t>(z)));
        for (auto& row : g_focusValue.winIir2Hist)
            row[z] = iir2;
    }
    if (g_pointLightMeasure != 0 && light_reference() < 50)
        g_pointLightMeasure = 0;
    if (g_pointLightMeasure != 0) {
        const uint32_t ref = light_reference();
        for (auto& v : W)
            v = ref;
    }
    uint32_t grid[kGridBlocks];
    af_stat_copy_grid(StatGrid::kSharpV, grid);
    uint32_t iir2grid[kGridBlocks];
    af_stat_grid_by_kind(iir2grid, 2);
    for (int k = 0; k < 5; ++k) {
        std::memcpy(g_focusValue.winHist[k], W, sizeof W);
        std::memcpy(g_focusValue.gridHist[k], grid, sizeof grid);
        std::memcpy(g_focusValue.iir2GridHist[k], iir2grid, sizeof iir2grid);
    }
    const uint32_t scene = ComputeSceneSharpness(W, grid);
    const uint32_t fv = ComputeFocusValue(W, grid);
    const uint16_t pos = af_focus();
    for (int k = 0; k < 5; ++k) {
        g_focusValue.sceneSharpHist[k] = scene;
        g_focusValue.fvHist[k] = fv;
        g_focusValue.posHist[k] = pos;
    }
    push_queues();
    // The lights latched for the new search count from its next frame on; the reference value
    // is taken as the last search saw the picture.
    refresh_masks();
    SetBestFv(g_focusValue.fvHist[0]);
    clear_fine_counters();
}

void RezoneHistories() {
    for (int k = 4; k >= 0; --k) {
        g_focusValue.sceneSharpHist[k] =
            ComputeSceneSharpness(g_focusValue.winHist[k], g_focusValue.gridHist[k]);
        g_focusValue.fvHist[k] =
            ComputeFocusValue(g_focusValue.winHist[k], g_focusValue.gridHist[k]);
    }
    push_queues();
    SetBestFv(g_focusValue.fvHist[0]);
    clear_fine_counters();
}

bool SampleFrame() {
    // 1. The frame record goes into the history ring.
    fh_frame_from_stats(&g_frameRecord);
    fh_ring_push(g_frameRecord);
    g_focusValue.frameMaxWindow = 0;

    // 2-3. Window histories.
    if (g_pointLightMeasure != 0 || g_blockPath == 0 || g_zoneType == 3) {
        std::memmove(g_focusValue.winHist[1], g_focusValue.winHist[0],
                     4 * sizeof g_focusValue.winHist[0]);
        af_stat_copy_window_sharpness(g_focusValue.winHist[0]);
    } else {
        refill_window_history(g_focusValue.winHist);
    }
    for (int z = 0; z < kWindowCount; ++z)
        g_focusValue.frameMaxWindow =
            std::max(g_focusValue.frameMaxWindow, g_focusValue.winHist[0][z]);
    std::memmove(g_focusValue.winIir2Hist[1], g_focusValue.winIir2Hist[0],
                 4 * sizeof g_focusValue.winIir2Hist[0]);
    for (int z = 0; z < kWindowCount; ++z)
        g_focusValue.winIir2Hist[0][z] = plus50(get_window_iir2(static_cast<uint8_t>(z)));

    // 4. Point-light measures replace the window values.
    if (g_pointLightMeasure == 1) {
        const uint32_t v = get_centre_highlight_depth();
        for (auto& x : g_focusValue.winHist[0])
            x = v;
        g_focusValue.frameMaxWindow = v;
    } else if (g_pointLightMeasure == 2) {
        const uint32_t v = selected_highlight_mean();
        if (v < 100) {
            end_point_light_mode();
        } else {
            for (auto& x : g_focusValue.winHist[0])
                x = v;
        }
    }

    // 5. Positions.
    std::memmove(&g_focusValue.posHist[1], &g_focusValue.posHist[0],
                 4 * sizeof g_focusValue.posHist[0]);
    g_focusValue.posHist[0] = af_focus();

    // 6. Block grids, and the sample for the position-keyed history.
    std::memmove(g_focusValue.gridHist[1], g_focusValue.gridHist[0],
                 4 * sizeof g_focusValue.gridHist[0]);
    af_stat_copy_grid(StatGrid::kSharpV, g_focusValue.gridHist[0]);
    std::memmove(g_focusValue.iir2GridHist[1], g_focusValue.iir2GridHist[0],
                 4 * sizeof g_focusValue.iir2GridHist[0]);
    af_stat_grid_by_kind(g_focusValue.iir2GridHist[0], 2);
    uint32_t hgrid[kGridBlocks];
    af_stat_grid_by_kind(hgrid, 5);
    fh_record_sample(g_focusValue.gridHist[0], hgrid, g_focusValue.posHist[0]);
    fh_phase_push(static_cast<uint8_t>(g_search.searchPhase));

    // 7-8. Scene sharpness and the five focus values under the zone now in force.
    std::memmove(&g_focusValue.sceneSharpHist[1], &g_focusValue.sceneSharpHist[0],
                 4 * sizeof g_focusValue.sceneSharpHist[0]);
    g_focusValue.sceneSharpHist[0] =
        ComputeSceneSharpness(g_focusValue.winHist[0], g_focusValue.gridHist[0]);
    for (int k = 4; k >= 0; --k)
        g_focusValue.fvHist[k] =
            ComputeFocusValue(g_focusValue.winHist[k], g_focusValue.gridHist[k]);
    push_queues();

    // 9. Masks and trend series.
    refresh_masks();
    update_trend_series();

    // 10. Best value of the search.
    if (g_focusValue.fvHist[0] > g_focusValue.bestFv || af_focus() == g_focusValue.bestFvPos)
        SetBestFv(g_focusValue.fvHist[0]);
    if (g_focusValue.frameMaxWindow > g_focusValue.searchMaxWindow) {
        g_focusValue.searchMaxWindow = g_focusValue.frameMaxWindow;
        g_focusValue.searchMaxWindowPos = af_focus();
    }
    if (g_search.searchPhase == 9)
        return false;
    if (g_pointLightMeasure == 1 && get_centre_highlight_depth() < 100)
        end_point_light_mode();

    // 11. Zone refinement.
    refine_zone();

    // 12. A flat scene next to the position of the current distance: the search ends there.
    return distance_flat_jump();
}

void SelectSearchZone() {
    if (g_seams.trackLock)
        return;
    g_focusZone.reset_block_mask();
    g_focusZone.clear_window_mask();
    if (g_zoneType == 3) {
        bool any = false;
        for (int z = 0; z < kWindowCount; ++z)
            if (!is_highlight_window(z) &&
                (get_window_sharpness(static_cast<uint8_t>(z)) > 200 ||
                 get_window_luma_deviation(static_cast<uint8_t>(z)) > 24)) {
                g_focusZone.windowMask[z] = 1;
                any = true;
            }
        if (!any)
            std::memset(g_focusZone.windowMask, 1, sizeof g_focusZone.windowMask);
        return;
    }
    window_preset_rebuild(command_get_ezoom());
    const uint8_t* preset = window_preset_flags();
    uint8_t first = window_preset_first();
    uint8_t last = window_preset_last();
    const bool use_preset = g_presetFlag == 1;
    if (!use_preset) {
        first = 0;
        last = 25;
    }
    int counted = 0;
    for (int z = first; z < last; ++z) {
        if (use_preset && preset[z] == 0) {
            g_focusZone.windowMask[z] = 0;
            continue;
        }
        if (g_pointLightMeasure == 0) {
            if (is_highlight_window(z)) {
                g_focusZone.windowMask[z] = 0;
            } else {
                g_focusZone.windowMask[z] = 1;
                ++counted;
            }
        } else if (is_highlight_window(z)) {
            g_focusZone.windowMask[z] = 1;
        }
    }
    if (counted == 0)
        g_focusZone.set_windows(preset);
}

void ResetZoneCross() {
    if (g_presetFlag == 0) {
        SelectSearchZone();
        return;
    }
    g_focusZone.clear_window_mask();
    g_focusZone.reset_block_mask();
    constexpr uint8_t kCross[5] = {7, 11, 12, 13, 17};
    int rejected = 0;
    for (uint8_t z : kCross) {
        if (is_highlight_window(z)) {
            ++rejected;
        } else if (get_window_sharpness(z) > 200 || get_window_luma_deviation(z) > 20) {
            g_focusZone.windowMask[z] = 1;
        } else {
            ++rejected;
        }
    }
    if (rejected < 5)
        return;
    uint32_t w[kWindowCount];
    for (int z = 0; z < kWindowCount; ++z)
        w[z] = get_window_sharpness(static_cast<uint8_t>(z));
    Ranked r[kWindowCount];
    const uint8_t m = rank_windows(r, w, [](int) { return true; });
    int selected = 0;
    for (uint8_t i = 0; i < m && i < 5; ++i)
        if (r[i].v > 1500 && !is_highlight_window(r[i].z)) {
            g_focusZone.windowMask[r[i].z] = 1;
            ++selected;
        }
    if (selected > 0)
        return;
    int lights = 0;
    for (int z = 0; z < kWindowCount; ++z)
        lights += is_highlight_window(z);
    if (lights < 3) {
        for (int z = 0; z < kWindowCount; ++z)
            if (!is_highlight_window(z))
                g_focusZone.windowMask[z] = 1;
        return;
    }
    // Nothing but lights: measure the lights themselves.
    g_focusZone.clear_window_mask();
    g_focusZone.reset_block_mask();
    g_pointLightMeasure = 2;
    for (int z = 0; z < kWindowCount; ++z) {
        if (!is_highlight_window(z))
            continue;
        const int r0 = (z / 5) * 3;
        const int c0 = (z % 5) * 3;
        int n = 0;
        for (int rr = r0; rr < r0 + 3; ++rr)
            for (int cc = c0; cc < c0 + 3; ++cc)
                n += g_focusValue.highlightMask[rr * kGridCols + cc] != 0;
        if (n < 9)
            g_focusZone.windowMask[z] = 1;
    }
}

void CentreLock(uint8_t enable, uint32_t centre) {
    if (g_zoneType == 3 || g_blockPath == 1 || g_pointLightMeasure != 0 || af_low_light() == 0 ||
        !g_seams.pointLightZone || get_tracking_on() != 0 || !enable)
        return;
    if (g_search.searchPhase != 2) {
        bool twice = true;
        for (uint32_t c : g_focusValue.centreHist)
            if (centre <= 2 * c)
                twice = false;
        bool others = false;
        for (int z = 0; z < kWindowCount; ++z)
            if (z != 12 && g_focusZone.windowMask[z] != 0)
                others = true;
        if (twice && others && !is_highlight_window(12) && !is_weak_window(centre)) {
            g_focusZone.clear_window_mask();
            g_focusZone.windowMask[12] = 1;
            g_search.focusDone = 0;
            SnapshotReference();
        }
    }
    std::memmove(&g_focusValue.centreHist[1], &g_focusValue.centreHist[0],
                 3 * sizeof g_focusValue.centreHist[0]);
    g_focusValue.centreHist[0] = centre;
}

void focus_value_reset_for_testing() {
    focus_value_state_reset();
}

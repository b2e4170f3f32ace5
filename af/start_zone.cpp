// The zone a search starts with. A restart after a zoom, a pan or a request does not pick the
// zone itself (only a restart at the same zoom does): the search start chooses it here from the
// picture as it is now, so that a zone narrowed during the last search (to a centre, a retry
// window, the windows of an end return) is not carried into a search of a different picture.
#include <algorithm>
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/distance_assist.h"
#include "af/focus_watch.h"
#include "af/focus_zone.h"
#include "af/highlight_scene.h"
#include "base/af_status.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "scene/scene_analyzer.h"

namespace {

bool window_in_preset(int z) {
    if (g_presetFlag == 0)
        return true;
    return window_preset_flags()[z] != 0;
}

// Centre column: a usable centre window becomes the zone by itself; otherwise the usable windows
// above and below it replace the zone, and with none of them the zone stays.
void centre_column() {
    static constexpr uint8_t kColumn[5] = {7, 12, 12, 12, 17};
    bool all_in_column = true;
    for (int z = 0; z < kWindowCount; ++z)
        if (g_focusZone.windowMask[z] != 0 && z != 7 && z != 12 && z != 17)
            all_in_column = false;
    if (all_in_column)
        return;
    bool taken = false;
    for (int i = 0; i < 5; ++i) {
        const uint8_t z = kColumn[i];
        if (is_highlight_window(z) || !window_in_preset(z))
            continue;
        const uint32_t v = window_value_now(z);
        if (is_weak_window(v)) {
            // A weak centre may still be taken once on a strong IIR2 response (fine detail that
            // the sharper filters do not yet see so far from focus).
            if (i == 2 && get_window_iir2(z) > 1000 && get_window_sharpness(z) < 800 &&
                g_seams.centreChance == 1) {
                g_focusZone.clear_window_mask();
                g_focusZone.windowMask[12] = 1;
                g_seams.centreChance = 0;
                return;
            }
            continue;
        }
        if (i == 2) {
            g_focusZone.clear_window_mask();
            g_focusZone.windowMask[12] = 1;
            return;
        }
        if (!taken)
            g_focusZone.clear_window_mask();
        taken = true;
        g_focusZone.windowMask[z] = 1;
    }
}

// Windows ranked by raw sharpness + 50, a highlight window scoring 0, largest first.
void rank_by_sharpness(Ranked order[kWindowCount]) {
    uint32_t score[kWindowCount];
    for (int z = 0; z < kWindowCount; ++z)
        score[z] = is_highlight_window(z) ? 0 : get_window_sharpness(static_cast<uint8_t>(z)) + 50;
    rank_windows(order, score, [](int) { return true; });
}

// With the scene's detail outside its lights unknown (the point-light zone flag clear): the three
// sharpest windows, unless lights lie in them or nothing is sharp.
void sharpest_or_lights() {
    Ranked order[kWindowCount];
    rank_by_sharpness(order);
    int lights = 0;
    for (int z = 0; z < kWindowCount; ++z)
        lights += is_highlight_window(z) ? 1 : 0;
    g_focusZone.clear_window_mask();
    g_focusZone.reset_block_mask();
    int s = 0;
    for (int i = 0; i < 3; ++i)
        s += live_highlight_count(static_cast<uint8_t>(order[i].z / 5),
                                  static_cast<uint8_t>(order[i].z % 5));
    if (s >= 7) {
        g_pointLightMeasure = 1;
        return;
    }
    if (order[2].v >= 301) {
        for (int i = 0; i < 3; ++i)
            g_focusZone.windowMask[order[i].z] = 1;
        return;
    }
    if (lights < 3) {
        for (int z = 0; z < kWindowCount; ++z)
            if (!is_highlight_window(z))
                g_focusZone.windowMask[z] = 1;
        return;
    }
    g_pointLightMeasure = 2;
    for (int z = 0; z < kWindowCount; ++z)
        if (is_highlight_window(z) &&
            live_highlight_count(static_cast<uint8_t>(z / 5), static_cast<uint8_t>(z % 5)) < 9)
            g_focusZone.windowMask[z] = 1;
}

// Zone type 3: the five sharpest windows that show contrast or texture, else all of them.
void zone_type_three() {
    if (g_search.restartReason == 1)
        SelectSearchZone();
    g_focusZone.clear_window_mask();
    g_focusZone.reset_block_mask();
    uint32_t raw[kWindowCount];
    for (int z = 0; z < kWindowCount; ++z)
        raw[z] = get_window_sharpness(static_cast<uint8_t>(z));
    Ranked order[kWindowCount];
    rank_windows(order, raw, [](int) { return true; });
    bool any = false;
    for (int i = 0; i < 5; ++i)
        if (order[i].v >= 1201 || get_window_luma_deviation(order[i].z) >= 15) {
            g_focusZone.windowMask[order[i].z] = 1;
            any = true;
        }
    if (!any)
        std::memset(g_focusZone.windowMask, 1, sizeof g_focusZone.windowMask);
    RezoneHistories();
}

}  // namespace

void PrepareWatch() {
    if (highlight_tracking_search_active())
        return;
    const uint16_t p = af_focus();
    if (p < g_search.lowerBound || p > g_search.upperBound)
        return;
    // A refocus the watch asked for: when most of the windows watched here (the top-left 3 x 3)
    // were sharp at the last focus and have lost more than half of it, with the rest dark then and
    // now, the picture went soft as a whole and what stands out are its lights: the detail test
    // would only see those, so it is switched off. A picture with little contrast anywhere, or an
    // object that left it, turns it back on.
    if (g_search.restartReason == 1 || g_search.restartReason == 2) {
        static constexpr uint8_t kWatched[] = {0, 1, 2, 5, 6, 7, 10, 11, 12};
        uint32_t now[kWindowCount];
        af_stat_copy_window_sharpness(now);
        uint32_t lost = 0;
        uint32_t dark = 0;
        uint32_t largest = 0;
        for (uint8_t z : kWatched) {
            const uint32_t then = g_watch.refWindows[z];
            lost += then > 1200 && then > 2 * now[z] ? 1 : 0;
            dark += then < 500 && now[z] < 500 ? 1 : 0;
            largest = std::max(largest, now[z]);
        }
        if (lost > 5 && lost + dark > 7)
            g_seams.detailTestOn = 0;
        if (largest < 1500 || g_sceneResult.event == kObjectOut)
            g_seams.detailTestOn = 1;
    }
    // Whether the scene has detail outside its lights decides how the zone is chosen.
    g_pointLight.refocusCause = g_search.refocusCause;
    g_seams.pointLightZone = SceneHasDetail();
    if (g_search.refocusCause == 1)
        g_search.startFresh = 1;
}

void RefineStartZone() {
    if (g_seams.fullMaskFlag == 0 || highlight_tracking_search_active())
        return;
    // 1-2.
    if (g_blockPath == 0)
        centre_column();
    if (g_sceneResult.pending == 0 && g_seams.pointLightZone == 0)
        sharpest_or_lights();
    // 3. The lights latched during the last search are the ones to leave out of this one.
    highlight_latch_core_from_mask();
    // 4-6.
    if (g_zoneType == 3)
        zone_type_three();
    // 5. At the far tele end a centre that still shows signal is measured over its blocks.
    if (af_zoom() >= 6354 && centre_has_signal() == 1) {
        g_focusZone.clear_window_mask();
        for (int b = 0; b < kGridBlocks; ++b) {
            const int r = b / kGridCols;
            const int c = b % kGridCols;
            const bool in =
                r >= 5 && r <= 10 && c >= 5 && c <= 10 && g_focusValue.excludedMask[b] == 0;
            g_focusZone.blockMask[b] = in ? 1 : 0;
            if (in)
                g_focusZone.windowMask[(r / 3) * 5 + c / 3] = 1;
        }
    }
    if (g_focusZone.selected_count() == 0)
        SelectSearchZone();
    // 7. The histories follow the zone now in force.
    SnapshotReference();
    // 8.
    if (g_seams.pointLightZone == 1) {
        if (g_zoomTrackedSinceZone == 0) {
            PointLightStartZone();
            if (g_search.startFresh == 0)
                SnapshotReference();
            else
                ResetZoneCross();
        } else {
            ResetZoneCross();
            g_zoomTrackedSinceZone = 0;
        }
    }
}

void PointLightStartZone() {
    if (g_zoneType == 3 || g_blockPath == 0)
        return;
    if (af_low_light() == 0 && g_pointLightMeasure == 0) {
        g_focusZone.clear_window_mask();
        g_focusZone.reset_block_mask();
        for (int z = 0; z < kWindowCount; ++z)
            if (!is_highlight_window(z))
                g_focusZone.windowMask[z] = 1;
        return;
    }
    point_light_start_zone_low_light();
}

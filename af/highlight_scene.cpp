// Highlight scenes: night pictures with lamps, headlights and other point lights.
//
// A defocused light spreads into a large saturated disc whose hard edge raises every filter sum,
// so the focus value of a window with a lamp in it peaks far from true focus. The rules here
// recognise such scenes and change what the search measures: with detail elsewhere the zone
// keeps away from the lights and narrows to the few windows with real texture; with nothing but
// lights the search measures the lights themselves (the clipped-pixel depth, which grows as the
// lights shrink into focus). Along the sweep the frame list watches whether the picture turns out
// to be lights only after all, or to have detail after all, and moves the zone accordingly.
#include "af/highlight_scene.h"

#include <algorithm>
#include <cstring>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/distance_assist.h"
#include "af/focus_watch.h"
#include "af/focus_zone.h"
#include "isp/af_stat.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/iris.h"
#include "scene/grid_ops.h"
#include "scene/scene_analyzer.h"

PointLightState g_pointLight;

namespace {

constexpr uint8_t kInner[9] = {6, 7, 8, 11, 12, 13, 16, 17, 18};
constexpr uint8_t kCross[5] = {7, 11, 12, 13, 17};
constexpr uint8_t kBorder[16] = {0, 1, 2, 3, 4, 5, 9, 10, 14, 15, 19, 20, 21, 22, 23, 24};

bool point_light_mode() {
    return g_pointLightMeasure != 0;
}

uint32_t texture(int z) {
    return get_window_luma_deviation(static_cast<uint8_t>(z));
}

// Raw window sharpness + 50, a window with lights scoring 0.
uint8_t rank_by_sharpness(Ranked* out) {
    uint32_t score[kWindowCount];
    for (int z = 0; z < kWindowCount; ++z)
        score[z] = is_highlight_window(z) ? 0 : get_window_sharpness(static_cast<uint8_t>(z)) + 50;
    return rank_windows(out, score, [](int) { return true; });
}

uint8_t rank_by_texture(Ranked* out) {
    uint32_t score[kWindowCount];
    for (int z = 0; z < kWindowCount; ++z)
        score[z] = is_highlight_window(z) ? 0 : texture(z);
    return rank_windows(out, score, [](int) { return true; });
}

void windows_of_blocks(const uint8_t* mask) {
    g_focusZone.clear_window_mask();
    for (int b = 0; b < kGridBlocks; ++b)
        if (mask[b] != 0)
            g_focusZone.windowMask[(b / kGridCols / 3) * 5 + (b % kGridCols) / 3] = 1;
}

void clear_counters() {
    g_pointLight.onlyLights = 0;
    g_pointLight.brightElsewhere = 0;
    g_pointLight.noDetailFrames = 0;
    g_pointLight.plFrames = 0;
    g_pointLight.maxWindow = 0;
    g_pointLight.bestCount = 0;
}

void cells_of(const uint8_t* list, FhCellList* cells) {
    cells->clear();
    for (int b = 0; b < kGridBlocks; ++b)
        if (list[b] != 0)
            cells->add(static_cast<uint8_t>(b / kGridCols), static_cast<uint8_t>(b % kGridCols));
}

}  // namespace

uint8_t SceneHasDetail() {
    if (g_seams.detailTestOn == 0 || g_sceneResult.event == 0)
        return 1;
    const bool pl = point_light_mode();
    const uint32_t low = pl ? 18 : 12;
    const uint32_t high = pl ? 25 : 15;
    const bool after_zoom = g_search.firstAfterZoom != 0;
    const uint8_t* windows = after_zoom ? kCross : kInner;
    const uint32_t count = after_zoom ? 5 : 9;
    uint32_t textured = 0;
    uint32_t strong = 0;
    uint32_t textured_sum = 0;
    uint32_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t t = texture(windows[i]);
        if (t >= low) {
            ++textured;
            textured_sum += t;
        }
        strong += t > high ? 1 : 0;
        total += t;
    }
    const bool faint = textured > 0 && textured_sum / textured < 21 && total / count < 15;
    if (textured > 3) {
        if (!((faint && strong == 0) || pl))
            return 1;
    } else if (strong > 0 && !pl) {
        return 1;
    }
    // Little texture: sharp blocks away from the lights still count as detail.
    uint32_t grid[kGridBlocks];
    af_stat_copy_grid(StatGrid::kSharpV, grid);
    const bool tele = af_zoom() > 4000;
    uint32_t sharp = 0;
    uint32_t medium = 0;
    for (int r = 5; r <= 11; ++r)
        for (int c = 5; c <= 11; ++c) {
            const bool corner = (r <= 6 || r >= 10) && (c <= 6 || c >= 10);
            const int b = r * kGridCols + c;
            if ((after_zoom && corner) || g_focusValue.highlightMask[b] != 0)
                continue;
            sharp += grid[b] > 500 ? 1 : 0;
            medium += tele && grid[b] > 300 ? 1 : 0;
        }
    return sharp > 2 || medium > 3 ? 1 : 0;
}

bool IsDarkFlat(const uint32_t* grid) {
    uint32_t dark = 0;
    uint32_t largest = 0;
    for (int b = 0; b < kGridBlocks; ++b) {
        dark += grid[b] < 300 ? 1 : 0;
        largest = std::max(largest, grid[b]);
    }
    return dark * 100 >= 95u * kGridBlocks && largest < 500;
}

void PointLightBlocks(const uint32_t* grid, uint8_t* list) {
    uint32_t values[13 * 13];
    int n = 0;
    for (int r = 1; r <= 13; ++r)
        for (int c = 1; c <= 13; ++c)
            values[n++] = grid[r * kGridCols + c];
    std::sort(values, values + n);
    n = static_cast<int>(std::unique(values, values + n) - values);
    const uint32_t lo = values[n / 6];
    const uint32_t hi = values[n * 5 / 6];
    std::memset(list, 0, kGridBlocks);
    for (int r = 1; r <= 13; ++r)
        for (int c = 1; c <= 13; ++c) {
            if (grid[r * kGridCols + c] < hi)
                continue;
            for (int rr = std::max(1, r - 2); rr <= std::min(13, r + 2); ++rr)
                for (int cc = std::max(1, c - 2); cc <= std::min(13, c + 2); ++cc)
                    if (grid[rr * kGridCols + cc] > lo)
                        list[rr * kGridCols + cc] = 1;
        }
}

void point_light_build_lists() {
    uint32_t grid[kGridBlocks];
    af_stat_grid_by_kind(grid, 2);
    PointLightBlocks(grid, g_pointLight.blocksIir2);
    af_stat_grid_by_kind(grid, 3);
    PointLightBlocks(grid, g_pointLight.blocksFirH);
    g_pointLight.seriesN = 0;
}

void point_light_series_rebuild() {
    PointLightState& s = g_pointLight;
    if (g_seams.plSeriesArmed == 0) {
        s.seriesN = 0;
        return;
    }
    // Like the zone's V and H series: the lists' means over the last five frames the statistics
    // history holds, oldest first, rebuilt on every sampled frame.
    FhCellList cells;
    FhSeries iir2;
    FhSeries firh;
    cells_of(s.blocksIir2, &cells);
    fh_ring_series(&iir2, cells, 2, 5);
    cells_of(s.blocksFirH, &cells);
    fh_ring_series(&firh, cells, 3, 5);
    s.seriesN = std::min(iir2.n, firh.n);
    std::memcpy(s.seriesIir2, iir2.v, s.seriesN * sizeof s.seriesIir2[0]);
    std::memcpy(s.seriesFirH, firh.v, s.seriesN * sizeof s.seriesFirH[0]);
}

uint8_t point_light_series_trend() {
    if (g_seams.plSeriesArmed == 0)
        return 0;
    const PointLightState& s = g_pointLight;
    uint32_t largest = 0;
    for (uint8_t k = 0; k < s.seriesN; ++k)
        largest = std::max(largest, s.seriesIir2[k]);
    if (af_low_light() != 0 && largest < 500)
        return 0;
    return TrendOf(s.seriesIir2, s.seriesN, 0.08f, 15.0f);
}

void point_light_clear_series() {
    std::memset(g_pointLight.blocksIir2, 0, sizeof g_pointLight.blocksIir2);
    std::memset(g_pointLight.blocksFirH, 0, sizeof g_pointLight.blocksFirH);
    g_pointLight.seriesN = 0;
}

void point_light_rearm_watch(uint8_t chances) {
    g_pointLight.watchChances = chances;
}

uint8_t point_light_take_chance() {
    if (g_pointLight.watchChances == 0)
        return 0;
    --g_pointLight.watchChances;
    return 1;
}

void point_light_exposure_watch() {
    // Focused on lights, the picture's contrast says little; a new exposure or iris does: the
    // lights' clipped discs change with it, so what looked sharp may not be.
    if (g_pointLightMeasure == 0)
        return;
    if ((get_exp_gain_ratio() != g_search.startExposure ||
         iris_get_value() != g_search.startIris) &&
        point_light_take_chance())
        g_refocusRequest = 1;
}

void PointLightZone() {
    Ranked sharp[kWindowCount];
    Ranked tex[kWindowCount];
    rank_by_sharpness(sharp);
    rank_by_texture(tex);
    g_focusZone.clear_window_mask();
    g_focusZone.reset_block_mask();
    for (int i = 0; i < 3; ++i)
        if (sharp[i].v >= 501)
            g_focusZone.windowMask[sharp[i].z] = 1;
    if (sharp[0].v <= 99)
        g_seams.plNoDetail = 1;
    g_focusZone.windowMask[tex[0].z] = 1;
    for (int i = 1; i < 3; ++i)
        if (tex[i].v > 11)
            g_focusZone.windowMask[tex[i].z] = 1;
}

void PointLightRecord(uint8_t add) {
    PointLightState& s = g_pointLight;
    if (s.count == 0 || add == 0)
        clear_counters();
    if (add == 0) {
        s.count = 0;
        return;
    }
    const uint32_t* w = g_focusValue.winHist[0];
    PointLightState::Frame f;
    uint32_t all = 0;
    uint32_t inner = 0;
    for (int z = 0; z < kWindowCount; ++z) {
        all += w[z];
        f.largest = std::max(f.largest, w[z]);
    }
    for (uint8_t z : kInner)
        inner += w[z];
    f.meanAll = all / kWindowCount;
    f.meanInner = inner / 9;
    f.meanSelected = WindowSetMean(g_focusZone.windowMask);
    f.position = af_focus();
    f.zoom = af_zoom();
    if (s.count == 5) {
        std::memmove(&s.frames[0], &s.frames[1], 4 * sizeof s.frames[0]);
        --s.count;
    }
    s.frames[s.count++] = f;
    s.maxWindow = std::max(s.maxWindow, f.largest);
    const uint8_t detail = SceneHasDetail();
    if (f.meanInner <= 999 && f.meanSelected < 1000 && f.meanAll > f.meanSelected)
        ++s.brightElsewhere;
    if (detail == 0)
        ++s.noDetailFrames;
    bool rezoned = false;
    if (point_light_mode() || g_seams.pointLightZone) {
        // A picture that keeps showing nothing but lights: measure the few textured windows.
        if (detail == 0)
            ++s.onlyLights;
        const uint32_t n = s.plFrames;
        if (n > 19 && s.brightElsewhere * 10 > 8 * n && s.noDetailFrames * 4 > 3 * n &&
            s.onlyLights * 10 > 7 * n) {
            PointLightZone();
            g_seams.pointLightZone = 0;
            rezoned = true;
        }
    } else {
        // Started as lights only, but detail keeps showing: its three sharpest windows lead.
        if (detail == 1)
            ++s.onlyLights;
        Ranked order[kWindowCount];
        rank_by_sharpness(order);
        s.bestCount = 3;
        for (int i = 0; i < 3; ++i)
            s.best[i] = order[i].z;
        if (s.onlyLights > 2) {
            g_focusZone.clear_window_mask();
            for (int i = 0; i < 3; ++i)
                g_focusZone.windowMask[s.best[i]] = 1;
            g_seams.pointLightZone = 1;
            if (g_search.searchPhase == 4)
                g_search.searchPhase = 3;
            rezoned = true;
        }
    }
    ++s.plFrames;
    if (rezoned) {
        g_focusZone.reset_block_mask();
        RezoneHistories();
        s.onlyLights = 0;
    }
}

bool point_light_no_detail_rule() {
    if (g_seams.plNoDetail == 0)
        return false;
    Ranked order[kWindowCount];
    if (point_light_mode()) {
        rank_by_texture(order);
        if (order[2].v < 20)
            return false;
        g_pointLightMeasure = 0;
        g_watch.lumaCheckArmed = 0;
        g_focusZone.reset_block_mask();
        g_focusZone.clear_window_mask();
        for (int i = 0; i < 3; ++i)
            g_focusZone.windowMask[order[i].z] = 1;
    } else {
        if (g_focusValue.frameMaxWindow <= 200)
            return false;
        const uint8_t n = rank_windows(order, g_focusValue.winHist[0],
                                       [](int z) { return !is_highlight_window(z); });
        g_focusZone.clear_window_mask();
        g_focusZone.reset_block_mask();
        for (uint8_t i = 0; i < 3 && i < n; ++i)
            g_focusZone.windowMask[order[i].z] = 1;
    }
    g_seams.plNoDetail = 0;
    RezoneHistories();
    return true;
}

void ChooseStartZone() {
    const uint16_t p0 = g_focusValue.posHist[0];
    if (highlight_tracking_search_active() || p0 < g_search.lowerBound ||
        p0 > g_search.upperBound || g_seams.zoneChoiceArmed == 0)
        return;
    uint8_t core[kGridBlocks];
    copy_latched_highlight_core(core);
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols;
        const int c = b % kGridCols;
        if (r < 4 || r > 10 || c < 4 || c > 10)
            core[b] = 0;
    }
    uint8_t kept[kGridBlocks] = {};
    const uint32_t n = remove_isolated_blocks(core, kept);
    if (n <= 9)
        return;
    g_seams.detailTestOn = 1;
    g_seams.pointLightZone = SceneHasDetail();
    if (g_seams.pointLightZone == 0) {
        // Nothing but lights: one strongly textured window may still carry the picture.
        Ranked order[kWindowCount];
        rank_by_texture(order);
        const uint32_t sharp = get_window_sharpness(order[0].z);
        if ((sharp > 500 && order[0].v > 8) || (sharp >= 2001 && order[0].v >= 3)) {
            g_focusZone.clear_window_mask();
            g_focusZone.windowMask[order[0].z] = 1;
        } else if (order[2].v < 20) {
            g_pointLightMeasure = 1;
        }
    } else if (n >= 38) {
        // A large saturated area in the middle (a backlit window): the border carries the scene.
        uint32_t score[kWindowCount] = {};
        int counted = 0;
        for (uint8_t z : kBorder) {
            if (latched_highlight_count(z) < 3) {
                score[z] = get_window_sharpness(z) + 50;
                ++counted;
            } else {
                score[z] = 50;
            }
        }
        if (counted > 2) {
            Ranked order[kWindowCount];
            rank_windows(order, score, [](int z) {
                for (uint8_t b : kBorder)
                    if (b == z)
                        return true;
                return false;
            });
            g_focusZone.clear_window_mask();
            g_focusZone.reset_block_mask();
            g_focusZone.windowMask[order[0].z] = 1;
            for (int i = 1; i < 3; ++i)
                if (order[i].v > 500)
                    g_focusZone.windowMask[order[i].z] = 1;
        } else {
            PointLightZone();
        }
    } else if (n >= 18) {
        bool sharp = false;
        for (int z = 0; z < kWindowCount; ++z)
            sharp = sharp || (g_focusZone.windowMask[z] != 0 &&
                              get_window_sharpness(static_cast<uint8_t>(z)) >= 501);
        if (!sharp)
            PointLightZone();
    }
}

void point_light_start_zone_low_light() {
    const ComponentSet& cs = g_sceneResult.components;
    const uint8_t* hl = g_focusValue.highlightMask;
    int cr = cs.centroidRow;
    int cc = cs.centroidCol;
    uint8_t R[kGridBlocks] = {};
    for (int r = 1; r < kGridRows - 1; ++r)
        for (int c = 1; c < kGridCols - 1; ++c) {
            const int b = r * kGridCols + c;
            R[b] = cs.objectMap[b] != 0 && cs.objectMap[b - 1] != 0 && cs.objectMap[b + 1] != 0 &&
                   cs.objectMap[b - kGridCols] != 0 && cs.objectMap[b + kGridCols] != 0;
        }
    if (cr == 0 && cc == 0) {
        cr = cc = 8;
        std::memset(R, 1, sizeof R);
    }
    if (cr < 4 || cr > 11 || cc < 4 || cc > 11) {
        cr = cc = 8;
        std::memset(R, 0, sizeof R);
    }
    uint8_t L[kGridBlocks] = {};
    int nl = 0;
    for (int k = 1; k <= 7; ++k) {
        std::memset(L, 0, sizeof L);
        nl = 0;
        for (int r = std::max(1, cr - k); r <= std::min(13, cr + k); ++r)
            for (int c = std::max(1, cc - k); c <= std::min(13, cc + k); ++c) {
                const int b = r * kGridCols + c;
                if (R[b] != 0 && hl[b] == 0) {
                    L[b] = 1;
                    ++nl;
                }
            }
        if (nl > 19 && g_sceneResult.event == 0)
            break;
    }
    int n = 0;
    for (int r = 5; r <= 10; ++r)
        for (int c = 5; c <= 10; ++c)
            n += R[r * kGridCols + c] != 0;
    uint32_t G[kGridBlocks];
    af_stat_grid_by_kind(G, 4);
    auto fill = [&](int lo, int hi, bool need_signal) {
        std::memset(L, 0, sizeof L);
        nl = 0;
        for (int r = lo; r <= hi; ++r)
            for (int c = lo; c <= hi; ++c) {
                const int b = r * kGridCols + c;
                if (hl[b] == 0 && (!need_signal || G[b] > 50)) {
                    L[b] = 1;
                    ++nl;
                }
            }
    };
    if (nl <= 4 || n < 3) {
        if (centre_has_signal() == 0) {
            if (nl < 5)
                fill(5, 10, true);
            if (nl < 5)
                fill(4, 11, true);
        } else {
            fill(6, 9, false);
        }
    }
    if (nl == 0)
        fill(5, 10, false);
    uint8_t M[kGridBlocks] = {};
    int m = 0;
    for (int b = 0; b < kGridBlocks; ++b)
        if (L[b] != 0 && g_focusValue.gridHist[0][b] >= 500) {
            M[b] = 1;
            ++m;
        }
    g_seams.trackLock = 0;
    // A search the scene analysis asked for goes back to the subject's blocks of the last focus
    // (the reference it judged the change against); any other takes the sharp blocks around the
    // subject.
    g_focusZone.copy_block_mask_in(g_pointLight.refocusCause == 2 ? watch_reference_block_mask()
                                                                  : M);
    windows_of_blocks(g_focusZone.blockMask);
    if (m <= 2 || (af_zoom() >= 4987 && m < 5)) {
        Ranked order[kWindowCount];
        rank_by_sharpness(order);
        g_focusZone.clear_window_mask();
        g_focusZone.reset_block_mask();
        bool any = false;
        for (int i = 0; i < 3; ++i)
            if (order[i].v > 500) {
                g_focusZone.windowMask[order[i].z] = 1;
                any = true;
            }
        if (any && af_zoom() <= 4985)
            g_seams.pointLightStartMarker = 1;
        if (!any)
            std::memset(g_focusZone.windowMask, 1, kWindowCount);
    }
}

void point_light_reset_for_testing() {
    g_pointLight = PointLightState{};
}

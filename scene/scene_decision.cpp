// The per-frame decision while focused: has the picture changed enough since the reference to
// search again, and if so, where?
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/isp_link.h"
#include "lens_api/lens_position.h"
#include "scene/grid_ops.h"
#include "scene/object_tracker.h"
#include "scene/scene_analyzer.h"
#include "scene/scene_decision.h"
#include "scene/scene_state.h"
#include "tracking/distance_table.h"

namespace {

// Offset added to the larger of two sharpness values before taking their relative difference:
// little-textured blocks flicker by large ratios on sensor noise alone.
double change_offset(uint32_t smaller) {
    if (smaller <= 50)
        return 950;
    if (smaller <= 100)
        return 900;
    if (smaller <= 200)
        return 1400;
    if (smaller <= 500)
        return 1500;
    if (smaller <= 1000)
        return 1000;
    if (smaller <= 2000)
        return 500;
    return 0;
}

double ratio(double num, double den) {
    if (den == 0.0)
        return num == 0.0 ? 0.0 : HUGE_VAL;
    return num / den;
}

bool in_rect(int r, int c, int r0, int r1, int c0, int c1) {
    return r >= r0 && r <= r1 && c >= c0 && c <= c1;
}

// Transient-check limits by the region's highest mean: column a scales with how busy the scene
// has been, column b caps it.
struct DropRow {
    uint32_t bound;
    float a, b;
};
constexpr DropRow kTableA[] = {{100, 1.03f, 1.13f},  {300, 0.28f, 0.68f}, {500, 0.23f, 0.63f},
                               {800, 0.18f, 0.43f},  {1200, 0.1f, 0.38f}, {3000, 0.09f, 0.28f},
                               {65534, 0.06f, 0.21f}};
constexpr DropRow kTableB[] = {{100, 1.03f, 1.13f},  {300, 0.33f, 0.68f},  {500, 0.28f, 0.63f},
                               {800, 0.23f, 0.43f},  {1200, 0.18f, 0.38f}, {3000, 0.1f, 0.28f},
                               {65534, 0.09f, 0.21f}};
constexpr DropRow kTableC[] = {{100, 1.03f, 1.13f}, {300, 0.4f, 0.68f},   {500, 0.35f, 0.63f},
                               {800, 0.3f, 0.53f},  {1200, 0.25f, 0.48f}, {3000, 0.23f, 0.4f},
                               {65534, 0.2f, 0.35f}};

DropRow drop_limits(uint8_t dropMode, uint32_t hi) {
    const DropRow* table = dropMode == 2 ? kTableB : dropMode == 1 ? kTableC : kTableA;
    DropRow row{0, 0.06f, 0.18f};
    for (int i = 0; i < 7; ++i) {
        if (hi <= table[i].bound) {
            row = table[i];
            break;
        }
    }
    if (dropMode == 1 && lens_get_zoom_pos() < 101) {
        row.a *= 1.5f;
        row.b *= 1.5f;
    }
    return row;
}

void adapt_trigger_thresholds(SceneAnalyzer& a, float rho) {
    const float r = rho <= 0.2f ? 0.0f : rho;
    const float k = (1.0f + r) * (1.0f + r);
    a.trigger[0] = 4.0f * r;
    a.trigger[1] = 0.1f * k;
    a.trigger[2] = 0.15f * k;
}

// Change of the cell list's means against the reference: sharpness first, then brightness.
uint8_t change_test(SceneAnalyzer& a, const SceneInput& in, const CellList& cells,
                    uint32_t refSharp, uint32_t refLuma, const AdaptiveThreshold& sharpLimit,
                    const AdaptiveThreshold& lumaLimit, double dropLimit) {
    if (cells.n == 0)
        return 0;
    const uint32_t m = masked_mean(in.sharpness, cells);
    const double d = std::fabs(static_cast<double>(m) - refSharp);
    const double rel = ratio(d, refSharp);
    a.changeTestFlag = (m < refSharp && rel > dropLimit) ? 1 : 0;
    if (rel > sharpLimit.value)
        return 1;
    const uint32_t ml = masked_mean(in.luma, cells);
    return ratio(std::fabs(static_cast<double>(ml) - refLuma), refLuma) >= lumaLimit.value ? 1 : 0;
}

// Whether the middle of the picture really lost or gained sharpness against the reference (a
// distance reading alone is not trusted to restart a search).
uint8_t confirming_test(const SceneAnalyzer& a, const SceneInput& in) {
    const uint32_t* g = in.sharpness;
    const uint32_t* r = a.refSharp;
    CellList all, middle;
    for (int row = 3; row <= 11; ++row) {
        for (int col = 3; col <= 11; ++col) {
            const int b = row * kGridCols + col;
            if (r[b] < 60 && g[b] < 60)
                continue;
            all.add(static_cast<uint8_t>(row), static_cast<uint8_t>(col));
            if (col >= 5 && col <= 9)
                middle.add(static_cast<uint8_t>(row), static_cast<uint8_t>(col));
        }
    }
    auto spread = [](uint32_t ref, uint32_t cur) {
        if (ref < 3000 && cur < 3000)
            return 1.0;
        return ratio(std::fabs(static_cast<double>(cur) - ref),
                     ref + change_offset(std::min(ref, cur)));
    };
    const double x = spread(masked_mean(r, middle), masked_mean(g, middle));
    const double y = spread(masked_mean(r, all), masked_mean(g, all));
    const double limit = lens_get_zoom_pos() < 1000 ? 0.2 : 0.1;
    return x > limit || y > limit ? 1 : 0;
}

// Whether the distance offsets of the newest ten long-history frames stayed within 2 steps.
bool offsets_steady(const SceneAnalyzer& a) {
    if (a.longSharp.n < 10)
        return false;
    int lo = 32767, hi = -32768;
    for (int i = a.longSharp.n - 10; i < a.longSharp.n; ++i) {
        const int v = a.longOffset[(a.longSharp.head + i) % kLongHistory];
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
    return hi - lo < 3;
}

// The report region. It starts from the changed blocks, without isolated ones (single blocks
// flicker on noise and would make a scattered region look large), and adds the reference's
// subject cells that lie within the extent of the change: within its bounding box at long focal
// lengths, where the subject fills much of the picture, else within the changed span of the
// subject cell's row, then of its column (a subject partly hidden by the change stays whole
// without spreading to unrelated parts of the picture). The region is confirmed (pending 1) when
// it is large enough and lies around the middle of the picture: at least 20 blocks, 30 of them in
// rows 3-11 x columns 4-12 and 6 in the centre rows 6-8 x columns 7-9. Of what it builds only the
// pending byte reaches autofocus; the event is the detector's status until the caller overrides it.
void build_report_region(const SceneAnalyzer& a, SceneResult& result) {
    uint8_t region[kGridBlocks];
    std::memcpy(region, result.changed, sizeof region);
    remove_isolated_blocks(result.changed, region);

    int rmin = kGridRows, rmax = -1, cmin = kGridCols, cmax = -1;
    int rowLo[kGridRows], rowHi[kGridRows], colLo[kGridCols], colHi[kGridCols];
    std::fill(rowLo, rowLo + kGridRows, kGridCols);
    std::fill(rowHi, rowHi + kGridRows, -1);
    std::fill(colLo, colLo + kGridCols, kGridRows);
    std::fill(colHi, colHi + kGridCols, -1);
    for (int b = 0; b < kGridBlocks; ++b) {
        if (region[b] == 0)
            continue;
        const int r = b / kGridCols, c = b % kGridCols;
        rmin = std::min(rmin, r);
        rmax = std::max(rmax, r);
        cmin = std::min(cmin, c);
        cmax = std::max(cmax, c);
        rowLo[r] = std::min(rowLo[r], c);
        rowHi[r] = std::max(rowHi[r], c);
        colLo[c] = std::min(colLo[c], r);
        colHi[c] = std::max(colHi[c], r);
    }
    const CellList& cells = a.subjectCells;
    if (lens_get_zoom_pos() > 5000) {
        for (int i = 0; i < cells.n; ++i) {
            const int r = cells.rc[i][0], c = cells.rc[i][1];
            if (in_rect(r, c, rmin, rmax, cmin, cmax))
                region[r * kGridCols + c] = 1;
        }
    } else {
        for (int pass = 0; pass < 2; ++pass) {
            for (int i = 0; i < cells.n; ++i) {
                const int r = cells.rc[i][0], c = cells.rc[i][1];
                const bool inside =
                    pass == 0 ? (c >= rowLo[r] && c <= rowHi[r]) : (r >= colLo[c] && r <= colHi[c]);
                if (inside)
                    region[r * kGridCols + c] = 1;
            }
        }
    }

    const uint16_t total = count_set_grid(region);
    const uint16_t middle = count_set_window(region, 3, 4, 12, 13);
    const uint16_t centre = count_set_window(region, 6, 7, 9, 10);
    result.pending = (total >= 20 && middle >= 30 && centre >= 6) ? 1 : 0;
    result.event = a.detectorStatus;
}

void fill_report(SceneAnalyzer& a, SceneResult& result) {
    a.reported = 0;
    result.components = a.snapshot;
    std::memcpy(result.region, a.targetRegion, sizeof result.region);
    std::memcpy(result.changed, a.targetRegion, sizeof result.changed);
    result.target = a.target;
}

}  // namespace

void changed_blocks(const SceneAnalyzer& a, const SceneInput& in, CellList& out) {
    static constexpr float kSharpT[] = {0.11f, 0.13f, 0.13f, 0.13f, 0.15f, 0.15f};
    static constexpr float kLumaT[] = {0.1f, 0.11f, 0.12f, 0.12f, 0.13f, 0.14f};
    const int band = lens_get_zoom_pos() / 1024;
    const int idx = band < 4 ? 0 : std::min(band - 3, 5);
    const float sharpT = kSharpT[idx], lumaT = kLumaT[idx];

    uint8_t sharpSet[kGridBlocks] = {};
    float lumaMap[kGridBlocks];
    for (int b = 0; b < kGridBlocks; ++b) {
        const uint32_t c = in.sharpness[b], r = a.refSharp[b];
        double rs = 0.0;
        if (c >= 700 || r >= 700) {
            const double d = std::fabs(static_cast<double>(c) - r);
            rs = ratio(d, std::max(c, r) + change_offset(std::min(c, r)));
        }
        sharpSet[b] = (rs > 0.02 && rs > sharpT) ? 1 : 0;

        const uint32_t lc = in.luma[b], lr = a.refLuma[b];
        const uint16_t d = static_cast<uint16_t>(lc > lr ? lc - lr : lr - lc);
        double rl = (lc == lr || lr == 0) ? 0.0 : static_cast<double>(d) / lr;
        if (lc <= 31 && lr <= 31)
            rl = 0.0;
        lumaMap[b] = (rl > 0.02 && rl > lumaT) ? 1.0f : 0.0f;
    }
    // Brightness flickers block by block; only changes shared by the neighbours count.
    majority_filter(lumaMap);
    out.clear();
    for (int b = 0; b < kGridBlocks; ++b)
        if (sharpSet[b] != 0 || lumaMap[b] == 1.0f)
            out.add(static_cast<uint8_t>(b / kGridCols), static_cast<uint8_t>(b % kGridCols));
}

uint8_t refresh_due(SceneAnalyzer& a, int64_t elapsed) {
    const uint16_t focus = lens_get_focus_pos();
    if (std::abs(static_cast<int>(focus) - a.refreshFocus) > 4) {
        if (elapsed >= a.refreshInterval) {
            a.refreshFocus = focus;
            return 1;
        }
        return 0;
    }
    // The lens stayed put: each refresh doubles the wait for the next one.
    const int shift = std::min(a.refreshBackoff + 1, 40);
    if (elapsed >= static_cast<int64_t>(a.refreshInterval) << shift) {
        if (a.refreshBackoff < 255)
            ++a.refreshBackoff;
        return 1;
    }
    return 0;
}

void sharpness_drop(SceneAnalyzer& a, const SceneInput& in, SceneResult& result) {
    (void)in;
    const bool high = get_high_rate() != 0;
    if (a.quietCount == 0) {
        std::memcpy(a.adaptive, a.adaptiveSaved, sizeof a.adaptive);
        a.dropMode = 2;
    } else {
        // A long quiet spell makes the change tests more sensitive, step by step; the divisor
        // is applied to the thresholds saved at capture, so it does not compound per frame.
        const uint32_t span = high ? 40 : 20;
        if (a.quietCount >= span) {
            const float factor =
                1.0f + a.params.quietStep * static_cast<float>(a.quietCount / span);
            for (int i = 0; i < 4; ++i) {
                AdaptiveThreshold& t = a.adaptive[i];
                t.value = std::clamp(a.adaptiveSaved[i].value / factor, t.min, t.max);
            }
        }
    }
    if (a.busyCount == 0) {
        a.params = a.paramsSaved;
        a.dropMode = 2;
    }

    const uint32_t* g = a.sharpHist.newest();
    const uint32_t rc = window_mean(a.refSharp, 4, 6, 10, 9);
    const uint32_t gc = window_mean(g, 4, 6, 10, 9);
    const uint32_t rw = window_mean(a.refSharp, 1, 1, 14, 14);
    const uint32_t gw = window_mean(g, 1, 1, 14, 14);
    result.sharpnessMeans[0] = rc;
    result.sharpnessMeans[1] = gc;
    result.sharpnessMeans[2] = rw;
    result.sharpnessMeans[3] = gw;
    const double tc = rc > 2000 ? 0.15 : 0.3;
    const double tw = rw > 2000 ? 0.15 : 0.3;
    const bool centreDrop = rc > gc && gc <= 2000 && static_cast<double>(rc - gc) / rc > tc;
    const bool wholeDrop = rw > gw && gw <= 999 && static_cast<double>(rw - gw) / rw > tw;
    if (centreDrop || wholeDrop) {
        a.dropMode = 1;
        a.params.historyLength = high ? 6 : 4;
    } else if (a.trendFlag == 1) {
        a.dropMode = 3;
        a.params.historyLength = high ? 10 : 8;
    } else {
        a.dropMode = 2;
        a.params.historyLength = high ? 8 : 6;
    }
}

uint8_t static_scene_check(SceneAnalyzer& a) {
    const int n = a.params.historyLength;
    if (a.longSharp.n < n)
        return 0;
    if (a.changeTestFlag != 0 && a.busyCount > 100)
        return 1;
    if (a.busyCount <= 3)
        return 0;
    const uint32_t per = get_high_rate() != 0 ? 20 : 10;
    const float factor = 1.0f + a.params.sceneGain * static_cast<float>(a.busyCount / per);
    static constexpr uint8_t kCols[3][2] = {{4, 6}, {7, 9}, {10, 12}};
    bool stable = true;
    for (const auto& cols : kCols) {
        uint32_t hi = 0, lo = UINT32_MAX;
        for (int j = 0; j < n; ++j) {
            const uint32_t m = window_mean(a.longSharp.at(j), 3, cols[0], 13, cols[1]);
            hi = std::max(hi, m);
            lo = std::min(lo, m);
        }
        if (n == 0)
            hi = lo = 0;
        float limit, spread;
        if (hi > 300) {
            const DropRow row = drop_limits(a.dropMode, hi);
            limit = std::min(row.a * factor, row.b);
            spread = static_cast<float>(hi - lo) / static_cast<float>(hi + 1);
            a.dropMax = std::max(a.dropMax, spread);
        } else {
            // Too little texture to judge by sharpness: judge by brightness.
            limit = std::min(0.12f * factor, 0.4f);
            uint32_t lhi = 0, llo = UINT32_MAX;
            for (int j = 0; j < n; ++j) {
                const uint32_t m = window_mean(a.longLuma.at(j), 3, cols[0], 13, cols[1]);
                lhi = std::max(lhi, m);
                llo = std::min(llo, m);
            }
            if (n == 0)
                lhi = llo = 0;
            spread = static_cast<float>(lhi - llo) / (static_cast<float>(lhi) + 1.0f);
        }
        stable = stable && spread < limit;
    }
    return stable ? 1 : 0;
}

void scene_type_test(SceneAnalyzer& a, const SceneInput& in, uint8_t& decided, uint32_t& type) {
    const SceneContext& ctx = g_sceneContext;
    decided = 0;
    type = 0;
    const uint16_t dCap = a.refDistance, dNow = ctx.distance;
    const bool bothUnknown = dCap == kDistanceUnknown && dNow == kDistanceUnknown;
    const bool lostNear = dCap < 3000 && dNow == kDistanceUnknown;
    if (ctx.distanceAssist != 0 && !bothUnknown && !lostNear) {
        const int eNow = expected_focus(dNow), eCap = expected_focus(dCap);
        const int margin = ctx.distanceMargin;
        const bool inBounds = ctx.lowerBound < eNow && eNow < ctx.upperBound;
        const uint8_t nTypes = a.sceneTypeCount;
        const bool twiceFour =
            nTypes >= 2 && a.sceneTypes[nTypes - 1] == 4 && a.sceneTypes[nTypes - 2] == 4;
        if (inBounds && nTypes > 0 && !twiceFour && eCap - eNow > margin &&
            confirming_test(a, in) == 1) {
            decided = 1;
            type = 4;
            return;
        }
        if (inBounds && nTypes > 0) {
            const bool nearZoom =
                lens_get_zoom_pos() < 639 && eNow - eCap > margin && confirming_test(a, in) == 1;
            const uint8_t trend = ctx.distanceTrend != nullptr ? ctx.distanceTrend(30) : 0;
            if (nearZoom || (trend == 2 && eNow - eCap > margin)) {
                decided = 1;
                type = 6;
                return;
            }
        }
    }
    if (change_test(a, in, a.windowCells, a.refWinSharp, a.refWinLuma, a.adaptive[0], a.adaptive[1],
                    0.3) == 1) {
        decided = 1;
        type = 0;
        return;
    }
    if (a.subjectCentred == 0 && change_test(a, in, a.subjectCells, a.refSubjSharp, a.refSubjLuma,
                                             a.adaptive[2], a.adaptive[3], 0.25) == 1) {
        decided = 1;
        type = 1;
        return;
    }
    if (a.lastChangedCount < 6) {
        reset_trigger_thresholds(a);
        reset_change_ring(a);
        a.busyCount = 0;
    }
}

uint32_t scene_step(SceneResult& result, const SceneInput& in) {
    SceneAnalyzer& a = g_sceneAnalyzer;
    SceneContext& ctx = g_sceneContext;
    ctx.refreshReport = 0;

    std::memcpy(a.sharpHist.push(), in.sharpness, sizeof in.sharpness);
    std::memcpy(a.lumaHist.push(), in.luma, sizeof in.luma);
    if (a.sharpHist.n <= 4 || a.lumaHist.n <= 4)
        return kSceneNothing;

    sharpness_drop(a, in, result);

    if (a.finishCaptures < 2 && ctx.pointLightMeasure == 0) {
        if (refresh_due(a, scene_now_seconds() - a.captureTime) == 1) {
            std::memset(result.region, 0, sizeof result.region);
            result.event = kObjectNon;
            ctx.refreshReport = 1;
            result.pending = 0;
            return kSceneReport;
        }
    }

    ++a.frameCounter;
    std::memcpy(a.longSharp.push(), a.sharpHist.newest(), sizeof in.sharpness);
    std::memcpy(a.longLuma.push(), a.lumaHist.newest(), sizeof in.luma);
    const int slot = (a.longSharp.head + a.longSharp.n - 1) % kLongHistory;
    a.longDistance[slot] = ctx.distance;
    a.longOffset[slot] = focus_offset(ctx.distance);

    detect_objects(a, 1, a.sharpHist.newest(), a.lumaHist.newest());
    const uint16_t inWindow = count_set_window(a.outputMask, 4, 4, 12, 12);
    a.countHistory.push(inWindow, a.params.countDepth);
    if (inWindow != 0)
        a.countSeen = 1;

    if (count_set_grid(a.targetRegion) > 5 &&
        (a.targetCentre[0] != a.lastCentre[0] || a.targetCentre[1] != a.lastCentre[1]))
        push_target_centre(a, a.targetCentre[0], a.targetCentre[1]);

    const float rho = change_ratio(a);
    if (rho > 0.8f) {
        ++a.busyCount;
        a.quietCount = 0;
    } else if (rho < 0.2f) {
        a.busyCount = 0;
        ++a.quietCount;
    }

    CellList cells;
    changed_blocks(a, in, cells);
    a.lastChangedCount = cells.n;
    if (cells.n < 6) {
        reset_trigger_thresholds(a);
        reset_change_ring(a);
        push_change_flag(a, 0);
        return kSceneNothing;
    }
    std::memset(result.changed, 0, sizeof result.changed);
    for (int i = 0; i < cells.n; ++i)
        result.changed[cells.rc[i][0] * kGridCols + cells.rc[i][1]] = 1;

    // In low light the sharpness is too noisy to judge; an object that left the picture is
    // reason enough to search again.
    if (get_statistics_mode() != 0 && a.detectorStatus == kObjectOut) {
        std::memcpy(a.lastReportSharp, in.sharpness, sizeof a.lastReportSharp);
        result.busy = 0;
        result.event = kObjectOut;
        result.pending = 0;
        fill_report(a, result);
        return kSceneReport;
    }

    uint8_t decided = 0;
    uint32_t type = 0;
    scene_type_test(a, in, decided, type);
    if (decided == 0 && a.objectScene == 0) {
        push_change_flag(a, 0);
        return kSceneNothing;
    }

    const uint16_t focus = lens_get_focus_pos();
    if (a.objectScene == 0 && type != 4 && type != 6) {
        bool transient;
        if (ctx.distanceAssist != 0 &&
            static_cast<int>(expected_focus(ctx.distance)) - focus > ctx.distanceMargin)
            transient = offsets_steady(a);
        else
            transient = static_scene_check(a) == 1;
        if (!transient) {
            push_change_flag(a, 1);
            adapt_trigger_thresholds(a, rho);
            a.captureTime = scene_now_seconds();
            return kSceneRefocus;
        }
    } else {
        a.objectScene = 1;
        result.decision = type == 6 ? 0 : 1;
    }

    if (ctx.distanceAssist != 0 && a.refDistance < 3000 && ctx.distance < 3000 &&
        ctx.distanceStillValid != nullptr &&
        ctx.distanceStillValid(a.refDistance, ctx.distance) == 1)
        return kSceneNothing;

    build_report_region(a, result);
    push_scene_type(a, static_cast<uint8_t>(type));

    std::memcpy(a.lastReportSharp, in.sharpness, sizeof a.lastReportSharp);
    a.lastReportFocus = focus;

    result.busy = (a.trigger[0] > 2.6f || a.trigger[1] > 0.13f || a.trigger[2] > 0.195f) ? 1 : 0;
    result.event = type == 6 ? kObjectConFar : classify_trajectory(a);
    if (a.detectorStatus == kObjectIn)
        result.event = kObjectIn;
    fill_report(a, result);
    return kSceneReport;
}

uint32_t reference_sharpness_check(const FocusReference& ref) {
    const SceneAnalyzer& a = g_sceneAnalyzer;
    const SceneContext& ctx = g_sceneContext;
    if (ctx.lastSearchNoPeak != 0)
        return kSceneRefocus;

    CellList cells;
    for (int b = 0; b < kGridBlocks; ++b)
        if (ref.blockMask[b] != 0)
            cells.add(static_cast<uint8_t>(b / kGridCols), static_cast<uint8_t>(b % kGridCols));

    const uint16_t focus = lens_get_focus_pos();
    FhSeries means;
    FhPositions positions;
    fh_neighbour_series(cells, focus, 100, 100, 4, &means, &positions);
    if (means.n == 0 || positions.n == 0)
        return ctx.trackingOn != 0 ? kSceneRefocus : kSceneReport;

    const int best = static_cast<int>(std::max_element(means.v, means.v + means.n) - means.v);
    const uint32_t peak = means.v[best];
    // Positions compared on their low 8 bits, as the search logs them.
    const int d = std::abs((focus & 0xFF) - (positions.p[best] & 0xFF));
    const uint32_t refMean = fh_cell_mean_grid(a.refSharp, cells);
    const uint16_t zoom = lens_get_zoom_pos();
    const int tolerance = zoom < 1000 ? 3 : zoom < 3000 ? 5 : 7;
    // The subject is clearly sharper somewhere else than where the search stopped.
    if (ratio(peak, refMean) >= 1.2 && d > tolerance)
        return kSceneReport;

    const uint8_t reach = zoom < 1000 ? 5 : zoom < 3000 ? 6 : 8;
    FhSeries near;
    fh_neighbour_series(cells, focus, reach, reach, 4, &near);
    if (near.n == 0)
        return kSceneReport;
    uint32_t smoothed[kFhSeriesMax];
    for (int i = 0; i < near.n; ++i) {
        const int lo = std::max(0, i - 1), hi = std::min(near.n - 1, i + 1);
        uint64_t sum = 0;
        for (int j = lo; j <= hi; ++j)
            sum += near.v[j];
        smoothed[i] = static_cast<uint32_t>(sum / static_cast<uint64_t>(hi - lo + 1));
    }
    // Still rising towards the low end of the neighbourhood: the peak lies below the focus.
    const int top = static_cast<int>(std::max_element(smoothed, smoothed + near.n) - smoothed);
    return top == 0 ? kSceneReport : kSceneRefocus;
}

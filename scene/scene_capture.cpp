// The focus reference: what the picture looked like when the last search ended, and the tuning
// the per-frame decision derives from it.
#include <cstdlib>
#include <cstring>

#include "base/frame_pacing.h"
#include "isp/frame_history.h"
#include "isp/highlight.h"
#include "platform/clock.h"
#include "scene/grid_ops.h"
#include "scene/object_tracker.h"
#include "scene/scene_analyzer.h"
#include "scene/scene_state.h"
#include "tracking/distance_table.h"

SceneAnalyzer g_sceneAnalyzer;

namespace {

// Relative change a window or subject mean may show before it counts as a scene change. Dull
// scenes are noisy in relative terms and get wider limits.
AdaptiveThreshold change_limits(uint32_t mean) {
    struct Row {
        uint32_t bound;
        AdaptiveThreshold t;
    };
    static constexpr Row kRows[] = {
        {300, {0.27f, 0.3f, 0.33f}},    {1000, {0.17f, 0.2f, 0.23f}},
        {2000, {0.09f, 0.12f, 0.15f}},  {5000, {0.07f, 0.1f, 0.13f}},
        {10000, {0.05f, 0.08f, 0.11f}}, {20000, {0.03f, 0.06f, 0.09f}},
    };
    for (const Row& row : kRows)
        if (mean <= row.bound)
            return row.t;
    return {0.1f, 0.1f, 0.1f};
}

bool in_rect(int r, int c, int r0, int r1, int c0, int c1) {
    return r >= r0 && r <= r1 && c >= c0 && c <= c1;
}

// Where the last searches ended, in two clusters: a focus near the low cluster means the subject
// is usually at that distance, so the reference is taken as it is; near the high one the
// reference is blended with the previous one.
void update_focus_trend(SceneAnalyzer& a, uint16_t focus) {
    const uint16_t u = fh_end_position();
    if (a.endQ1.n == 0) {
        a.endQ1.push(u);
        a.highEnd = u;
        return;
    }
    if (a.endQ2.n != 0) {
        const int d1 = std::abs(static_cast<int>(u) - a.endQ1.mean());
        const int d2 = std::abs(static_cast<int>(u) - a.endQ2.mean());
        if (d1 <= d2)
            a.endQ1.push(u);
        else
            a.endQ2.push(u);
    } else {
        a.endQ2.push(u);
    }
    const int m1 = a.endQ1.mean(), m2 = a.endQ2.mean();
    if (m1 == m2)
        return;
    a.highEnd = static_cast<uint16_t>(m1 > m2 ? m1 : m2);
    a.lowEnd = static_cast<uint16_t>(m1 > m2 ? m2 : m1);
    const int low = a.lowEnd, high = a.highEnd, eighth = (high - low) / 8;
    if (low >= 65530)
        return;
    const int p = focus;
    if (p <= low || (p - low <= eighth && high - p > eighth))
        a.trendFlag = 1;
    else if (p >= high || (high - p <= eighth && p - low > eighth))
        a.trendFlag = 0;
    else
        a.trendFlag = 2;
}

void build_cells(SceneAnalyzer& a, const FocusReference& ref) {
    a.windowCells.clear();
    for (int r = 4; r <= 11; ++r)
        for (int c = 4; c <= 11; ++c)
            a.windowCells.add(static_cast<uint8_t>(r), static_cast<uint8_t>(c));

    // The subject widened by one block: a subject that moves a little still lies inside.
    uint8_t excluded[kGridBlocks];
    copy_latched_highlight_core(excluded);
    a.subjectCells.clear();
    for (int r = 0; r < kGridRows; ++r) {
        for (int c = 0; c < kGridCols; ++c) {
            if (excluded[r * kGridCols + c] != 0)
                continue;
            bool member = false;
            for (int dr = -1; dr <= 1 && !member; ++dr)
                for (int dc = -1; dc <= 1 && !member; ++dc)
                    member = in_rect(r + dr, c + dc, 0, kGridRows - 1, 0, kGridCols - 1) &&
                             ref.blockMask[(r + dr) * kGridCols + c + dc] != 0;
            if (member)
                a.subjectCells.add(static_cast<uint8_t>(r), static_cast<uint8_t>(c));
        }
    }
    if (a.subjectCells.n == 0)
        for (int r = 2; r <= 5; ++r)
            for (int c = 4; c <= 7; ++c)
                a.subjectCells.add(static_cast<uint8_t>(r), static_cast<uint8_t>(c));

    uint32_t centred = 0, inWindow = 0;
    for (int i = 0; i < a.subjectCells.n; ++i) {
        const int r = a.subjectCells.rc[i][0], c = a.subjectCells.rc[i][1];
        centred += in_rect(r, c, 3, 9, 4, 8) ? 1 : 0;
        inWindow += in_rect(r, c, 4, 11, 4, 11) ? 1 : 0;
    }
    const uint32_t n = a.subjectCells.n;
    a.subjectCentred = centred * 10 >= n * 9 ? 1 : 0;

    a.refWinSharp = masked_mean(a.refSharp, a.windowCells);
    a.refWinLuma = masked_mean(a.refLuma, a.windowCells);
    a.refSubjSharp = masked_mean(a.refSharp, a.subjectCells);
    a.refSubjLuma = masked_mean(a.refLuma, a.subjectCells);

    reset_trigger_thresholds(a);
    const AdaptiveThreshold win = change_limits(a.refWinSharp);
    const AdaptiveThreshold subj = change_limits(a.refSubjSharp);
    a.adaptive[0] = win;
    a.adaptive[1] = {0.06f, 0.1f, 0.2f};
    a.adaptive[2] = subj;
    a.adaptive[3] = {0.06f, 0.12f, 0.2f};
    // A subject mostly outside the AF window changes the window means less: test it tighter.
    if (inWindow * 10 < n * 8) {
        a.adaptive[2].value *= 0.8f;
        a.adaptive[3].value *= 0.8f;
    }
    const bool high = get_high_rate() != 0;
    a.params.historyLength = high ? 15 : 8;
    a.params.sceneGain = 0.02f;
    a.params.countDepth = high ? 10 : 6;
    a.params.secondDepth = 6;
    a.params.quietStep = 0.01f;
    std::memcpy(a.adaptiveSaved, a.adaptive, sizeof a.adaptive);
    a.paramsSaved = a.params;
}

}  // namespace

int64_t scene_now_seconds() {
    // The monotonic clock: a wall clock set by the network must not fire or hold back refreshes.
    return static_cast<int64_t>(platform::monotonic_us() / 1000000u);
}

void reset_trigger_thresholds(SceneAnalyzer& a) {
    a.trigger[0] = 2.0f;
    a.trigger[1] = 0.1f;
    a.trigger[2] = 0.15f;
}

void reset_change_ring(SceneAnalyzer& a) {
    a.changeSize = get_high_rate() != 0 ? 16 : 8;
    std::memset(a.changeRing, 0, sizeof a.changeRing);
    a.changePos = 0;
}

void push_change_flag(SceneAnalyzer& a, uint8_t flag) {
    if (a.changeSize == 0)
        return;
    a.changeRing[a.changePos] = flag;
    a.changePos = static_cast<uint8_t>((a.changePos + 1) % a.changeSize);
}

float change_ratio(const SceneAnalyzer& a) {
    if (a.changeSize == 0)
        return 0.0f;
    uint32_t sum = 0;
    for (int i = 0; i < a.changeSize; ++i)
        sum += a.changeRing[i];
    return static_cast<float>(sum) / static_cast<float>(a.changeSize);
}

void push_scene_type(SceneAnalyzer& a, uint8_t type) {
    if (a.sceneTypeCount == 3) {
        a.sceneTypes[0] = a.sceneTypes[1];
        a.sceneTypes[1] = a.sceneTypes[2];
        a.sceneTypeCount = 2;
    }
    a.sceneTypes[a.sceneTypeCount++] = type;
}

void smooth_reference(SceneAnalyzer& a, const uint32_t* sharp, const uint32_t* luma, uint8_t copy) {
    if (copy != 0) {
        std::memcpy(a.smoothSharp, sharp, sizeof a.smoothSharp);
        std::memcpy(a.smoothLuma, luma, sizeof a.smoothLuma);
        return;
    }
    for (int b = 0; b < kGridBlocks; ++b) {
        a.smoothSharp[b] = static_cast<uint32_t>(a.smoothSharp[b] * 0.4 + sharp[b] * 0.6);
        a.smoothLuma[b] = static_cast<uint32_t>(a.smoothLuma[b] * 0.4 + luma[b] * 0.6);
    }
}

void capture_reference(const FocusReference& ref) {
    SceneAnalyzer& a = g_sceneAnalyzer;
    const SceneContext& ctx = g_sceneContext;

    a.dropMode = a.dropModeTwin = 2;
    a.dropMax = 0.0f;
    a.sharpHist.clear();
    a.lumaHist.clear();
    a.countHistory.clear();
    reset_change_ring(a);
    a.busyCount = a.quietCount = 0;
    a.frameCounter = 0;
    a.trendFlag = 2;
    a.windowCells.clear();
    a.subjectCells.clear();

    a.centreCount = 0;
    a.captureTime = scene_now_seconds();

    std::memcpy(a.refSharp, ref.sharpness, sizeof a.refSharp);
    std::memcpy(a.refLuma, ref.luma, sizeof a.refLuma);
    std::memcpy(a.refWindowMask, ref.windowMask, sizeof a.refWindowMask);
    std::memcpy(a.refWindowValues, ref.windowValues, sizeof a.refWindowValues);
    a.refFlag = ref.flag != 0 ? 1 : 0;
    a.refFocus = ref.focusPosition;

    if (ctx.distanceAssist != 0) {
        const bool unknown = ref.distance == kDistanceUnknown || a.refDistance == kDistanceUnknown;
        if (unknown || std::abs(static_cast<int>(ref.distance) - a.refDistance) > 50)
            push_scene_type(a, 1);
    }
    a.refDistance = ref.distance;

    update_focus_trend(a, ref.focusPosition);
    if (a.trendFlag == 0) {
        smooth_reference(a, ref.sharpness, ref.luma, 0);
    } else {
        const uint32_t probe = a.smoothSharp[3 * kGridCols + 4] + a.smoothSharp[7 * kGridCols + 8] +
                               a.smoothSharp[11 * kGridCols + 12];
        if (probe < 3)
            smooth_reference(a, ref.sharpness, ref.luma, 1);
    }

    if (std::abs(static_cast<int>(ref.windowRecord[0]) - ref.windowRecord[1]) > 30)
        std::memcpy(a.windowRecordBefore, a.windowRecord, sizeof a.windowRecord);
    std::memcpy(a.windowRecord, ref.windowRecord, sizeof a.windowRecord);

    build_cells(a, ref);

    detect_objects(a, 0, nullptr, nullptr);
    a.countSeen = 0;
    a.objectScene = 0;

    bool bright = false;
    for (uint32_t v : ref.windowValues)
        bright = bright || v > 500;
    // A dull picture is refreshed more often: a small change there is easily missed.
    a.refreshInterval = bright ? 20 : 10;

    if (g_sceneContext.searchPhase == 9)
        ++a.finishCaptures;
    else
        a.finishCaptures = 0;
}

// The reference capture and the per-frame decision on synthetic grid sequences, with the
// platform's virtual clock standing in for time.
#include <gtest/gtest.h>

#include <vector>

#include "scene/scene_decision.h"
#include "tests/scene/scene_fixture.h"
#include "tests/support/alloc_counter.h"

namespace {

using scenetest::flat;
using scenetest::paint;
using scenetest::U32Grid;

class SceneDecision : public scenetest::SceneFixture {
  protected:
    static SceneAnalyzer& a() { return g_sceneAnalyzer; }
    uint32_t step(const U32Grid& sharp, const U32Grid& luma) {
        const SceneInput in = input(sharp, luma);
        return scene_step(result_, in);
    }
    SceneResult result_;
};

TEST_F(SceneDecision, CaptureDerivesTheRefreshIntervalAndTheSubjectCells) {
    capture_reference(reference(1500, 1000, 500));
    EXPECT_EQ(a().refreshInterval, 10) << "no window above 500: a dull picture";
    FocusReference ref = reference(1500, 1000, 500);
    ref.windowValues[24] = 501;
    capture_reference(ref);
    EXPECT_EQ(a().refreshInterval, 20);
    EXPECT_EQ(a().subjectCells.n, 25) << "the 3 x 3 subject widened by one block";
    EXPECT_EQ(a().subjectCentred, 0) << "column 9 lies outside the centred columns 4-8";
    std::fill(std::begin(ref.blockMask), std::end(ref.blockMask), 0);
    ref.blockMask[6 * 15 + 6] = 1;
    capture_reference(ref);
    EXPECT_EQ(a().subjectCentred, 1);

    std::fill(std::begin(ref.blockMask), std::end(ref.blockMask), 0);
    capture_reference(ref);
    ASSERT_EQ(a().subjectCells.n, 16) << "no subject: the default cells";
    EXPECT_EQ(a().subjectCells.rc[0][0], 2);
    EXPECT_EQ(a().subjectCells.rc[15][1], 7);
    EXPECT_EQ(a().subjectCentred, 0);
    // Sharpness mean 1500: limits of the 2000 row; the default subject lies outside the AF
    // window, so its limits are tightened.
    EXPECT_FLOAT_EQ(a().adaptive[0].value, 0.12f);
    EXPECT_FLOAT_EQ(a().adaptive[2].value, 0.12f * 0.8f);
    EXPECT_FLOAT_EQ(a().adaptive[3].value, 0.12f * 0.8f);
    EXPECT_EQ(a().params.historyLength, 8);
}

TEST_F(SceneDecision, FirstFourFramesOnlyFillTheHistories) {
    capture_reference(reference(1500, 1000));
    const U32Grid wild = flat(6000), dark = flat(100);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(step(wild, dark), kSceneNothing) << "frame " << i + 1;
    EXPECT_EQ(step(wild, dark), kSceneRefocus) << "the fifth frame judges the change";
}

TEST_F(SceneDecision, RefreshesBackOffWhileTheLensStaysPut) {
    FocusReference ref = reference(1500, 1000);
    capture_reference(ref);
    std::vector<int> refreshes;
    for (int t = 0; t <= 170; ++t) {
        const uint32_t d = step(flat(1500), flat(1000));
        if (d != kSceneNothing) {
            EXPECT_EQ(d, kSceneReport);
            EXPECT_EQ(result_.event, kObjectNon);
            EXPECT_EQ(g_sceneContext.refreshReport, 1);
            refreshes.push_back(t);
        } else {
            EXPECT_EQ(g_sceneContext.refreshReport, 0);
        }
        advance_seconds(1);
    }
    // The first refresh finds the lens away from where the last one left it (power-on) and
    // comes after one interval; from then on the wait doubles.
    EXPECT_EQ(refreshes, (std::vector<int>{20, 40, 80, 160}));

    // After two captures at the end of finished searches the timer no longer fires.
    g_sceneContext.searchPhase = 9;
    capture_reference(ref);
    capture_reference(ref);
    for (int t = 0; t <= 30; ++t, advance_seconds(1))
        ASSERT_EQ(step(flat(1500), flat(1000)), kSceneNothing) << t;
}

TEST_F(SceneDecision, ALastingChangeAdaptsTheThresholdsUntilItIsReported) {
    capture_reference(reference(1500, 1000));
    const U32Grid sharper = flat(3000), luma = flat(1000);
    for (int i = 0; i < 4; ++i)
        step(sharper, luma);
    // Each refocus answer marks the frame busy; the thresholds follow the busy share rho of
    // the eight-frame ring as it was before the frame.
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(step(sharper, luma), kSceneRefocus);
    ASSERT_EQ(step(sharper, luma), kSceneRefocus);  // rho = 4/8
    EXPECT_FLOAT_EQ(a().trigger[0], 2.0f);
    EXPECT_FLOAT_EQ(a().trigger[1], 0.225f);
    EXPECT_FLOAT_EQ(a().trigger[2], 0.3375f);
    // The ring fills, the scene counts as busy, and once the long history shows the changed
    // picture holding still it is reported with its region.
    uint32_t d = kSceneRefocus;
    int frames = 0;
    while (d == kSceneRefocus && frames < 20) {
        d = step(sharper, luma);
        ++frames;
    }
    EXPECT_EQ(d, kSceneReport);
    EXPECT_EQ(frames, 6) << "busy for four frames first";
    EXPECT_EQ(result_.busy, 1);
    EXPECT_EQ(result_.pending, 1) << "the whole picture changed";
    EXPECT_EQ(result_.event, kObjectShake) << "no target path to judge";

    // A quiet frame puts the thresholds and the ring back at rest.
    EXPECT_EQ(step(flat(1500), luma), kSceneNothing);
    EXPECT_FLOAT_EQ(a().trigger[0], 2.0f);
    EXPECT_FLOAT_EQ(a().trigger[1], 0.1f);
    EXPECT_FLOAT_EQ(change_ratio(a()), 0.0f);
}

TEST_F(SceneDecision, AReportOffTheMiddleIsNotConfirmed) {
    capture_reference(reference(1500, 1000));
    U32Grid left = flat(1500);
    paint(left, 4, 11, 4, 7, 3000u);  // the left half of the AF window only
    uint32_t d = kSceneNothing;
    for (int i = 0; i < 30 && d != kSceneReport; ++i)
        d = step(left, flat(1000));
    ASSERT_EQ(d, kSceneReport);
    EXPECT_EQ(result_.pending, 0) << "3 blocks in the centre rows 6-8 x columns 7-9";
}

uint8_t g_distanceTrendAnswer = 0;

TEST_F(SceneDecision, DistanceDisagreeingWithTheFocusMakesAnObjectScene) {
    g_sceneContext.distanceAssist = 1;
    g_sceneContext.lowerBound = 0;
    g_sceneContext.upperBound = 6000;
    g_sceneContext.distanceMargin = 4;
    g_sceneContext.distanceTrend = [](uint8_t) { return g_distanceTrendAnswer; };
    FocusReference ref = reference(1500, 1000);
    ref.distance = 300;
    capture_reference(ref);  // the first distance counts as a change: history holds type 1
    U32Grid corner = flat(1500);
    paint(corner, 0, 2, 0, 2, 3000u);  // enough changed blocks to look, none in the AF window

    g_sceneContext.distance = 300;
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(step(corner, flat(1000)), kSceneNothing);
    // The object now reads far: it needs a larger focus position than the lens holds.
    g_sceneContext.distance = 5000;
    lens_set_positions(700, 2400);  // above zoom 639 the trend of the distance must confirm
    EXPECT_EQ(step(corner, flat(1000)), kSceneNothing);
    g_distanceTrendAnswer = 2;
    EXPECT_EQ(step(corner, flat(1000)), kSceneReport);
    EXPECT_EQ(result_.event, kObjectConFar);
    EXPECT_EQ(result_.decision, 0);
    EXPECT_EQ(a().sceneTypes[a().sceneTypeCount - 1], 6);
    // Once an object scene, every frame with changed blocks reports until the next capture.
    g_sceneContext.distance = 300;
    EXPECT_EQ(step(corner, flat(1000)), kSceneReport);
    EXPECT_EQ(result_.decision, 1);
    capture_reference(ref);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(step(corner, flat(1000)), kSceneNothing);
    g_distanceTrendAnswer = 0;
}

TEST_F(SceneDecision, InLowLightAnObjectLeavingThePictureIsEnough) {
    set_statistics_mode(2);
    capture_reference(reference(100, 1000));
    const U32Grid sharp = flat(100);
    auto with_rect = [](int c0, int c1, uint32_t v) {
        U32Grid g = flat(1000);
        paint(g, 5, 9, c0, c1, v);
        return g;
    };
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(step(sharp, flat(1000)), kSceneNothing);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(step(sharp, with_rect(9, 11, 1300)), kSceneNothing);
    ASSERT_EQ(step(sharp, with_rect(12, 14, 1300)), kSceneNothing);
    EXPECT_EQ(step(sharp, with_rect(12, 14, 1600)), kSceneReport);
    EXPECT_EQ(result_.event, kObjectOut);
    EXPECT_EQ(result_.pending, 0);
    EXPECT_EQ(result_.busy, 0);
    EXPECT_EQ(result_.target.centres[0][1], 13);
    EXPECT_EQ(result_.region[7 * 15 + 10], 1) << "where it was last followed";
}

TEST_F(SceneDecision, SharpnessDropModes) {
    capture_reference(reference(1000, 1000));
    U32Grid blurred = flat(1000);
    paint(blurred, 4, 10, 6, 9, 600u);
    for (int i = 0; i < 5; ++i)
        step(blurred, flat(1000));
    EXPECT_EQ(a().dropMode, 1) << "the centre fell by 40 %";
    EXPECT_EQ(a().params.historyLength, 4);
    EXPECT_EQ(result_.sharpnessMeans[0], 1000u);
    EXPECT_EQ(result_.sharpnessMeans[1], 600u);
    EXPECT_EQ(result_.sharpnessMeans[3], (168u * 1000 + 28 * 600) / 196);

    capture_reference(reference(1000, 1000));
    paint(blurred, 4, 10, 6, 9, 800u);  // 20 %: within the 30 % allowed at this level
    for (int i = 0; i < 5; ++i)
        step(blurred, flat(1000));
    EXPECT_EQ(a().dropMode, 2);
    EXPECT_EQ(a().params.historyLength, 6);
}

TEST_F(SceneDecision, LongQuietSpellsSharpenTheChangeTests) {
    capture_reference(reference(1500, 1000));
    for (int i = 0; i < 4 + 20; ++i)
        step(flat(1500), flat(1000));
    EXPECT_FLOAT_EQ(a().adaptive[0].value, 0.12f) << "19 quiet frames: unchanged";
    step(flat(1500), flat(1000));
    EXPECT_FLOAT_EQ(a().adaptive[0].value, 0.12f / 1.01f);
    for (int i = 0; i < 700; ++i)
        step(flat(1500), flat(1000));
    EXPECT_FLOAT_EQ(a().adaptive[0].value, 0.09f) << "held at its minimum";
    EXPECT_FLOAT_EQ(a().adaptive[1].value, 0.1f / 1.36f) << "720 quiet frames: 36 steps";
    // A picture equal to the reference marks no block and follows no object.
    EXPECT_FLOAT_EQ(change_ratio(a()), 0.0f);
    EXPECT_EQ(a().detector.objectCount, 0);
    for (uint8_t v : result_.changed)
        ASSERT_EQ(v, 0);
}

TEST_F(SceneDecision, ChangedBlocksBySharpnessAndConfirmedBrightness) {
    capture_reference(reference(1500, 1000));
    U32Grid sharp = flat(1500), luma = flat(1000);
    sharp[0] = 1800;                     // 0.167 > 0.11
    sharp[1] = 1600;                     // 0.0625: too small
    paint(luma, 10, 12, 10, 12, 1300u);  // a 3 x 3 patch holds against its neighbours
    luma[2 * 15 + 2] = 1500;             // a single bright block does not
    const SceneInput in = input(sharp, luma);
    CellList cells;
    changed_blocks(a(), in, cells);
    ASSERT_GE(cells.n, 1);
    EXPECT_EQ(cells.rc[0][0], 0);
    EXPECT_EQ(cells.rc[0][1], 0);
    auto has = [&](int r, int c) {
        for (int i = 0; i < cells.n; ++i)
            if (cells.rc[i][0] == r && cells.rc[i][1] == c)
                return true;
        return false;
    };
    EXPECT_FALSE(has(2, 2));
    EXPECT_TRUE(has(11, 11));
    EXPECT_FALSE(has(0, 1));

    // Dull blocks: below 700 on both sides nothing counts, however large the ratio.
    capture_reference(reference(300, 1000));
    changed_blocks(a(), input(flat(650), flat(1000)), cells);
    EXPECT_EQ(cells.n, 0);
}

TEST_F(SceneDecision, ReferenceSharpnessCheckLooksForASharperPeakNearby) {
    FocusReference ref = reference(1000, 1000);
    capture_reference(ref);
    auto record = [](uint16_t pos, uint32_t v) {
        const U32Grid g = flat(v);
        fh_record_sample(g.data(), g.data(), pos);
    };
    g_sceneContext.trackingOn = 1;
    EXPECT_EQ(reference_sharpness_check(ref), kSceneRefocus) << "no samples, tracking on";
    g_sceneContext.trackingOn = 0;
    EXPECT_EQ(reference_sharpness_check(ref), kSceneReport) << "no samples";

    for (int p = 2350; p <= 2450; p += 10)
        record(static_cast<uint16_t>(p), p == 2400 ? 1100 : 1000 - std::abs(p - 2400));
    EXPECT_EQ(reference_sharpness_check(ref), kSceneRefocus) << "the peak is where we stand";

    record(2350, 1300);  // 30 % sharper, 50 steps away
    EXPECT_EQ(reference_sharpness_check(ref), kSceneReport);
    record(2350, 950);
    record(2340, 1150);  // not sharper by enough to move, and outside the near neighbourhood
    EXPECT_EQ(reference_sharpness_check(ref), kSceneRefocus);

    fh_reset_for_search();
    for (int p = 2340; p <= 2460; p += 10)
        record(static_cast<uint16_t>(p), 1100 - (p - 2340));  // still rising downwards
    EXPECT_EQ(reference_sharpness_check(ref), kSceneReport);

    g_sceneContext.lastSearchNoPeak = 1;
    EXPECT_EQ(reference_sharpness_check(ref), kSceneRefocus);
}

TEST_F(SceneDecision, PerFrameStepDoesNotAllocate) {
    capture_reference(reference(1500, 1000));
    U32Grid luma = flat(1000);
    const uint64_t before = testsupport::allocation_count();
    for (int i = 0; i < 30; ++i) {
        paint(luma, 4, 8, 0, i % 10, 1300u);
        step(flat(1500 + 50 * (i % 3)), luma);
    }
    EXPECT_EQ(testsupport::allocation_count(), before);
}

}  // namespace

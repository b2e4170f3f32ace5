// Search phases on crafted histories: the step move at the bounds, the trend classifiers, the
// peak tests, the coarse step on a flat stretch, the climb's return to its maximum, the fine
// scan's window and restarts, and the final approach's turn back to the best position.
#include <cstdlib>
#include <vector>

#include "tests/af/af_rules_fixture.h"

namespace {

using SearchPhaseTest = afrules::AfRulesTest;

TEST_F(SearchPhaseTest, StepMoveStopsAtTheBoundAndTurns) {
    g_search.searchDir = 2;
    StepMove(30);
    EXPECT_EQ(lens_get_focus_pos(), 4030);
    EXPECT_EQ(g_search.hitUpper, 0u);
    StepMove(200);  // capped at 60
    EXPECT_EQ(lens_get_focus_pos(), 4090);
    lens_set_positions(3200, 4480);
    StepMove(50);
    EXPECT_EQ(lens_get_focus_pos(), 4500) << "stops exactly at the bound";
    EXPECT_EQ(g_search.searchDir, 1u) << "and turns round";
    EXPECT_EQ(g_search.hitUpper, 1u);
    StepMove(10);
    EXPECT_EQ(lens_get_focus_pos(), 4490) << "from the bound it moves back in";
    lens_set_positions(3200, 3710);
    g_search.searchDir = 1;
    StepMove(60);
    EXPECT_EQ(lens_get_focus_pos(), 3700);
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(g_search.hitLower, 1u);
    lens_set_positions(3200, 3600);  // below the range: moves up whatever the direction
    g_search.searchDir = 1;
    StepMove(20);
    EXPECT_EQ(lens_get_focus_pos(), 3620);
    EXPECT_EQ(g_search.searchDir, 2u);
}

TEST_F(SearchPhaseTest, TrendClassifiersNeedEnoughFramesAndAClearChange) {
    const uint32_t rising[5] = {1000, 1200, 1400, 1600, 1800};
    const uint32_t falling[5] = {1800, 1600, 1400, 1200, 1000};
    const uint32_t flat[5] = {1000, 1003, 998, 1001, 1000};
    g_search.framesInDir = 2;
    EXPECT_EQ(TrendOf(rising, 5, 0.08f, 10.0f), 0) << "too few frames in this direction";
    g_search.framesInDir = 5;
    EXPECT_EQ(TrendOf(rising, 5, 0.08f, 10.0f), 1);
    EXPECT_EQ(TrendOf(falling, 5, 0.08f, 10.0f), 2);
    EXPECT_EQ(TrendOf(flat, 5, 0.08f, 10.0f), 0);
    const uint32_t dim[5] = {40, 42, 44, 46, 48};
    EXPECT_EQ(TrendOf(dim, 5, 0.08f, 10.0f), 0) << "below 50 there is no contrast to judge";
    // Raw: the change must outweigh the lens travel over the same frames.
    // (A slope threshold out of reach isolates the counting rule.)
    set_fv({1800, 1600, 1400, 1200, 1000}, {4400, 4300, 4200, 4100, 4000});
    EXPECT_EQ(TrendOfRaw(rising, 5, 0.1f, 1e6f), 0) << "800 over 400 steps is not enough";
    set_fv({1800, 1600, 1400, 1200, 1000}, {4040, 4030, 4020, 4010, 4000});
    EXPECT_EQ(TrendOfRaw(rising, 5, 0.1f, 1e6f), 1);
    EXPECT_EQ(TrendOfRaw(rising, 5, 0.1f, 15.0f), 1) << "the slope alone also says rising";
    // Agreement: undecided voters do not block, a dissenting one does.
    EXPECT_TRUE(AllAgree(1, 1, 0, 1));
    EXPECT_FALSE(AllAgree(1, 1, 2, 1));
    EXPECT_FALSE(AllAgree(1, 0, 0, 0)) << "nobody has an opinion";
}

TEST_F(SearchPhaseTest, PeakTestsAskForMonotonePositions) {
    set_fv({1200, 1500, 1800, 1900, 1900}, {4030, 4020, 4010, 4000, 3990});
    EXPECT_TRUE(PeakTest(1)) << "a clear fall over moving positions";
    set_fv({1200, 1500, 1800, 1900, 1900}, {4030, 4020, 4030, 4000, 3990});
    EXPECT_FALSE(PeakTest(1)) << "the lens went back and forth";
    set_fv({1800, 1500, 1200, 1100, 1000}, {4030, 4020, 4010, 4000, 3990});
    EXPECT_TRUE(PeakTest(0));
    EXPECT_FALSE(PeakTest(1));
    set_fv({2500, 2700, 2900, 3100, 3100}, {4030, 4020, 4010, 4000, 3990});
    EXPECT_TRUE(PeakTest(2)) << "bright scene, a late fall";
    set_fv({1990, 2000, 2100, 2200, 2200}, {4030, 4020, 4010, 4000, 3990});
    EXPECT_FALSE(PeakTest(2)) << "only above 2000";
    EXPECT_TRUE(PositionsMonotone(5));
}

TEST_F(SearchPhaseTest, FlatCoarseApproachSpeedsUpToItsCap) {
    // A flat picture far from the curve: the strongest window barely changes, the step grows by 2
    // per frame and stops at 10 outside low light.
    g_search.searchPhase = 1;
    g_search.searchDir = 2;
    g_search.framesInDir = 1;
    for (int k = 0; k < 5; ++k)
        set_windows(k, 300);
    std::vector<int> steps;
    for (int i = 0; i < 8; ++i) {
        const uint16_t before = lens_get_focus_pos();
        g_focusValue.posHist[0] = before;
        CoarseStep();
        steps.push_back(lens_get_focus_pos() - before);
    }
    EXPECT_EQ(g_search.searchPhase, 1u);
    for (size_t i = 1; i < steps.size(); ++i)
        EXPECT_GE(steps[i], steps[i - 1]) << "frame " << i;
    EXPECT_EQ(steps.back(), 10);
}

TEST_F(SearchPhaseTest, CoarseApproachHandsOverToTheClimbAtABound) {
    g_search.searchPhase = 1;
    g_search.hitUpper = 1;
    g_search.searchDir = 2;
    CoarseStep();
    EXPECT_EQ(g_search.searchPhase, 2u);
    EXPECT_EQ(g_search.searchDir, 1u) << "back into the range";
}

TEST_F(SearchPhaseTest, ClimbBracketsThePeakAndEndsNextToIt) {
    // A peak at 4040 seen without lag: the climb walks up, sees the fall, walks back to its
    // candidate and hands over to the fine scan there.
    g_search.searchPhase = 2;
    g_search.searchDir = 2;
    g_search.searchStartPos = 3900;
    ClimbReset();
    auto fv_at = [](int p) {
        const int v = 3000 - 20 * std::abs(p - 4040);
        return static_cast<uint32_t>(v < 200 ? 200 : v);
    };
    const uint32_t v0 = fv_at(4000);
    set_fv({v0, v0, v0, v0, v0}, {4000, 4000, 4000, 4000, 4000});
    bool rose = false;
    for (int frame = 0; frame < 60 && g_search.searchPhase == 2; ++frame) {
        const uint16_t p = lens_get_focus_pos();
        push_fv(fv_at(p), p);
        g_search.framesInDir = 9;
        ClimbStep();
        rose = rose || lens_get_focus_pos() > 4040;
    }
    EXPECT_TRUE(rose) << "the climb went past the peak before turning";
    EXPECT_EQ(g_search.searchPhase, 3u) << "the peak is bracketed";
    EXPECT_NEAR(lens_get_focus_pos(), 4040, 12);
}

TEST_F(SearchPhaseTest, FineScanWindowIsClippedAtZero) {
    g_focusValue.posHist[0] = 30;
    FineReset(3);
    EXPECT_EQ(fine_window_lo_for_testing(), 0);
    EXPECT_EQ(fine_window_hi_for_testing(), 80);
    g_focusValue.posHist[0] = 4000;
    FineReset(3);
    EXPECT_EQ(fine_window_lo_for_testing(), 3950);
    EXPECT_EQ(fine_window_hi_for_testing(), 4050);
    FineReset(0);
    EXPECT_EQ(fine_window_lo_for_testing(), g_search.lowerBound);
}

TEST_F(SearchPhaseTest, DeadFlatFineScanRestartsTheSearchAtMostThreeTimes) {
    int restarts = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        g_afState = 1;
        g_search.searchPhase = 3;
        FineReset(0);
        for (int k = 0; k < 5; ++k)
            set_windows(k, 50);
        set_fv({50, 50, 50, 50, 50}, {4000, 4000, 4000, 4000, 4000});
        FineStep();  // starts: steps off and takes the reference
        FineStep();  // judges
        if (g_afState == 0)
            ++restarts;
    }
    EXPECT_EQ(restarts, 3);
    EXPECT_EQ(g_fine.fineRetries, 3);
    EXPECT_EQ(g_fine.fineGain, 3) << "9, lowered by 2 per restart, not below 3";
}

TEST_F(SearchPhaseTest, FinalApproachTurnsBackToItsBestPosition) {
    g_afState = 1;
    g_search.searchPhase = 4;
    g_search.searchDir = 2;
    g_blockPath = 0;
    clear_final_counters();
    g_final.finalStep = 2;
    const uint32_t fv[] = {3000, 3200, 3350, 3300, 3100, 2800};
    for (uint32_t v : fv) {
        push_fv(v, lens_get_focus_pos());
        FinalStep();
        if (g_climb.finalReturn == 1)
            break;
    }
    ASSERT_EQ(g_climb.finalReturn, 1u) << "the fall was seen";
    EXPECT_EQ(lens_get_focus_pos(), 4004) << "back at the position of 3350";
    FinalStep();  // the frame after the drive back
    EXPECT_EQ(g_afState, 2) << "focused";
    EXPECT_EQ(g_climb.finalReturn, 0u);
}

}  // namespace

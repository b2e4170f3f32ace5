// The final approach's step reviews at 15 and at 30 frames, which either grow the step or start a
// new search, and the choice of the first search phase from the picture at a fresh start.
#include <iterator>

#include "tests/af/af_rules_fixture.h"

namespace {

class FinalReviewTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        afrules::StatFrame().all(100).fetch();  // what SnapshotReference reads at a restart
        g_search.searchPhase = 4;
        g_search.searchDir = 2;
        select_only({12, 13});
        set_windows(0, 100);
    }
    // One approach frame after `count_before` frames since the last review. The value creeps up
    // by less than 1/256 (a fall for the fall count, but no turn), and the reference watch is
    // armed far below, so only the review and the move act.
    static void frame(uint16_t count_before) {
        g_afState = 1;
        g_final.finalCount = count_before;
        g_final.finalFrames = 5;
        g_final.finalBest = 1000;
        g_final.finalFalls = 2;
        g_final.finalRefSet = 1;
        g_final.finalRef = 0;
        set_fv({1000, 998, 988, 978, 968}, {4000, 3998, 3996, 3994, 3992});
        FinalStep();
    }
};

TEST_F(FinalReviewTest, ReviewsAtFifteenAndThirtyFramesJudgeTheSharpestSelectedWindow) {
    struct Case {
        uint16_t count_before;
        uint8_t zone_type;
        uint32_t largest;  // window 13; window 14, not selected, reads 20000
        uint8_t retry;
        uint8_t step_after;
        uint16_t count_after;
        bool new_search;
    };
    const Case cases[] = {
        {14, 1, 401, 0, 3, 0, false},    // 15, strong: above 400
        {14, 1, 400, 0, 2, 0, true},     // 15, weak, first time: a new search
        {14, 2, 301, 0, 3, 0, false},    // 15, strong: 301 above zone type 1
        {14, 2, 300, 0, 2, 0, true},     // 15, weak
        {14, 2, 9999, 0, 3, 0, false},   // strong up to 9999 grows the step
        {14, 2, 10000, 0, 2, 0, false},  // beyond it only the count restarts
        {14, 1, 400, 1, 3, 15, false},   // 15, weak after a retry: larger step, count goes on
        {15, 1, 400, 0, 2, 16, false},   // 16: no review
        {29, 1, 401, 1, 3, 0, false},    // 30, strong after a retry
        {29, 1, 400, 1, 2, 0, true},     // 30, weak after a retry: a new search
        {29, 1, 400, 0, 3, 0, false},    // 30, weak, first time: larger step
        {30, 1, 400, 0, 3, 0, false},    // 31
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        g_zoneType = c.zone_type;
        g_fine.lowContrastRetry = c.retry;
        g_final.finalStep = 2;
        g_focusValue.winHist[0][13] = c.largest;
        g_focusValue.winHist[0][14] = 20000;
        lens_set_positions(3200, 4000);
        frame(c.count_before);
        EXPECT_EQ(g_final.finalStep, c.step_after);
        EXPECT_EQ(g_final.finalCount, c.count_after);
        EXPECT_EQ(g_afState, c.new_search ? 0 : 1);
        EXPECT_EQ(g_final.finalFalls, c.new_search ? 0 : 3);
        EXPECT_EQ(g_fine.lowContrastRetry, c.count_before == 14 && c.new_search ? 1 : c.retry)
            << "only a first weak review at 15 marks the retry";
        EXPECT_EQ(lens_get_focus_pos(), 4000 + c.step_after)
            << "the move uses the new step, also when a new search starts";
    }
}

// The first search phase at a fresh start (after a zoom or a pan/tilt move), from the ISP's window
// sharpness (without the history's offset).
class StartPhaseTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        g_search.startFresh = 1;
    }
    static bool coarse(uint16_t zoom, const std::vector<int>& zone, const afrules::Values& raw) {
        lens_set_positions(zoom, 4000);
        select_only(zone);
        afrules::raw_frame(100, raw).fetch();
        return StartPhaseIsCoarse();
    }
};

const std::vector<int> kNine = {6, 7, 8, 11, 12, 13, 16, 17, 18};

TEST_F(StartPhaseTest, FromZoom1500ASharpWindowOrTwoAboveTheTableGoStraightToTheFineScan) {
    // Zoom 2048: table value 300, so the low-light test asks for more than 700.
    EXPECT_FALSE(coarse(2048, kNine, {{12, 1501}})) << "above 1500, in any light";
    EXPECT_TRUE(coarse(2048, kNine, {{12, 1500}}));
    EXPECT_FALSE(coarse(2048, {6}, {})) << "a single window";
    set_low_light(true);
    EXPECT_TRUE(coarse(2048, kNine, {{6, 701}}));
    EXPECT_FALSE(coarse(2048, kNine, {{6, 701}, {7, 701}})) << "two windows count";
    EXPECT_TRUE(coarse(2048, kNine, {{6, 700}, {7, 700}}));
    EXPECT_FALSE(coarse(2048, {6, 7}, {{6, 701}})) << "one of two is half";
    EXPECT_TRUE(coarse(2048, {6, 7, 8, 11}, {{6, 701}}));
    // The table steps at zoom 1536 from 100 to 200.
    EXPECT_FALSE(coarse(1535, {6, 7}, {{6, 501}}));
    EXPECT_TRUE(coarse(1536, {6, 7}, {{6, 501}}));
    EXPECT_FALSE(coarse(2048, {6, 7, 8}, {{6, 701}})) << "half of three windows is one";
}

TEST_F(StartPhaseTest, Between1000And1500FourCountingWindowsOrAllOfThemGoToTheFineScan) {
    EXPECT_TRUE(coarse(1200, kNine, {{6, 5000}}))
        << "no early end below 1500; daylight counts none";
    set_low_light(true);
    // Zoom 1200: table value 100; more than 500 counts, or more than 400 above zone type 1.
    const afrules::Values four = {{6, 401}, {7, 401}, {8, 401}, {11, 401}};
    EXPECT_TRUE(coarse(1200, kNine, {{6, 401}, {7, 401}, {8, 401}}));
    EXPECT_FALSE(coarse(1200, kNine, four));
    EXPECT_FALSE(coarse(1200, {6, 7}, {{6, 401}, {7, 401}})) << "every window counts";
    g_zoneType = 1;
    EXPECT_TRUE(coarse(1200, kNine, four));
    EXPECT_FALSE(coarse(1200, kNine, {{6, 501}, {7, 501}, {8, 501}, {11, 501}}));
    g_zoneType = 2;
    // Zoom 1023: table value 0.
    EXPECT_FALSE(coarse(1023, {6, 7}, {{6, 301}, {7, 301}}));
    EXPECT_TRUE(coarse(1024, {6, 7}, {{6, 301}, {7, 301}}));
}

TEST_F(StartPhaseTest, BelowZoom1000TheLargestWindowAndTheDullOnesDecide) {
    EXPECT_TRUE(coarse(500, {6, 7, 8}, {{6, 1600}, {7, 1199}, {8, 1199}}));
    EXPECT_FALSE(coarse(500, {6, 7, 8}, {{6, 1600}, {7, 1200}, {8, 1199}}));
    EXPECT_TRUE(coarse(500, {6, 7}, {{6, 1599}, {7, 1599}}));
    EXPECT_FALSE(coarse(500, {7}, {})) << "a single window other than the centre";
    // The centre alone: more than three dim lamp windows (below 600) make it coarse.
    for (int z : {9, 14, 19, 24})
        afrules::mark_light(z, true);
    EXPECT_TRUE(coarse(500, {12}, {{24, 599}}));
    EXPECT_FALSE(coarse(500, {12}, {{24, 600}}));
    std::memset(g_focusValue.highlightMask, 0, sizeof g_focusValue.highlightMask);
    for (int z : {9, 14, 19})
        afrules::mark_light(z, true);
    EXPECT_FALSE(coarse(500, {12}, {}));
}

// The branch after a focused picture (startFresh 0) reads the grids the focused watch keeps: see
// FocusWatchTest.RestartStartsCoarseWhenTheSubjectLostSharpnessOrNothingChanged.

}  // namespace

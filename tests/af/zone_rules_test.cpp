// Zone refinement during a search, run by SampleFrame on crafted statistics frames: the low-light
// switch to the window average (rule 3) and its keeping of a few sharp windows (rule 4), the
// object rules A, B and C, the fallback to a fresh zone, the centre lock, and the cross-shaped zone
// taken while the pan/tilt head moves.
#include <iterator>

#include "tests/af/af_rules_fixture.h"

namespace {

using afrules::Values;

const std::vector<int> kInner = {6, 7, 8, 11, 12, 13, 16, 17, 18};
// The windows whose blocks all carry filter sums.
const std::vector<int> kFull = {6, 7, 8, 9, 11, 12, 13, 14, 16, 17, 18, 19, 21, 22, 23, 24};

// One search frame whose windows read these values in the window history (ISP value + 50).
void sample(uint32_t rest, Values w, const std::vector<int>& lights = {}) {
    for (auto& [z, v] : w)
        v -= 50;
    afrules::raw_frame(rest - 50, w, lights).fetch();
    SampleFrame();
}

class ZoneRuleTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        g_search.searchPhase = 1;
        g_search.searchStartPos = 4000;
        g_sceneResult.event = kObjectIn;  // rules A to C stay out unless a test asks for them
    }
};

TEST_F(ZoneRuleTest, Rule3SwitchesALowLightClimbAwayFromTheLowerBoundToTheWindowAverage) {
    struct Case {
        int above_start;
        uint32_t dir;
        bool low_light;
        uint32_t hit_lower;
        uint8_t zone_type;
        bool acts;
    };
    const Case cases[] = {
        {6, 2, true, 1, 2, true},    // six steps up after a lower-bound hit
        {5, 2, true, 1, 2, false},   // five is not more than five
        {6, 1, true, 1, 2, false},   // moving down
        {6, 2, false, 1, 2, false},  // daylight
        {6, 2, true, 0, 2, false},   // the lower bound was not hit
        {6, 2, true, 1, 3, false},   // zone type 3
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        g_windowAverage = 0;
        g_focusValue.rule3Acted = 0;  // as every search start does
        set_low_light(c.low_light);
        g_zoneType = c.zone_type;
        g_presetFlag = 1;
        g_search.searchDir = c.dir;
        g_search.hitLower = c.hit_lower;
        g_seams.trackLock = 1;
        lens_set_positions(3200, static_cast<uint16_t>(4000 + c.above_start));
        select_only({0});
        sample(150, {});
        EXPECT_EQ(g_windowAverage, c.acts ? 1 : 0);
        EXPECT_EQ(g_seams.trackLock, c.acts ? 0 : 1) << "the rule clears the tracking lock";
        EXPECT_EQ(selected(), c.acts ? kInner : std::vector<int>{0}) << "a fresh (preset) zone";
    }
    // Once per search: it acts, and a second chance in the same search does nothing.
    g_zoneType = 2;
    sample(150, {});
    ASSERT_EQ(g_windowAverage, 1);
    g_windowAverage = 0;
    select_only({0});
    sample(150, {});
    EXPECT_EQ(g_windowAverage, 0);
    // It ends the refinement: rule A, whose conditions hold too, does not narrow the fresh zone.
    g_focusValue.rule3Acted = 0;
    g_presetFlag = 0;
    g_sceneResult.event = kObjectOut;
    sample(1000, {{8, 5000}});
    EXPECT_EQ(g_focusZone.selected_count(), 25);
    EXPECT_EQ(g_focusValue.markerA, 1);
}

TEST_F(ZoneRuleTest, Rule4KeepsAFewSharpWindowsInTheLowLightWindowAverage) {
    set_low_light(true);
    g_windowAverage = 1;
    g_presetFlag = 1;
    g_search.searchDir = 1;  // keeps rule 3 out
    g_search.hitLower = g_search.hitUpper = 1;
    // Fewer than 3: inner windows by value are 16 (a lamp, left out), 6, 7, 8 (500: not above).
    select_only({24});
    sample(150, {{24, 650}, {6, 900}, {7, 700}, {8, 500}, {16, 5000}}, {16});
    EXPECT_EQ(selected(), (std::vector<int>{6, 7, 24}));
    EXPECT_EQ(g_focusValue.fvHist[0], (650u + 900 + 700) / 3) << "histories follow the new zone";
    EXPECT_EQ(g_search.hitLower + g_search.hitUpper, 0u);
    select_only({24});
    g_search.hitLower = 1;
    sample(150, {{24, 950}, {6, 900}});
    EXPECT_EQ(selected(), std::vector<int>{24}) << "no inner window beats the zone's value";
    EXPECT_EQ(g_search.hitLower, 1u);

    // 6 or more: mean of the sixteen, lamp window 24 included, (12 x 150 + 4000 + 350 + 300 +
    // 9000) / 16 = 965; 4000 is above twice that and the third sharpest not above 300.
    select_only(kFull);
    sample(150, {{9, 4000}, {14, 350}, {19, 300}, {24, 9000}}, {24});
    EXPECT_EQ(selected(), (std::vector<int>{9, 14}));
    EXPECT_EQ(g_search.hitLower, 0u);
    // Mean 778 with 1000 at window 9: no narrowing, only the lamp window is dropped.
    select_only(kFull);
    sample(150, {{9, 1000}, {14, 350}, {19, 300}, {24, 9000}}, {24});
    EXPECT_EQ(g_focusZone.selected_count(), 15);
    EXPECT_EQ(g_focusZone.windowMask[24], 0);
}

TEST_F(ZoneRuleTest, RuleANarrowsAWideZoneWhenAnObjectAppears) {
    struct Case {
        int zone_size;  // the first of kFull
        Values values;
        uint32_t event;
        bool acts;
    };
    const Case cases[] = {
        {13, {{8, 5000}}, kObjectOut, true},
        {12, {{8, 5000}}, kObjectOut, false},  // not more than 12 windows
        // (13 x 1000 + 1002 + 1001 + L) / 16 = 1017, and 1017 x 5 / 4 = 1271.
        {16, {{8, 1272}, {9, 1002}, {14, 1001}}, kObjectOut, true},
        {16, {{8, 1271}, {9, 1002}, {14, 1001}}, kObjectOut, false},
        {16, {{8, 5000}}, kObjectNon, true},  // any event but OBJECTIN
        {16, {{8, 5000}}, kObjectIn, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        g_focusValue.markerA = 1;
        g_sceneResult.event = c.event;
        select_only(std::vector<int>(kFull.begin(), kFull.begin() + c.zone_size));
        sample(1000, c.values);
        EXPECT_EQ(g_focusValue.markerA, c.acts ? 0 : 1);
        EXPECT_EQ(g_focusZone.selected_count(), c.acts ? 3 : c.zone_size);
        EXPECT_EQ(g_focusZone.windowMask[8], 1);
        if (i == 2) {
            EXPECT_EQ(selected(), (std::vector<int>{8, 9, 14}));
            EXPECT_EQ(g_focusValue.fvHist[0], (1272u + 1002 + 1001) / 3);
        }
    }
}

TEST_F(ZoneRuleTest, RuleBMovesTheZoneToWindowsTwiceAsSharp) {
    g_sceneResult.event = kObjectOut;
    g_focusValue.markerA = 0;
    select_only({12});
    sample(150, {{12, 999}, {6, 1997}});
    EXPECT_EQ(selected(), std::vector<int>{12}) << "1997 is below twice 999";
    // Zone value 500: window 6 reaches 1000, window 7 falls one short, window 8 holds a lamp.
    sample(150, {{12, 500}, {6, 1000}, {7, 999}, {8, 3000}}, {8});
    EXPECT_EQ(selected(), std::vector<int>{6});
    EXPECT_EQ(g_focusValue.markerA, 2);
    EXPECT_EQ(g_focusValue.fvHist[0], 1000u);
    sample(150, {{6, 1000}, {7, 5000}});
    EXPECT_EQ(selected(), std::vector<int>{6}) << "after rule B neither A nor B acts again";
}

TEST_F(ZoneRuleTest, RuleCLetsAMuchSharperWindowLeadUnderThePreset) {
    struct Case {
        uint32_t event;
        uint8_t point_light_zone;
        std::vector<int> zone;
        Values values;
        std::vector<int> lights;
        bool acts;
        std::vector<int> after;
    };
    // Inner nine: (2000 + 401 + 400 + 6 x 150) / 9 = 411, and 2000 is above twice that.
    const Values sharp = {{6, 2000}, {7, 401}, {8, 400}};
    const Case cases[] = {
        {kObjectOut, 0, kInner, sharp, {}, true, {6, 7}},  // the next two only above 400
        {kObjectShake, 0, kInner, sharp, {}, false, kInner},
        {kObjectOut, 1, kInner, sharp, {}, false, kInner},            // point-light zone flag set
        {kObjectOut, 0, {6, 7, 8}, {{6, 2000}}, {8}, false, {6, 7}},  // lamps do not count
        // (2000 + 500 + 500) / 3 = 1000: twice the value is not enough.
        {kObjectOut, 0, {6, 7, 8}, {{6, 2000}, {7, 500}, {8, 500}}, {}, false, {6, 7, 8}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        g_presetFlag = 1;
        g_focusValue.markerC = 1;
        g_sceneResult.event = c.event;
        g_seams.pointLightZone = c.point_light_zone;
        select_only(c.zone);
        sample(150, c.values, c.lights);
        EXPECT_EQ(g_focusValue.markerC, c.acts ? 0 : 1);
        EXPECT_EQ(selected(), c.after);
    }
}

TEST_F(ZoneRuleTest, AnEmptyZoneIsReplacedByAFreshOne) {
    select_only({});
    sample(150, {}, {0});
    EXPECT_EQ(g_focusZone.selected_count(), 24);
    EXPECT_EQ(g_focusZone.windowMask[0], 0) << "the lamp window stays out";
}

TEST_F(ZoneRuleTest, CentreLockTakesTheCentreWhenItDoublesAndIsNotWeak) {
    set_low_light(true);
    afrules::StatFrame().all(100).fetch();  // what SnapshotReference reads when the lock holds
    // Four stored centre values without a lock (the centre is the only window), then the test.
    auto lock = [](uint32_t before, uint32_t centre) {
        select_only({12});
        for (int i = 0; i < 4; ++i)
            CentreLock(1, before);
        select_only({11, 12});
        g_afState = 1;
        g_search.focusDone = 1;
        CentreLock(1, centre);
        const bool locked = selected() == std::vector<int>{12};
        EXPECT_EQ(g_afState, locked ? 0 : 1) << "a lock starts the search again";
        EXPECT_EQ(g_search.focusDone, locked ? 0 : 1);
        return locked;
    };
    EXPECT_TRUE(lock(300, 601));
    EXPECT_FALSE(lock(300, 600)) << "not more than twice";
    EXPECT_FALSE(lock(200, 500)) << "weak: at most 500 above zone type 1";
    EXPECT_TRUE(lock(200, 501));
    g_zoneType = 1;
    EXPECT_FALSE(lock(300, 800)) << "weak: at most 800 in zone type 1";
    EXPECT_TRUE(lock(400, 801));
    g_zoneType = 2;

    // A climb frame stores its value without locking; all four stored values count.
    EXPECT_FALSE(lock(300, 300));
    g_search.searchPhase = 2;
    CentreLock(1, 1000);
    g_search.searchPhase = 1;
    CentreLock(1, 1999);
    EXPECT_EQ(g_focusZone.selected_count(), 2) << "1999 is not twice the climb's 1000";
    CentreLock(1, 4000);
    EXPECT_EQ(selected(), std::vector<int>{12});
    // In daylight it neither locks nor stores.
    EXPECT_FALSE(lock(300, 300));
    set_low_light(false);
    CentreLock(1, 5000);
    set_low_light(true);
    CentreLock(1, 601);
    EXPECT_EQ(selected(), std::vector<int>{12});
    afrules::mark_light(12);
    EXPECT_FALSE(lock(300, 601)) << "a lamp in the centre";
}

TEST_F(ZoneRuleTest, ResetZoneCrossTakesTheSharpOrTexturedWindowsOfTheCross) {
    afrules::mark_light(0);
    afrules::StatFrame().all(100).fetch();
    ResetZoneCross();
    EXPECT_EQ(g_focusZone.selected_count(), 24) << "without the preset flag: the search zone";

    g_presetFlag = 1;
    afrules::StatFrame f = afrules::raw_frame(100, {{7, 201}, {11, 200}, {12, 5000}});
    for (int d = 0; d < 9; ++d)  // window 13: three bright blocks of nine, window 17: one
        f.luma(13, d, d < 3 ? 180 : 0).luma(17, d, d == 0 ? 264 : 0);
    f.fetch();
    ASSERT_EQ(get_window_luma_deviation(13), 21u);
    ASSERT_EQ(get_window_luma_deviation(17), 20u);
    std::memset(g_focusValue.highlightMask, 0, sizeof g_focusValue.highlightMask);
    afrules::mark_light(12);
    g_focusZone.blockMask[0] = 0;
    ResetZoneCross();
    EXPECT_EQ(selected(), (std::vector<int>{7, 13}));
    EXPECT_EQ(g_focusZone.blockMask[0], 1);

    // A dull cross: the five sharpest windows above 1500, a lamp taking one of the five places.
    afrules::raw_frame(100, {{21, 5000}, {22, 4000}, {23, 1501}, {24, 1500}}).fetch();
    afrules::mark_light(22);
    ResetZoneCross();
    EXPECT_EQ(selected(), (std::vector<int>{21, 23}));
    // Nothing sharp and two lamp windows: every other window.
    std::memset(g_focusValue.highlightMask, 0, sizeof g_focusValue.highlightMask);
    afrules::mark_light(4);
    afrules::mark_light(22);
    afrules::StatFrame().all(100).fetch();
    ResetZoneCross();
    EXPECT_EQ(g_focusZone.selected_count(), 23);
    EXPECT_EQ(g_pointLightMeasure, 0);
    // Three or more: measure the lamps, except a window lit in every block.
    afrules::mark_light(0, true);
    afrules::mark_light(20);
    ResetZoneCross();
    EXPECT_EQ(g_pointLightMeasure, 2);
    EXPECT_EQ(selected(), (std::vector<int>{4, 20, 22}));
}

}  // namespace

// Region search (phase 8) driven frame by frame on crafted statistics, and the centre region
// confirmation at the end of a low-light final approach.
#include "af/block_regions.h"
#include "tests/af/af_rules_fixture.h"

namespace {

// One statistics frame whose blocks all read v in the block sharpness grid.
void frame_at(uint32_t v) {
    afrules::StatFrame().all(v - 50).fetch();
}

class RegionSearchTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        g_blockPath = 1;
        lens_set_positions(3200, 4000);
        g_presetFlag = 1;  // a fresh zone is the inner nine windows
        g_search.searchPhase = 3;
        g_search.searchDir = 1;
        g_afState = 1;
        enter_region_search();
    }
    // One probe round (five frames at the normal rate) whose captures read a, b, c.
    static void probe(uint32_t a, uint32_t b, uint32_t c) {
        for (uint32_t v : {a, a, a, b, c}) {
            frame_at(v);
            region_search(1);
        }
    }
    // One climbing round (four frames) whose captures read, in capture order, x, y, z.
    static void climb(uint32_t x, uint32_t y, uint32_t z) {
        for (uint32_t v : {x, x, y, z}) {
            frame_at(v);
            region_search(1);
        }
    }
};

TEST_F(RegionSearchTest, ProbeClimbsTowardsTheSharperSide) {
    EXPECT_EQ(g_search.searchPhase, 8u);
    EXPECT_EQ(g_regionSearch.R[7 * 15 + 7], 1) << "the region starts as a fresh zone's blocks";
    EXPECT_EQ(g_regionSearch.R[2 * 15 + 2], 0);
    probe(2000, 1800, 1600);
    // Down 1, up 2, then down 2: one step below the start, now climbing down.
    EXPECT_EQ(af_focus(), 3999);
    EXPECT_EQ(g_regionSearch.sub, 1);
    EXPECT_EQ(g_afState, 1u);
}

TEST_F(RegionSearchTest, DimRegionHandsBackToAnOrdinarySearch) {
    select_only({12});
    g_focusZone.blockMask[7 * 15 + 7] = 0;
    probe(900, 1000, 1100);
    EXPECT_NE(g_search.searchPhase, 8u);
    EXPECT_EQ(g_afState, 1u);
    EXPECT_EQ(g_search.searchDir, 1u) << "the direction saved when phase 8 began";
    EXPECT_EQ(selected().size(), 9u) << "a fresh zone";
    EXPECT_EQ(g_focusZone.blockMask[7 * 15 + 7], 1);
}

TEST_F(RegionSearchTest, RepeatedFlatTopsEndFocusedOnTheRegion) {
    // The lens came down to the subject; the blocks that got sharper on the way (window 12)
    // become the zone.
    lens_set_positions(2000, 4000);
    g_focusValue.posHist[0] = 4010;
    for (uint32_t& v : g_focusValue.gridHist[0])
        v = 100;
    afrules::raw_frame(50, {{12, 1950}}).fetch();
    enter_region_search();
    EXPECT_EQ(selected(), (std::vector<int>{12}));
    for (int round = 0; round < 3; ++round) {
        probe(2000, 2010, 2000);
        ASSERT_EQ(g_afState, 1u);
    }
    probe(2000, 2010, 2000);
    EXPECT_EQ(g_afState, 2u);
    EXPECT_EQ(af_focus(), 4000);
    EXPECT_EQ(g_seams.trackLock, 1);
    EXPECT_EQ(selected(), (std::vector<int>{12}));
}

TEST_F(RegionSearchTest, ThreeClimbingRoundsHandTheRegionToASearchUpwards) {
    probe(1500, 1600, 1700);
    ASSERT_EQ(g_regionSearch.sub, 2);
    EXPECT_EQ(af_focus(), 4001);
    climb(1800, 1900, 2000);
    EXPECT_EQ(af_focus(), 4003);
    EXPECT_EQ(g_regionSearch.step, 2);
    climb(2100, 2200, 2300);
    EXPECT_EQ(af_focus(), 4007);
    ASSERT_EQ(g_search.searchPhase, 8u);
    climb(2400, 2500, 2600);
    EXPECT_EQ(af_focus(), 4013) << "the step stops growing at 3";
    EXPECT_NE(g_search.searchPhase, 8u);
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(g_afState, 1u);
}

TEST_F(RegionSearchTest, FallingLevelRestartsOnceThenHandsBack) {
    probe(2400, 2400, 2400);
    ASSERT_EQ(g_search.searchPhase, 8u);
    // The region's level fell by more than a third: the region search starts over on a fresh
    // zone, and keeps this round's level to compare the next one with.
    probe(1500, 1500, 1500);
    ASSERT_EQ(g_search.searchPhase, 8u);
    EXPECT_EQ(g_afState, 1u);
    EXPECT_EQ(g_regionSearch.prevLevel, (3 * 1500u - 150) / 3);
    // Fallen by a third again: no restart left, back to an ordinary search.
    probe(1250, 900, 850);
    EXPECT_NE(g_search.searchPhase, 8u);
    EXPECT_EQ(g_afState, 1u);
}

TEST_F(RegionSearchTest, AFocusedRoundWhoseLevelFellIsNotTheSubject) {
    // Flat tops at one place end focused, unless that round's level fell by a third: then the
    // region search starts over instead.
    for (int round = 0; round < 3; ++round)
        probe(2400, 2410, 2400);
    ASSERT_EQ(g_afState, 1u);
    probe(1500, 1510, 1500);
    EXPECT_EQ(g_afState, 1u);
    EXPECT_EQ(g_search.searchPhase, 8u);
}

TEST_F(RegionSearchTest, NearSubjectFollowsTheWholeZone) {
    lens_set_positions(3300, 4000);
    g_seams.currentDistance = 250;
    region_search(0);
    EXPECT_EQ(g_regionSearch.wholeZone, 1);
    g_seams.currentDistance = 350;
    region_search(0);
    EXPECT_EQ(g_regionSearch.wholeZone, 0);
}

// Night at zoom 3200 after a zoom: a dim centre ringed by dim blocks, posters on the diagonals.
class CentreRegionTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        set_low_light(true);
        g_blockPath = 1;
        g_presetFlag = 1;
        g_search.firstAfterZoom = 1;
        g_seams.pointLightZone = 1;
        g_afState = 1;
        g_search.searchDir = 2;
        frame_.all(100);
        for (int z : {6, 8, 16, 18})
            frame_.window(z, 2000);
        frame_.window(12, 400);
        for (int z : {7, 11, 13})
            frame_.window(z, 150);
        frame_.window(17, 250);
        // One more bright ring block: 10 of them.
        block(afrules::block_of(13, 0, 0), 250);
        // Six ring blocks peaked during the sweep: 30 qualify.
        for (int d = 0; d < 6; ++d)
            g_peakMap.map[afrules::block_of(11, d / 3, d % 3)].state = kPeakFound;
    }

  public:
    void block(int b, uint32_t raw) {
        for (size_t off :
             {kAfStatFirVOffset, kAfStatIir1Offset, kAfStatFirHOffset, kAfStatIir2Offset})
            frame_.put(off, b, raw);
    }
    int zone_blocks() const {
        int n = 0;
        for (uint8_t v : g_focusZone.blockMask)
            n += v;
        return n;
    }
    afrules::StatFrame frame_;
};

TEST_F(CentreRegionTest, DimUnpeakedCentreStartsASecondSearchOnceOnly) {
    frame_.fetch();
    confirm_centre_region();
    EXPECT_EQ(g_afState, 0u) << "a new search";
    EXPECT_EQ(zone_blocks(), 39);
    EXPECT_EQ(g_focusZone.blockMask[afrules::block_of(11, 0, 0)], 0) << "peaked ring block";
    EXPECT_EQ(selected(), (std::vector<int>{7, 11, 12, 13, 17}));
    EXPECT_EQ(g_seams.trackLock, 1);
    EXPECT_EQ(g_search.searchDir, 1u);
    EXPECT_EQ(g_seams.regionCount2, 1);
    // The second search's end is final.
    g_afState = 1;
    confirm_centre_region();
    EXPECT_EQ(g_afState, 2u);
}

TEST_F(CentreRegionTest, CentreThatCannotHoldASubjectEndsFocused) {
    struct Case {
        const char* what;
        void (*change)(CentreRegionTest&);
    };
    const Case cases[] = {
        {"centre all dim in H", [](CentreRegionTest& t) { t.frame_.window(12, 300); }},
        {"a sharp centre block",
         [](CentreRegionTest& t) { t.block(afrules::block_of(12, 1, 1), 800); }},
        {"a centre block that peaked",
         [](CentreRegionTest&) { g_peakMap.map[7 * 15 + 7].state = kPeakFound; }},
        {"eight bright ring blocks",
         [](CentreRegionTest& t) {
             t.block(afrules::block_of(13, 0, 0), 150);
             t.block(afrules::block_of(17, 0, 0), 150);
         }},
        {"24 qualifying ring blocks",
         [](CentreRegionTest&) {
             for (int d = 0; d < 6; ++d)
                 g_peakMap.map[afrules::block_of(7, d / 3, d % 3)].state = kPeakFound;
         }},
        {"zone type 3", [](CentreRegionTest&) { g_zoneType = 3; }},
        {"no zoom before the search", [](CentreRegionTest&) { g_search.firstAfterZoom = 0; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        c.change(*this);
        frame_.fetch();
        confirm_centre_region();
        EXPECT_EQ(g_afState, 2u);
        EXPECT_EQ(g_seams.regionCount2, 0);
        EXPECT_EQ(g_seams.trackLock, 0);
        TearDown();
    }
}

}  // namespace

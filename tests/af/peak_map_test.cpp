// Block peak map and the region checks built on it, on crafted block curves: what the daylight
// and low-light updates record per block, and when the checks take, keep or give up a region.
#include <cstring>

#include "af/block_regions.h"
#include "af/track_region.h"
#include "base/frame_pacing.h"
#include "tests/af/af_rules_fixture.h"

namespace {

using Curve = std::initializer_list<uint32_t>;

int blk(int r, int c) {
    return r * 15 + c;
}

class PeakMapTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        // Every block shows enough horizontal detail to be trusted in low light.
        afrules::StatFrame().all(1000).fetch();
        for (int b = 0; b < 225; ++b)
            for (int k = 0; k < 5; ++k)
                g_focusValue.gridHist[k][b] = 50;
    }
    static void curve(int b, Curve f) {
        int k = 0;
        for (uint32_t v : f)
            g_focusValue.gridHist[k++][b] = v;
    }
    static void positions(std::initializer_list<uint16_t> p) {
        int k = 0;
        for (uint16_t v : p)
            g_focusValue.posHist[k++] = v;
    }
    static const BlockPeak& at(int r, int c) { return g_peakMap.map[blk(r, c)]; }
};

TEST_F(PeakMapTest, DaylightUpdateTakesOnlyClearPeaksAndForgetsLitWindows) {
    positions({4010, 4008, 4006, 4004, 4002});
    g_seams.pointLightZone = 1;  // rows and columns 4..11
    curve(blk(7, 7), {900, 1000, 1100, 1000, 900});
    curve(blk(7, 8), {900, 1000, 700, 600, 500});      // not a peak shape: kept as it was
    curve(blk(8, 7), {600, 650, 700, 650, 600});       // a peak too dim to count: cleared
    curve(blk(8, 8), {1080, 1090, 1100, 1090, 1080});  // 2 % above both sides: unchanged
    curve(blk(2, 2), {900, 1000, 1100, 1000, 900});    // outside the window with lights around
    for (int b : {blk(7, 8), blk(8, 7), blk(8, 8), blk(2, 2)})
        g_peakMap.map[b] = BlockPeak{3, 3999, 777};
    update_peak_map(2);
    EXPECT_EQ(at(7, 7).state, 1u);
    EXPECT_EQ(at(7, 7).position, 4006u);
    EXPECT_EQ(at(7, 7).value, 1100u);
    EXPECT_EQ(at(7, 8).state, 3u);
    EXPECT_EQ(at(8, 7).state, 0u);
    EXPECT_EQ(at(8, 8).position, 3999u);
    EXPECT_EQ(at(2, 2).state, 3u) << "window row 0 lies outside rows 4..11";
    // Without the zone flag the window widens to rows and columns 1..13.
    g_seams.pointLightZone = 0;
    update_peak_map(2);
    EXPECT_EQ(at(2, 2).state, 1u);
    // Four lit blocks in a 3 x 3 window wipe every entry of it, peaked or not.
    afrules::mark_light(12);
    update_peak_map(2);
    EXPECT_EQ(at(7, 7).state, 0u);
    EXPECT_EQ(at(8, 8).state, 0u);
    update_peak_map(0);
    EXPECT_EQ(at(2, 2).state, 0u);
}

TEST_F(PeakMapTest, LowLightUpdateNeedsASteadySweepAndReadsTheSideOfThePeak) {
    set_low_light(true);
    const int b = blk(7, 7);
    curve(b, {1000, 900, 800, 700, 600});
    // The lens went back and forth: only the bright mask changes.
    positions({4000, 4002, 3998, 4001, 3999});
    update_peak_map(1);
    EXPECT_EQ(at(7, 7).state, 0u);
    EXPECT_EQ(g_peakMap.bright[b], 1);
    EXPECT_EQ(g_peakMap.bright[blk(2, 2)], 0) << "outside the block search window";
    // Moving down and still rising: the peak lies below, at least where the lens is now.
    positions({3990, 3992, 3994, 3996, 3998});
    update_peak_map(1);
    EXPECT_EQ(at(7, 7).state, 3u);
    EXPECT_EQ(at(7, 7).position, 3990u);
    EXPECT_EQ(at(7, 7).value, 1000u);
    // Moving up and falling: the peak lies below, where the fall began; a later falling frame does
    // not move that position.
    const int f = blk(7, 6);
    curve(f, {600, 700, 800, 900, 1000});
    positions({4010, 4008, 4006, 4004, 4002});
    update_peak_map(1);
    EXPECT_EQ(at(7, 6).state, 3u);
    EXPECT_EQ(at(7, 6).position, 4002u);
    positions({4012, 4010, 4008, 4006, 4004});
    update_peak_map(1);
    EXPECT_EQ(at(7, 6).position, 4002u);
    // A rising trend below the trend gate says nothing.
    curve(blk(6, 6), {290, 280, 270, 260, 250});
    update_peak_map(1);
    EXPECT_EQ(at(6, 6).state, 0u);
    // A peak is taken only while the lens moves up, and either way the block is done.
    const int p = blk(5, 7);
    curve(p, {900, 1000, 1100, 1000, 900});
    positions({3990, 3992, 3994, 3996, 3998});
    update_peak_map(1);
    EXPECT_EQ(at(5, 7).state, 0u);
    EXPECT_EQ(g_peakMap.done[p], 1);
    g_peakMap.done[p] = 0;
    positions({4010, 4008, 4006, 4004, 4002});
    update_peak_map(1);
    EXPECT_EQ(at(5, 7).state, 1u);
    EXPECT_EQ(at(5, 7).position, 4006u);
    // Daylight statistics: the low-light update does nothing at all.
    update_peak_map(0);
    set_low_light(false);
    update_peak_map(1);
    EXPECT_EQ(at(7, 6).state, 0u);
    EXPECT_EQ(g_peakMap.bright[b], 0);
}

TEST_F(PeakMapTest, LowLightStateBelowSpreadsToNeighboursThatLeanTheSameWay) {
    set_low_light(true);
    positions({3990, 3992, 3994, 3996, 3998});
    curve(blk(7, 7), {1000, 900, 800, 700, 600});
    // Rising by 5 % over four frames: too little to mark on its own, enough beside a marked block.
    curve(blk(7, 8), {1040, 1050, 1030, 1010, 1000});
    curve(blk(5, 8), {1040, 1050, 1030, 1010, 1000});
    // Falling the same way is the wrong side.
    curve(blk(8, 7), {1000, 1010, 1030, 1050, 1040});
    // With the lens turning back and forth no block joins a marked neighbour either.
    g_peakMap.map[blk(7, 7)] = BlockPeak{kPeakBelow, 3990, 1000};
    g_peakMap.bright[blk(7, 8)] = 1;
    positions({3992, 3990, 3994, 3996, 3998});
    update_peak_map(1);
    EXPECT_EQ(at(7, 8).state, 0u) << "the lens turned";
    positions({3990, 3992, 3994, 3996, 3998});
    update_peak_map(1);
    EXPECT_EQ(at(7, 8).state, 3u);
    EXPECT_EQ(at(5, 8).state, 0u) << "not beside a marked block";
    EXPECT_EQ(at(8, 7).state, 0u);
    // The relaxed test itself needs a block trusted in low light.
    g_peakMap.bright[blk(5, 8)] = 0;
    EXPECT_EQ(neighbour_points_small(5, 8), 0);
    g_peakMap.bright[blk(5, 8)] = 1;
    EXPECT_EQ(neighbour_points_small(5, 8), 1);
}

class RegionCheckTest : public PeakMapTest {
  protected:
    void SetUp() override {
        PeakMapTest::SetUp();
        set_low_light(true);
        g_blockPath = 1;
        lens_set_positions(3000, 4000);
        g_search.searchPhase = 3;
        g_search.searchDir = 2;
        g_search.searchStartPos = 4050;
        set_fv({1000, 1000, 1000, 1000, 1000}, {4000, 4002, 4004, 4006, 4008});
    }
    static void below(int r, int c, uint32_t pos = 3990) {
        g_peakMap.map[blk(r, c)] = BlockPeak{kPeakBelow, pos, 1000};
    }
    static void plus(int r, int c) {
        for (auto [dr, dc] : {std::pair{0, 0}, {-1, 0}, {1, 0}, {0, -1}, {0, 1}})
            below(r + dr, c + dc);
    }
    static int region_size() {
        int n = 0;
        for (int b = 0; b < 225; ++b)
            n += g_focusZone.blockMask[b] == 1;
        return n;
    }
};

TEST_F(RegionCheckTest, UnlockedCheckTakesAConnectedRegionAheadOfTheLens) {
    // A single isolated block is no subject.
    below(7, 7);
    unlocked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
    EXPECT_EQ(region_size(), 225);
    plus(7, 7);
    // Daylight statistics: nothing.
    set_low_light(false);
    unlocked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
    set_low_light(true);
    // Below zoom 2556 eight blocks are needed.
    lens_set_positions(2000, 4000);
    unlocked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
    lens_set_positions(3000, 4000);
    unlocked_region_check();
    EXPECT_EQ(g_seams.trackLock, 1);
    EXPECT_EQ(region_size(), 5);
    EXPECT_EQ(g_focusZone.blockMask[blk(6, 7)], 1);
    EXPECT_EQ(g_regionCheck.positions[blk(7, 7)], 3990);
    EXPECT_EQ(selected(), (std::vector<int>{12})) << "the windows holding the region";
    EXPECT_EQ(g_search.searchDir, 1u);
    EXPECT_EQ(g_seams.dirHold, 1);
    EXPECT_EQ(g_search.searchPhase, 3u) << "the region's value has not peaked";
}

TEST_F(RegionCheckTest, TakingARegionEndsTheWindowAverage) {
    plus(7, 7);
    g_windowAverage = 1;
    unlocked_region_check();
    ASSERT_EQ(g_seams.trackLock, 1);
    EXPECT_EQ(g_windowAverage, 0) << "the region's blocks are measured, not the plain average";
}

TEST_F(RegionCheckTest, FallingApartDuringATrackedSearchTakesTheTrackersBlocks) {
    plus(7, 7);
    unlocked_region_check();
    ASSERT_EQ(g_seams.trackLock, 1);
    // The tracker's box covers rows 5..9 of columns 8..9.
    std::memset(g_track.region, 0, sizeof g_track.region);
    for (int r = 5; r <= 9; ++r)
        for (int c = 8; c <= 9; ++c)
            g_track.region[blk(r, c)] = 1;
    set_tracking_on(1);
    g_seams.triggerKind = 2;
    for (int b = 0; b < 225; ++b)
        g_peakMap.map[b] = BlockPeak{};
    locked_region_check();
    EXPECT_EQ(g_seams.trackLock, 1) << "not given up";
    EXPECT_EQ(g_seams.regionCollapseCount, 1);
    EXPECT_EQ(g_focusZone.blockMask[blk(6, 8)], 1);
    EXPECT_EQ(g_focusZone.blockMask[blk(7, 7)], 0);
    // Without a tracked search the same collapse gives the region up.
    set_tracking_on(0);
    plus(7, 7);
    g_seams.regionCollapseCount = 0;
    unlocked_region_check();
    for (int b = 0; b < 225; ++b)
        g_peakMap.map[b] = BlockPeak{};
    locked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
    g_seams.triggerKind = 0;
}

TEST_F(RegionCheckTest, UnlockedCheckEntersTheFinalApproachWhenTheRegionPeaked) {
    plus(7, 7);
    // The grid (and so the region's value) peaked two frames ago while the lens moved down.
    for (int b : {blk(7, 7), blk(6, 7), blk(8, 7), blk(7, 6), blk(7, 8)})
        curve(b, {1500, 1700, 2000, 1700, 1500});
    unlocked_region_check();
    EXPECT_EQ(g_search.searchPhase, 4u);
    EXPECT_EQ(af_focus(), 4004) << "back to where the region peaked";
    EXPECT_EQ(g_regionCheck.finalEntry, 1);
    EXPECT_EQ(g_final.finalBest, 2000u);
    EXPECT_EQ(g_final.finalBestPos, 4004);
}

TEST_F(RegionCheckTest, LockedCheckFollowsGivesUpAndStopsAfterTwoCollapses) {
    plus(7, 7);
    unlocked_region_check();
    ASSERT_EQ(g_seams.trackLock, 1);
    // A new block below the lens joins; a member whose map entry was cleared leaves.
    below(9, 7);
    below(10, 7);
    g_peakMap.map[blk(7, 6)] = BlockPeak{};
    locked_region_check();
    EXPECT_EQ(g_focusZone.blockMask[blk(10, 7)], 1);
    EXPECT_EQ(g_focusZone.blockMask[blk(7, 6)], 0);
    EXPECT_EQ(g_seams.trackLock, 1);
    // The region falls apart while the value does not rise: given up, a new reference taken and
    // the direction turned back up (the lens stands below the search start).
    for (int b = 0; b < 225; ++b)
        g_peakMap.map[b] = BlockPeak{};
    below(7, 7);
    locked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
    EXPECT_EQ(g_seams.regionCollapseCount, 1);
    EXPECT_EQ(g_search.restartReason, 4u);
    EXPECT_EQ(g_afState, 0u);
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(region_size(), 225);
    // A region that falls apart while the value still climbs is kept for now.
    plus(7, 7);
    unlocked_region_check();
    set_fv({1400, 1300, 1200, 1100, 1000}, {4000, 4002, 4004, 4006, 4008});
    for (int b = 0; b < 225; ++b)
        g_peakMap.map[b] = BlockPeak{};
    locked_region_check();
    EXPECT_EQ(g_seams.trackLock, 1);
    set_fv({1000, 1000, 1000, 1000, 1000}, {4000, 4002, 4004, 4006, 4008});
    locked_region_check();
    EXPECT_EQ(g_seams.regionCollapseCount, 2);
    // After two collapses neither check acts until autofocus restarts.
    plus(7, 7);
    unlocked_region_check();
    EXPECT_EQ(g_seams.trackLock, 0);
}

TEST_F(RegionCheckTest, LockedCheckDrivesBackToThePeakAndHandsOverOnFalls) {
    plus(7, 7);
    unlocked_region_check();
    ASSERT_EQ(g_seams.trackLock, 1);
    // The focus value peaked at p2: turn towards it and move there.
    set_fv({1500, 1700, 2000, 1700, 1500}, {4000, 4002, 4004, 4006, 4008});
    g_search.searchDir = 1;
    locked_region_check();
    EXPECT_EQ(g_search.searchPhase, 4u);
    EXPECT_EQ(g_search.searchDir, 2u);
    EXPECT_EQ(af_focus(), 4004);
    EXPECT_EQ(g_regionCheck.finalEntry, 1);
    // Four falls while the lens moved up, and the region grew: back to the oldest frame, its
    // value the reference.
    g_search.searchPhase = 3;
    lens_set_positions(3000, 4008);
    set_fv({1000, 1100, 1200, 1300, 1400}, {4008, 4006, 4004, 4002, 4000});
    below(9, 7);
    below(10, 7);
    for (int r = 6; r <= 10; ++r)
        curve(blk(r, 7), {1000, 1100, 1200, 1300, 1400});
    for (int c : {6, 8})
        curve(blk(7, c), {1000, 1100, 1200, 1300, 1400});
    locked_region_check();
    EXPECT_EQ(g_focusZone.blockMask[blk(10, 7)], 1);
    EXPECT_EQ(g_search.searchPhase, 4u);
    EXPECT_EQ(af_focus(), 4000);
    EXPECT_EQ(g_final.finalRef, 1400u);
    EXPECT_EQ(g_final.finalBestPos, 4000);
}

}  // namespace

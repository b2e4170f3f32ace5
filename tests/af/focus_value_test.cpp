// Focus value and zone: the floor of 50, the window and block paths, the weighting of zone type
// 3, recomputing the histories under a changed zone, the window preset and the zone choice.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "af/af_seams.h"
#include "af/af_state.h"
#include "af/focus_zone.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "lens_api/lens_position.h"
#include "tests/af/af_test_optics.h"

namespace {

class FocusValueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        lens_position_reset_for_testing();
        highlight_reset_for_testing();
        af_reset_for_testing();
    }
    void TearDown() override { af_reset_for_testing(); }

    static void feed_plane(double focus) {
        aftest::Plane p;
        std::vector<uint8_t> f;
        aftest::render(p, focus, 0, &f);
        af_stat_fetch_from(f.data(), 1);
    }
    static void feed_zero() {
        std::vector<uint8_t> f(kAfStatFrameSize, 0);
        af_stat_fetch_from(f.data(), 1);
    }
};

TEST_F(FocusValueTest, FlatFrameReadsFiftyNeverZero) {
    uint32_t W[25] = {};
    uint32_t G[225] = {};
    g_focusZone.clear_window_mask();
    g_blockPath = 0;
    EXPECT_EQ(ComputeFocusValue(W, G), 50u) << "empty mask: the mean of nothing over 25";
    EXPECT_EQ(ComputeSceneSharpness(W, G), 50u);
    g_blockPath = 1;
    g_focusZone.set_window(12, 1);
    std::memset(g_focusValue.excludedMask, 1, sizeof g_focusValue.excludedMask);
    EXPECT_EQ(ComputeFocusValue(W, G), 50u) << "block path with every block excluded";
    std::memset(g_focusValue.excludedMask, 0, sizeof g_focusValue.excludedMask);
    EXPECT_EQ(ComputeSceneSharpness(W, G), 50u) << "no block above 10";
    feed_zero();
    SnapshotReference();
    EXPECT_EQ(g_focusValue.fvHist[0], 50u);
    EXPECT_EQ(g_focusValue.sceneSharpHist[4], 50u);
}

TEST_F(FocusValueTest, WindowPathAveragesTheSelectedWindowsAndTypeThreeWeightsTheCentre) {
    g_blockPath = 0;
    uint32_t W[25];
    uint32_t G[225] = {};
    for (int z = 0; z < 25; ++z)
        W[z] = 100;
    std::memset(g_focusZone.windowMask, 1, 25);
    EXPECT_EQ(ComputeFocusValue(W, G), 100u);
    g_zoneType = 3;
    // 25 x 100, the inner nine once more, the centre a third time; still divided by 25.
    EXPECT_EQ(ComputeFocusValue(W, G), (2500u + 900 + 100) / 25);
    g_zoneType = 2;
    g_focusZone.clear_window_mask();
    g_focusZone.set_window(3, 1);
    W[3] = 700;
    EXPECT_EQ(ComputeFocusValue(W, G), 700u);
    g_focusZone.set_window(200, 1);  // out of range: ignored
    EXPECT_EQ(g_focusZone.selected_count(), 1);
}

TEST_F(FocusValueTest, BlockPathHonoursTheBlockMaskOnlyInInnerWindows) {
    g_blockPath = 1;
    g_zoneType = 2;
    uint32_t W[25] = {};
    uint32_t G[225];
    for (int b = 0; b < 225; ++b)
        G[b] = 1000;
    g_focusZone.clear_window_mask();
    g_focusZone.set_window(0, 1);   // border window: blocks rows 0..2, cols 0..2
    g_focusZone.set_window(12, 1);  // centre: rows 6..8, cols 6..8
    G[0] = 4000;                    // border block, masked out below
    G[6 * 15 + 6] = 4000;           // centre block, masked out below
    g_focusZone.blockMask[0] = 0;
    g_focusZone.blockMask[6 * 15 + 6] = 0;
    // Border keeps its masked block (9 blocks), the centre drops it (8 blocks).
    EXPECT_EQ(ComputeFocusValue(W, G), (4000u + 8 * 1000 + 8 * 1000) / 17);
    g_focusValue.excludedMask[0] = 1;  // a latched light is left out everywhere
    EXPECT_EQ(ComputeFocusValue(W, G), 16000u / 16);
}

TEST_F(FocusValueTest, HistoriesFollowAZoneChangeInMidSearch) {
    g_blockPath = 0;
    std::memset(g_focusZone.windowMask, 1, 25);
    for (int k = 0; k < 5; ++k)
        for (int z = 0; z < 25; ++z)
            g_focusValue.winHist[k][z] = z == 12 ? 1000u * (k + 1) : 100u;
    RezoneHistories();
    EXPECT_EQ(g_focusValue.fvHist[0], (1000u + 2400) / 25);
    g_focusZone.clear_window_mask();
    g_focusZone.set_window(12, 1);
    RezoneHistories();
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(g_focusValue.fvHist[k], 1000u * (k + 1))
            << "row " << k << " recomputed under the new zone";
    EXPECT_EQ(g_focusValue.fvQueue[0], 5000u) << "the queue runs oldest first";
    EXPECT_EQ(BestFv(), 1000u);
}

TEST_F(FocusValueTest, SampleFrameShiftsTheHistoriesAndTracksTheBestValue) {
    g_blockPath = 0;
    std::memset(g_focusZone.windowMask, 1, 25);
    lens_set_positions(3200, 4100);
    feed_plane(4100);
    SnapshotReference();
    const uint32_t far = g_focusValue.fvHist[0];
    lens_set_positions(3200, 4300);
    feed_plane(4300);
    SampleFrame();
    EXPECT_GT(g_focusValue.fvHist[0], far);
    EXPECT_EQ(g_focusValue.fvHist[1], far);
    EXPECT_EQ(g_focusValue.posHist[0], 4300);
    EXPECT_EQ(g_focusValue.posHist[1], 4100);
    EXPECT_EQ(BestFv(), g_focusValue.fvHist[0]);
    EXPECT_EQ(BestFvPos(), 4300);
    EXPECT_GT(g_focusValue.searchMaxWindow, 0u);
    EXPECT_EQ(g_focusValue.searchMaxWindowPos, 4300);
}

TEST_F(FocusValueTest, WindowPresetsAndDigitalZoomShapeTheZone) {
    set_window_preset(0);
    window_preset_rebuild(0);
    EXPECT_EQ(window_preset_first(), 0);
    EXPECT_EQ(window_preset_last(), 15);
    EXPECT_EQ(window_preset_flags()[14], 1);
    EXPECT_EQ(window_preset_flags()[15], 0);
    EXPECT_EQ(g_blockPath, 0) << "only preset 3 measures over blocks";
    set_window_preset(3);
    window_preset_rebuild(0);
    EXPECT_EQ(g_blockPath, 1);
    EXPECT_EQ(window_preset_flags()[6], 1);
    EXPECT_EQ(window_preset_flags()[5], 0);
    window_preset_rebuild(500);
    int set = 0;
    for (int z = 0; z < 25; ++z)
        set += window_preset_flags()[z];
    EXPECT_EQ(set, 1);
    EXPECT_EQ(window_preset_flags()[12], 1) << "deep digital zoom: the centre alone";
    set_window_preset(7);
    window_preset_rebuild(0);
    EXPECT_EQ(window_preset_first(), 5) << "an unknown preset is taken as 1";
}

TEST_F(FocusValueTest, SearchZoneLeavesOutWindowsWithLights) {
    feed_plane(4300);
    g_presetFlag = 0;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            g_focusValue.highlightMask[r * 15 + c] = 1;  // window 0 is full of lights
    SelectSearchZone();
    EXPECT_EQ(g_focusZone.windowMask[0], 0);
    EXPECT_EQ(g_focusZone.selected_count(), 24);
    g_presetFlag = 1;  // low light: the preset (inner 3 x 3) limits the zone
    SelectSearchZone();
    EXPECT_EQ(g_focusZone.selected_count(), 9);
    EXPECT_EQ(g_focusZone.windowMask[12], 1);
    g_seams.trackLock = 1;
    g_focusZone.clear_window_mask();
    SelectSearchZone();
    EXPECT_EQ(g_focusZone.selected_count(), 0) << "a tracking lock keeps its own zone";
}

}  // namespace

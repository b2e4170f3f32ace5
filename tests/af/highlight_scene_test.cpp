// Night scenes with point lights: the detail test, the dark-flat test, the light block lists and
// their series, the start-zone choice around connected lights, and the frame list that moves the
// zone when a scene turns out to be lights only (or to have detail after all).
#include "af/highlight_scene.h"
#include "isp/frame_history.h"
#include "lens_api/iris.h"
#include "tests/af/af_rules_fixture.h"

namespace {

using afrules::block_of;
using afrules::StatFrame;

// Texture about 19 in a window: its blocks alternate between black and a mid grey.
void textured(StatFrame& f, int z) {
    for (int d = 0; d < 9; ++d)
        f.luma(z, d, d % 2 ? 160 : 0);
}

void lamp(StatFrame& f, int r, int c) {
    f.put(kAfStatHighlightOffset, r * 15 + c, 5000);
}

class HighlightSceneTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        g_sceneResult.event = kObjectNon;
        g_seams.detailTestOn = 1;
    }
};

TEST_F(HighlightSceneTest, DetailTestSeesTextureOrSharpBlocksAwayFromTheLights) {
    StatFrame f;
    f.all(100);
    f.fetch();
    EXPECT_EQ(SceneHasDetail(), 0) << "nothing but a dark background";
    g_seams.detailTestOn = 0;
    EXPECT_EQ(SceneHasDetail(), 1);
    g_seams.detailTestOn = 1;
    g_sceneResult.event = kObjectIn;
    EXPECT_EQ(SceneHasDetail(), 1);
    g_sceneResult.event = kObjectNon;
    // One strongly textured inner window is detail, unless a point-light measure is on.
    textured(f, 12);
    f.fetch();
    ASSERT_GT(get_window_luma_deviation(12), 15u);
    EXPECT_EQ(SceneHasDetail(), 1);
    g_pointLightMeasure = 1;
    EXPECT_EQ(SceneHasDetail(), 0);
    g_pointLightMeasure = 0;
    // Three sharp blocks in the middle are detail; lit ones are not.
    f = StatFrame();
    f.all(100);
    for (int c = 6; c <= 8; ++c)
        f.put(kAfStatFirVOffset, 7 * 15 + c, 1000), f.put(kAfStatIir1Offset, 7 * 15 + c, 1000);
    f.fetch();
    EXPECT_EQ(SceneHasDetail(), 1);
    g_focusValue.highlightMask[7 * 15 + 6] = 1;
    EXPECT_EQ(SceneHasDetail(), 0);
    // Right after a zoom only the cross of windows and the middle without its corners count.
    g_focusValue.highlightMask[7 * 15 + 6] = 0;
    g_search.firstAfterZoom = 1;
    f.put(kAfStatFirVOffset, 7 * 15 + 7, 0), f.put(kAfStatIir1Offset, 7 * 15 + 7, 0);
    f.put(kAfStatFirVOffset, 5 * 15 + 5, 1000), f.put(kAfStatIir1Offset, 5 * 15 + 5, 1000);
    f.fetch();
    EXPECT_EQ(SceneHasDetail(), 0);
    g_search.firstAfterZoom = 0;
    EXPECT_EQ(SceneHasDetail(), 1);
}

TEST_F(HighlightSceneTest, CentreSignalFromHorizontalDetailOrTheCentreWindow) {
    StatFrame f;
    f.all(100).fetch();
    set_windows(0, 300);
    EXPECT_EQ(centre_has_signal(), 0);
    g_focusValue.winHist[0][12] = 301;
    EXPECT_EQ(centre_has_signal(), 1);
    g_focusValue.winHist[0][12] = 300;
    f.put(kAfStatFirHOffset, 9 * 15 + 9, 801), f.put(kAfStatIir2Offset, 9 * 15 + 9, 801);
    f.fetch();
    EXPECT_EQ(centre_has_signal(), 1);
    f.put(kAfStatFirHOffset, 9 * 15 + 9, 800), f.put(kAfStatIir2Offset, 9 * 15 + 9, 800);
    f.put(kAfStatFirHOffset, 10 * 15 + 9, 5000), f.put(kAfStatIir2Offset, 10 * 15 + 9, 5000);
    f.fetch();
    EXPECT_EQ(centre_has_signal(), 0) << "row 10 is outside the middle";
}

TEST_F(HighlightSceneTest, DarkFlatNeedsNearlyAllBlocksDimAndNoneBright) {
    uint32_t grid[225];
    for (uint32_t& v : grid)
        v = 200;
    EXPECT_TRUE(IsDarkFlat(grid));
    for (int b = 0; b < 11; ++b)
        grid[b] = 450;
    EXPECT_TRUE(IsDarkFlat(grid)) << "214 of 225 dim is 95 %";
    grid[11] = 450;
    EXPECT_FALSE(IsDarkFlat(grid));
    grid[11] = 200;
    grid[0] = 500;
    EXPECT_FALSE(IsDarkFlat(grid));
}

TEST_F(HighlightSceneTest, LightBlockListsAndTheirFallingSeriesTurnTheCoarseApproach) {
    uint32_t grid[225];
    for (uint32_t& v : grid)
        v = 100;
    grid[7 * 15 + 7] = 5000;
    grid[7 * 15 + 8] = 1000;
    grid[6 * 15 + 6] = 50;
    uint8_t list[225];
    PointLightBlocks(grid, list);
    EXPECT_EQ(list[7 * 15 + 7], 1);
    EXPECT_EQ(list[5 * 15 + 5], 1);
    EXPECT_EQ(list[9 * 15 + 9], 1);
    EXPECT_EQ(list[6 * 15 + 6], 0) << "at or below the low value";
    EXPECT_EQ(list[4 * 15 + 7], 0) << "three rows away";
    // The series over the lists fall while the coarse approach moves away from the lights.
    StatFrame f;
    f.all(100).window(12, 4000).fetch();
    g_seams.plSeriesArmed = 1;
    point_light_build_lists();
    g_search.searchPhase = 1;
    g_search.searchDir = 2;
    g_search.framesInDir = 5;
    g_coarse.coarseFrames = 1;
    lens_set_positions(3200, 4000);
    // The series come from the statistics history, frame by frame as the search samples them.
    fh_ring_clear();
    FhFrame rec;
    for (uint32_t v : {3600u, 3200u, 2800u, 2400u}) {
        f.window(12, v).fetch();
        fh_frame_from_stats(&rec);
        fh_ring_push(rec);
        point_light_series_rebuild();
    }
    EXPECT_EQ(g_pointLight.seriesN, 4);
    EXPECT_GT(g_pointLight.seriesIir2[0], g_pointLight.seriesIir2[3]) << "oldest first";
    EXPECT_EQ(point_light_series_trend(), 2);
    // In low light a series that never reached 500 says nothing.
    set_low_light(true);
    for (int k = 0; k < 4; ++k)
        g_pointLight.seriesIir2[k] /= 10;
    EXPECT_EQ(point_light_series_trend(), 0);
    set_low_light(false);
    g_pointLight.seriesN = 4;
    for (int k = 0; k < 4; ++k)
        g_pointLight.seriesIir2[k] *= 10;
    f.window(12, 2000).fetch();
    CoarseStep();
    EXPECT_EQ(g_search.searchDir, 1u);
    EXPECT_EQ(g_seams.plSeriesArmed, 0);
}

TEST_F(HighlightSceneTest, StartZoneChoiceActsOnMoreThanNineConnectedLights) {
    g_focusValue.posHist[0] = 4000;
    g_seams.zoneChoiceArmed = 1;
    StatFrame f;
    f.all(100);
    // Nine connected lamps in the middle: not enough.
    for (int r = 6; r <= 8; ++r)
        for (int c = 6; c <= 8; ++c)
            lamp(f, r, c);
    highlight_arm_update();
    f.fetch();
    ChooseStartZone();
    EXPECT_EQ(g_pointLightMeasure, 0);
    EXPECT_EQ(selected().size(), 25u);
    // Twelve, nothing else in the picture: measure the lights.
    for (int c = 6; c <= 8; ++c)
        lamp(f, 9, c);
    f.fetch();
    g_seams.zoneChoiceArmed = 0;
    ChooseStartZone();
    EXPECT_EQ(g_pointLightMeasure, 0) << "not armed";
    g_seams.zoneChoiceArmed = 1;
    ChooseStartZone();
    EXPECT_EQ(g_seams.pointLightZone, 0);
    EXPECT_EQ(g_pointLightMeasure, 1);
    // One sharp, textured window beside them carries the picture instead.
    g_pointLightMeasure = 0;
    f.window(21, 3000);
    textured(f, 21);
    f.fetch();
    ChooseStartZone();
    EXPECT_EQ(g_pointLightMeasure, 0);
    EXPECT_EQ(selected(), (std::vector<int>{21}));
}

TEST_F(HighlightSceneTest, FrameListMovesTheZoneToTexturedWindowsInALightsOnlyScene) {
    StatFrame f;
    f.all(20);
    f.fetch();
    g_seams.pointLightZone = 1;
    select_only({12});
    set_windows(0, 300);
    g_focusValue.winHist[0][12] = 100;
    for (int k = 0; k < 20; ++k)
        PointLightRecord(1);
    EXPECT_EQ(selected(), (std::vector<int>{12}));
    PointLightRecord(1);
    EXPECT_EQ(g_seams.pointLightZone, 0);
    EXPECT_EQ(g_seams.plNoDetail, 1) << "not even the sharpest window has contrast";
    // The zone refinement then takes the three sharpest windows of the frame.
    for (int z : {7, 13, 18})
        g_focusValue.winHist[0][z] = 900;
    g_focusValue.frameMaxWindow = 900;
    EXPECT_TRUE(point_light_no_detail_rule());
    EXPECT_EQ(selected(), (std::vector<int>{7, 13, 18}));
    EXPECT_EQ(g_seams.plNoDetail, 0);
    // Clearing the list starts the counts over.
    PointLightRecord(0);
    EXPECT_EQ(g_pointLight.plFrames, 0);
}

TEST_F(HighlightSceneTest, FrameListNarrowsToSharpWindowsWhenDetailKeepsShowing) {
    StatFrame f;
    f.all(100).window(6, 2000).window(8, 1500).window(18, 1000);
    textured(f, 12);
    f.fetch();
    g_seams.pointLightZone = 0;
    g_search.searchPhase = 4;
    PointLightRecord(1);
    PointLightRecord(1);
    EXPECT_EQ(selected().size(), 25u);
    PointLightRecord(1);
    EXPECT_EQ(selected(), (std::vector<int>{6, 8, 18}));
    EXPECT_EQ(g_seams.pointLightZone, 1);
    EXPECT_EQ(g_search.searchPhase, 3u) << "the fine scan looks again";
}

TEST_F(HighlightSceneTest, FocusedOnLightsAnIrisChangeRestartsTwiceAtMost) {
    iris_reset_for_testing();
    g_search.startExposure = get_exp_gain_ratio();
    g_search.startIris = iris_get_value();
    point_light_rearm_watch(2);
    iris_note_driven(static_cast<uint16_t>(g_search.startIris + 100));
    point_light_exposure_watch();
    EXPECT_EQ(g_refocusRequest, 0) << "no point-light measure";
    g_pointLightMeasure = 1;
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        g_refocusRequest = 0;
        point_light_exposure_watch();
        EXPECT_EQ(g_refocusRequest, k < 2 ? 1 : 0);
    }
    iris_reset_for_testing();
}

// A refocus the watch asked for, after the picture went soft around the lights: the detail test
// is switched off while some window still stands out, and on again when nothing does or an
// object has left.
TEST_F(HighlightSceneTest, WatchRefocusOnASoftenedPictureSwitchesTheDetailTestOff) {
    for (int z = 0; z < 25; ++z)
        g_watch.refWindows[z] = 4000;
    auto start = [](uint32_t reason, uint32_t window12) {
        g_search.restartReason = reason;
        g_seams.detailTestOn = 1;
        StatFrame f;
        f.all(300).window(12, window12);
        f.fetch();
        PrepareWatch();
        return g_seams.detailTestOn;
    };
    EXPECT_EQ(start(2, 1800), 0) << "nine watched windows at less than half, one still bright";
    EXPECT_EQ(g_seams.pointLightZone, 1) << "the test switched off answers detail";
    EXPECT_EQ(start(1, 1800), 0);
    EXPECT_EQ(start(0, 1800), 1) << "a zoom or a request restarted: not judged";
    EXPECT_EQ(start(2, 1400), 1) << "nothing above 1500 any more: back on";
    g_sceneResult.event = kObjectOut;
    EXPECT_EQ(start(2, 1800), 1) << "an object left the picture: back on";
    g_sceneResult.event = kObjectNon;
    // Four of the nine windows kept most of their sharpness: fewer than six lost.
    for (int z : {6, 7, 11, 12})
        g_watch.refWindows[z] = 500;
    EXPECT_EQ(start(2, 1800), 1);
}

// A new reference is measured with the lights the last search left out; the lights latched now
// are left out from the next frame on.
TEST_F(HighlightSceneTest, ReferenceValueCountsNewLightsOnlyFromTheNextFrame) {
    g_blockPath = 1;
    g_zoneType = 2;
    select_only({12});
    StatFrame f;
    f.all(1000);
    const int lit = 7 * 15 + 7;
    for (size_t off : {kAfStatFirVOffset, kAfStatIir1Offset, kAfStatFirHOffset, kAfStatIir2Offset})
        f.put(off, lit, 4000);
    lamp(f, 7, 7);
    highlight_arm_update();
    f.fetch();
    highlight_disarm_update();
    SnapshotReference();
    const uint32_t with_light = g_focusValue.fvHist[0];
    EXPECT_EQ(g_focusValue.excludedMask[lit], 1) << "latched for the frames that follow";
    SnapshotReference();
    EXPECT_LT(g_focusValue.fvHist[0], with_light);
    EXPECT_EQ(g_focusValue.fvHist[0], 1000u + 50) << "the window's other eight blocks";
}

}  // namespace

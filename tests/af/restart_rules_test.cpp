// What a restart and a search start leave behind: the zone the new search measures over, the
// direction it starts in, the fine scan's tolerance, the position it returns to when nothing
// peaks, the ISP filters at the first restart, and the flags other modules read. Statistics are
// crafted per window; the lens is a fake that only counts steps.
#include <array>
#include <cstdlib>
#include <string>

#include "base/command_state.h"
#include "platform/ports.h"
#include "tests/af/af_rules_fixture.h"
#include "tests/isp/isp_peer.h"
#include "tests/isp/stat_frame.h"
#include "tracking/zoom_track.h"

namespace {

using isptest::Field;
using isptest::StatFrame;
using Windows = std::array<uint32_t, kWindowCount>;

// Every block of window z reads sharpness w[z]; no lights anywhere.
StatFrame windows_frame(const Windows& w) {
    StatFrame f;
    f.fill(Field::kLuma, 2000);
    for (int b = 0; b < kGridBlocks; ++b) {
        const int r = b / kGridCols, c = b % kGridCols;
        f.sharp(r, c, w[(r / 3) * 5 + c / 3]);
    }
    return f;
}

Windows all(uint32_t v) {
    Windows w;
    w.fill(v);
    return w;
}

// The rule tests' lens, curves and power-on records; the restart and the search start then run
// as on a camera, from the command channel's start-up settings.
class RestartRulesTest : public afrules::AfRulesTest {
  protected:
    void SetUp() override {
        AfRulesTest::SetUp();
        zoom_track_reset_for_testing();
        command_set_autofocus_mode(1);
        command_set_ezoom(0);
        set_window_preset(3);
        g_blockPath = 1;
        g_presetFlag = 1;
        show(all(1500));
    }
    void TearDown() override {
        zoom_track_reset_for_testing();
        set_window_preset(3);
        command_set_autofocus_mode(0);
        AfRulesTest::TearDown();
    }

    static void show(const Windows& w) {
        const StatFrame f = windows_frame(w);
        af_stat_fetch_from(f.data(), 1);
    }
    // One AF frame with the slow divider already in force, as on a settled camera.
    static void frame() {
        af_set_slow_divider(true);
        AfFrame();
    }
    // The restart after start-up, then the search start (a frame later when the ISP filters
    // change with the exposure first).
    static void restart_and_start() {
        frame();
        ASSERT_EQ(g_afState, 0);
        for (int i = 0; i < 3 && g_afState == 0; ++i)
            frame();
    }
};

// ---- The zone a search starts with ----

TEST_F(RestartRulesTest, FirstSearchAfterStartUpMeasuresOverAZone) {
    g_focusZone.clear_window_mask();  // power-on: nothing chosen yet
    restart_and_start();
    ASSERT_EQ(g_afState, 1);
    EXPECT_FALSE(selected().empty());
    EXPECT_GT(g_focusValue.fvHist[0], 50u) << "the histories were taken over the chosen zone";
}

TEST_F(RestartRulesTest, ZoneNarrowedInOneSearchIsNotCarriedIntoTheNextAfterAZoom) {
    restart_and_start();
    select_only({3});  // e.g. the retry window of a search without a peak
    g_afState = 2;
    g_zoomTrackedSinceZone = 1;  // the zoom tracks
    lens_set_positions(4000, 3500);
    frame();  // the zoom restarts the search
    ASSERT_EQ(g_afState, 0);
    frame();
    ASSERT_EQ(g_afState, 1);
    // After a tracked zoom the zone starts from the cross round the centre, which in a bright
    // picture (no window preset in force) gives way to every window without lights.
    EXPECT_EQ(selected().size(), 25u);
    EXPECT_EQ(g_zoomTrackedSinceZone, 0) << "the zoom has been looked at";
}

// With the window path, a usable centre becomes the zone by itself; a weak centre gives way to
// the usable windows above and below it, and with none of those the zone stays.
TEST_F(RestartRulesTest, CentreColumnTakesTheCentreOrItsNeighbours) {
    const struct {
        uint32_t w7, w12, w17;
        std::vector<int> zone;
    } cases[] = {
        {3500, 2800, 3500, {12}},     // 2850 with the floor: above the weak limit of 2800
        {3500, 2700, 3500, {7, 17}},  // centre weak: the column's other windows
        {2000, 2700, 3500, {17}},
        {2000, 2000, 2000, {0, 1}},  // all weak: as it was
    };
    for (const auto& c : cases) {
        Windows w = all(500);
        w[7] = c.w7;
        w[12] = c.w12;
        w[17] = c.w17;
        show(w);
        g_blockPath = 0;
        g_seams.pointLightZone = 0;
        g_sceneResult.pending = 1;  // keeps the sharpest-window rule out of this case
        select_only({0, 1});
        RefineStartZone();
        EXPECT_EQ(selected(), c.zone) << c.w7 << " " << c.w12 << " " << c.w17;
    }
}

TEST_F(RestartRulesTest, WeakCentreIsTakenOnceOnItsIir2Response) {
    StatFrame f = windows_frame(all(500));
    for (int r = 6; r < 9; ++r)
        for (int c = 6; c < 9; ++c)
            f.sharp(r, c, 700).set(Field::kIir2, r, c, 3000);
    af_stat_fetch_from(f.data(), 1);
    g_blockPath = 0;
    g_sceneResult.pending = 1;
    g_seams.centreChance = 1;
    select_only({0, 1});
    RefineStartZone();
    EXPECT_EQ(selected(), std::vector<int>{12});
    EXPECT_EQ(g_seams.centreChance, 0);
    select_only({0, 1});
    RefineStartZone();
    EXPECT_EQ(selected(), (std::vector<int>{0, 1})) << "only once";
}

// Without detail outside the lights known, the three sharpest windows lead unless nothing is sharp.
TEST_F(RestartRulesTest, UnknownDetailTakesTheThreeSharpestWindows) {
    Windows w = all(100);
    w[4] = 900;
    w[9] = 800;
    w[20] = 700;
    show(w);
    g_seams.pointLightZone = 0;
    select_only({12});
    RefineStartZone();
    EXPECT_EQ(selected(), (std::vector<int>{4, 9, 20}));
    w[20] = 200;  // the third is not sharp enough: every window without lights
    show(w);
    g_seams.pointLightZone = 0;
    RefineStartZone();
    EXPECT_EQ(selected().size(), 25u);
    EXPECT_EQ(g_pointLightMeasure, 0);
}

// ---- Restart bookkeeping ----

TEST_F(RestartRulesTest, SearchStartPositionIsTakenAtTheRestartNotAtTheSearchStart) {
    frame();
    EXPECT_EQ(g_search.searchStartPos, 4000);
    lens_set_positions(3200, 4040);  // moved between the restart and the search start
    for (int i = 0; i < 3 && g_afState == 0; ++i)
        frame();
    ASSERT_EQ(g_afState, 1);
    EXPECT_EQ(g_search.searchStartPos, 4000);
}

TEST_F(RestartRulesTest, FineScanToleranceComesBackAtRestartsNotOnFocusedFrames) {
    restart_and_start();
    g_afState = 2;
    g_fine.fineGain = 5;  // lowered by a search that fell below its reference
    frame();
    EXPECT_EQ(g_fine.fineGain, 5) << "a focused frame keeps it";
    g_refocusRequest = 1;
    frame();
    EXPECT_EQ(g_fine.fineGain, 9) << "a restart gives it back";

    // The pan/tilt restarts: while the head moves, and on the frame after it stopped.
    g_fine.fineGain = 5;
    command_set_pt_moving(1);
    frame();
    frame();
    command_set_pt_moving(0);
    EXPECT_EQ(g_fine.fineGain, 9) << "the head moved";
    g_afState = 1;
    g_search.ptHold = 4;  // the head stopped a frame ago
    g_fine.fineGain = 5;
    frame();
    EXPECT_EQ(g_fine.fineGain, 9) << "the head stopped";
}

TEST_F(RestartRulesTest, RestartForgetsTheZoomTrackingSetUp) {
    frame();
    lens_set_positions(3000, 4000);
    zoom_track_step(1, 3, 0);
    zoom_track_step(1, 3, 0);
    ASSERT_EQ(zoom_track_is_active(), 1);
    frame();  // the zoom changed: restart
    EXPECT_EQ(zoom_track_is_active(), 0);
}

TEST_F(RestartRulesTest, ZoomAndPanFlagsAreRaisedByRestartsAndClearedBySearchStart) {
    frame();
    EXPECT_EQ(g_zoomChanged, 1) << "the first restart sees a new zoom";
    for (int i = 0; i < 3 && g_afState == 0; ++i)
        frame();
    ASSERT_EQ(g_afState, 1);
    EXPECT_EQ(g_zoomChanged, 0);
    command_set_pt_moving(1);
    frame();
    frame();  // the head still moves: the search is held at its start
    EXPECT_EQ(g_ptChanged, 1);
    command_set_pt_moving(0);
    for (int i = 0; i < 8 && g_ptChanged == 1; ++i)
        frame();
    EXPECT_EQ(g_ptChanged, 0);
}

// A preset written by the command channel takes effect on the next AF frame; with preset 3 the
// restart then chooses the block path by the digital zoom, and nothing later undoes that.
TEST_F(RestartRulesTest, PresetChangeTakesEffectBeforeTheRestart) {
    restart_and_start();
    ASSERT_EQ(g_blockPath, 1);
    set_window_preset(0);
    lens_set_positions(3500, 4000);
    frame();
    EXPECT_EQ(g_blockPath, 0) << "the whole search uses the window formula";

    set_window_preset(3);
    command_set_max_ezoom(500);
    command_set_ezoom(200);
    lens_set_positions(3800, 4000);
    frame();  // restart with digital zoom: the block path stays off
    frame();
    SelectSearchZone();
    EXPECT_EQ(g_blockPath, 0);
    command_set_ezoom(0);
    command_set_max_ezoom(0);
}

// ---- Start direction ----

TEST_F(RestartRulesTest, StartDirectionAfterTheWatchAskedFollowsWhatChanged) {
    restart_and_start();
    const int32_t B = af_curve_base();
    const struct {
        const char* what;
        uint8_t pending, changed_blocks;
        uint32_t event;
        uint32_t dir;
    } cases[] = {
        {"little changed: the scene analysis's event still decides", 0, 3, kObjectNon, 1},
        {"little changed, an object left", 0, 3, kObjectOut, 2},
        {"an object left", 0, 20, kObjectOut, 2},
        {"an object came in", 0, 20, kObjectIn, 1},
        {"other events: sharp windows say farther", 0, 20, kObjectShake, 1},
        {"a decision is pending", 1, 3, kObjectNon, 1},
    };
    for (const auto& c : cases) {
        show(all(1500));
        lens_set_positions(3200, static_cast<uint16_t>(B - 20));
        g_focusValue.posHist[0] = static_cast<uint16_t>(B - 20);
        g_blockPath = 1;
        g_search.restartReason = 1;
        g_search.searchDir = 0;
        focused_range_reset();
        scene_clear_result();
        g_sceneResult.pending = c.pending;
        g_sceneResult.event = c.event;
        for (int i = 0; i < c.changed_blocks; ++i)
            g_sceneResult.region[(5 + i / 5) * kGridCols + 5 + i % 5] = 1;
        ChooseStartDirection();
        EXPECT_EQ(g_search.searchDir, c.dir) << c.what;
    }
    // The same with the picture dim almost everywhere: farther means larger positions.
    show(all(300));
    g_sceneResult.pending = 0;
    g_sceneResult.event = kObjectShake;
    ChooseStartDirection();
    EXPECT_EQ(g_search.searchDir, 2u);
}

// Both ends reached without a peak: the lens walks back to the best place seen, at most 30 steps
// a frame, and the frames of the walk still count as frames of the search.
TEST_F(RestartRulesTest, WalkBackAfterNoPeakIsTrackedFrameByFrame) {
    restart_and_start();
    ASSERT_EQ(g_afState, 1u);
    show(all(300));
    lens_set_positions(3200, g_search.lowerBound);
    g_search.searchPhase = 2;
    g_search.searchDir = 2;
    g_search.lastDirSeen = 2;
    g_search.hitLower = g_search.hitUpper = 1;
    g_climb.finalReturn = 0;
    g_focusValue.searchMaxWindow = 5000;
    g_focusValue.searchMaxWindowPos = static_cast<uint16_t>(g_search.lowerBound + 100);
    g_lastAfPos = 0;
    frame();
    EXPECT_EQ(g_search.searchPhase, 9u);
    EXPECT_EQ(af_focus(), g_search.lowerBound + 30);
    EXPECT_EQ(g_lastAfPos, af_focus()) << "the walk's position is the last autofocus position";
}

TEST_F(RestartRulesTest, DistanceRuleReadsTheDistanceAtLastFocus) {
    restart_and_start();
    set_distance_assist_mode(1);
    g_seams.currentDistance = 2900;
    g_search.restartReason = 0;
    g_search.dirCheckArmed = 0;
    // Between the base curve and its far offsets, where the curve rules say nothing, and below
    // where the current distance is in focus.
    const uint16_t p = static_cast<uint16_t>(expected_focus_now() - 10);
    ASSERT_GE(p, af_curve_base() - 50);
    ASSERT_LE(p, af_curve_base() + af_far_offset(50) + 50);
    lens_set_positions(3200, p);
    g_focusValue.posHist[0] = p;
    for (const auto& [last, dir] : {std::pair{uint16_t{8192}, 1u}, {uint16_t{2000}, 2u}}) {
        g_seams.distanceAtLastFocus = last;
        g_search.searchDir = 1;
        ChooseStartDirection();
        EXPECT_EQ(g_search.searchDir, dir) << "distance at last focus " << last;
    }
    set_distance_assist_mode(0);
}

// ---- Zone means ----

TEST_F(RestartRulesTest, WindowMeansOfASetAndOfTheSelection) {
    Windows w = all(1000);
    w[6] = 2000;
    show(w);
    SnapshotReference();  // this frame's window values, each with the floor of 50
    uint8_t set[kWindowCount] = {};
    EXPECT_EQ(WindowSetMean(set), 50u) << "empty";
    set[6] = set[7] = 1;
    EXPECT_EQ(WindowSetMean(set), (2050u + 1050u) / 2);
    select_only({6, 7, 8, 11, 12});
    EXPECT_EQ(SelectedWindowsMean(), 2u * (2050 + 4 * 1050) / 25) << "doubled over all 25";
    command_set_max_ezoom(500);
    command_set_ezoom(100);
    EXPECT_EQ(SelectedWindowsMean(), (2050u + 4 * 1050) / 5) << "with digital zoom, the plain mean";
    g_focusZone.clear_window_mask();
    EXPECT_EQ(SelectedWindowsMean(), 50u);
    command_set_ezoom(0);
    command_set_max_ezoom(0);
}

// ---- Fine scan hand-over ----

TEST_F(RestartRulesTest, FineScanHandsOverKeepingItsReturnStep) {
    lens_set_positions(3000, 4000);
    g_search.searchPhase = 3;
    FineReset(0);
    g_fine.fineStarted = 1;
    g_fine.fineFrames = 12;
    g_fine.fineUps = 10;
    g_fine.fineDowns = 1;
    g_fine.fineMax = 5000;
    g_fine.fineMaxPos = 4000;
    g_final.returnStep = 6;
    show(all(4000));
    SnapshotReference();
    for (int k = 0; k < 5; ++k) {
        g_focusValue.fvHist[k] = 4000 - 100 * k;  // still rising clearly: no plateau
        g_focusValue.posHist[k] = static_cast<uint16_t>(4000 - 2 * k);
    }
    g_afState = 1;
    FineStep();
    ASSERT_EQ(g_search.searchPhase, 4u);
    EXPECT_EQ(g_final.finalStep, 3) << "half the kept return step";
}

// ---- ISP filters at the restart ----

class RestartFilterTest : public RestartRulesTest {
  protected:
    void SetUp() override {
        RestartRulesTest::SetUp();
        setenv("AFD_ISP_ADDR", "127.0.0.1", 1);
        setenv("AFD_ISP_PORT", std::to_string(peer_.port()).c_str(), 1);
        platform::reload_ports();
        testsupport::capture_stdout([] {
            ASSERT_EQ(socket_to_soc_init(), 0);
            ASSERT_EQ(isp_af_attr_setup(), 0);
        });
        ASSERT_TRUE(peer_.wait_codes(2));
    }
    void TearDown() override {
        isp_link_reset_for_testing();
        unsetenv("AFD_ISP_PORT");
        unsetenv("AFD_ISP_ADDR");
        platform::reload_ports();
        RestartRulesTest::TearDown();
    }
    // Filter parameter A of the last record the restart wrote, 0 when none.
    int restart_writes(uint16_t zoom) {
        peer_.clear_log();
        lens_set_positions(zoom, 3000);
        g_refocusRequest = 1;
        frame();
        EXPECT_EQ(isp_read_exposure(), 0);  // a marker after whatever the restart sent
        EXPECT_TRUE(peer_.wait_codes(1));
        const auto sets = peer_.set_payloads();
        return sets.empty() ? 0 : sets.back()[230];
    }
    void set_gain_ratio(uint32_t ratio) {
        peer_.set_exposure(static_cast<float>(ratio), 0.01f, 100.0f);
        ASSERT_EQ(isp_read_exposure(), 0);
    }
    isptest::IspPeer peer_;
};

TEST_F(RestartFilterTest, FirstRestartSetsTheFiltersForTheZoomItStartsAt) {
    set_gain_ratio(150);
    EXPECT_EQ(restart_writes(3000), 3) << "high gain below 5682: the high-noise profile";
    EXPECT_EQ(restart_writes(6000), 1) << "into the tele end: the low-noise profile";
    EXPECT_EQ(get_statistics_mode(), 0);
    EXPECT_EQ(restart_writes(6100), 0) << "no crossing, nothing written";
    set_gain_ratio(100);
    EXPECT_EQ(restart_writes(3000), 1) << "back below with low gain";
}

}  // namespace

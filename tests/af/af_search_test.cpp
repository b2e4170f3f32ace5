// End to end: the real frame loop runs the real autofocus against a small optical model. A
// textured plane sits at one true in-focus position; every frame's statistics show the lens where
// it stood two frames earlier. From starts on either side of focus the search must end focused
// within the depth of focus, and it must stay put once focused.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "af/af_state.h"
#include "af/auto_focus.h"
#include "app/frame_loop.h"
#include "base/frame_pacing.h"
#include "command/command_process.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/clock.h"
#include "platform/sim/virtual_clock.h"
#include "tests/af/af_test_optics.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/test_env.h"
#include "tracking/curves.h"

#include <netinet/in.h>

namespace {

struct Harness {
    platform::VirtualClock clock;
    aftest::Plane plane;  // in focus at 4300
    uint32_t frame_us = 33333;
    int latency = 2;
    uint16_t seen[8] = {};  // lens focus at the last frame signals, ring
    uint32_t seen_at = 0;
    std::vector<uint8_t> frame;
    uint32_t frame_no = 0;
};

Harness* g_h = nullptr;

int h_vd() {
    g_h->clock.sleep_us(g_h->frame_us);
    g_h->seen[++g_h->seen_at % 8] = lens_get_focus_pos();
    // The frame shows the lens as it stood `latency` frame signals ago.
    const double shown = g_h->seen[(g_h->seen_at - static_cast<uint32_t>(g_h->latency)) % 8];
    aftest::render(g_h->plane, shown, ++g_h->frame_no, &g_h->frame);
    return 0;
}
void h_fetch(uint8_t mode) {
    af_stat_fetch_from(g_h->frame.data(), mode);
}
void h_nop() {}
void h_move(uint8_t, uint8_t, uint8_t, uint8_t) {}
void h_step(uint8_t, uint8_t) {}

// The frame loop's own ISP, calibration and motion hooks do nothing here.
const FrameLoopOps kOps = {
    h_vd,
    [] { return 0; },
    [] { return 0u; },
    h_fetch,
    highlight_clear_latched,
    highlight_arm_update,
    [] { return 0; },
    [](uint8_t) { return 0; },
    [] { return 0; },
    [] { return int32_t{0}; },
    [] { return int32_t{0}; },
    [](const char*, int32_t) {},
    [](const MotionCommand&) {},
    AfFrame,
    ReturnToLastPosition,
    SnapshotReference,
    h_nop,
    h_nop,
    nullptr,  // no calibration runs in these searches
};

class AfSearchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        h_.clock.set_now_us(1000000);
        platform::select_clock(&h_.clock);
        g_h = &h_;
        ops_ = lens_ops();
        ops_.move_both = h_move;
        ops_.focus_step = h_step;
        ops_.zoom_step = h_step;
        lens_set_ops_for_testing(&ops_);
        lens_position_reset_for_testing();
        testsupport::capture_stdout([] { curve_load(); });
        frame_pacing_reset_for_testing();
        highlight_reset_for_testing();
        isp_link_reset_for_testing();
        command_set_calibration_mode(0);
        command_set_zoom_motion_active(0);
        command_set_autofocus_mode(1);
        af_reset_for_testing();
        af_set_position_publisher(h_nop);
    }
    void TearDown() override {
        af_set_position_publisher(nullptr);
        command_set_autofocus_mode(0);
        platform::select_clock(nullptr);
        lens_set_ops_for_testing(nullptr);
        lens_position_reset_for_testing();
        af_reset_for_testing();
        g_h = nullptr;
    }

    void place(uint16_t zoom, uint16_t focus) {
        lens_set_positions(zoom, focus);
        for (auto& v : h_.seen)
            v = focus;
        aftest::render(h_.plane, focus, 0, &h_.frame);
    }

    // Runs video frames until the search has ended focused and the lens stood still for a
    // second; returns the video frames from the first frame to the end of the search, or -1.
    int run_until_focused(FrameLoop& loop, int max_frames) {
        int focused_at = -1;
        for (int i = 1; i <= max_frames; ++i) {
            loop.iteration();
            if (g_afState == 2 && focused_at < 0)
                focused_at = i;
            if (g_afState != 2)
                focused_at = -1;
            if (focused_at > 0 && i - focused_at >= 30)
                return focused_at;
        }
        return -1;
    }

    FrameLoop make_loop() {
        FrameLoop loop(kOps, 0);
        loop.mark_start_time();
        update_frame_cadence();
        set_motion_divisor_from_high_rate();
        loop.arm();
        return loop;
    }

    Harness h_;
    LensDriverOps ops_{};
    testsupport::SandboxRoot root_;
};

struct Start {
    uint16_t zoom;
    double truth;
    uint16_t focus;
    double noise;
};

TEST_F(AfSearchTest, SearchFromEitherSideEndsFocusedWithinTheDepthOfFocus) {
    // Mid zoom (range about 3745..4502) and near the tele end; starts on both sides, with and
    // without noise, and peaks right at either end of the range, where the search meets the bound
    // before it sees the value fall. The depth of focus is the half width of the sharpness peak.
    const Start starts[] = {
        {3200, 4300, 4480, 0.0},  {3200, 4300, 3800, 0.0},  {3200, 4000, 4450, 0.02},
        {3200, 4420, 3760, 0.02}, {5000, 2000, 1700, 0.0},  {5000, 2000, 2300, 0.02},
        {3200, 4498, 4000, 0.0},  {3200, 3750, 4300, 0.02},
    };
    for (const Start& s : starts) {
        SCOPED_TRACE(testing::Message() << "zoom " << s.zoom << " truth " << s.truth << " start "
                                        << s.focus << " noise " << s.noise);
        af_reset_for_testing();
        h_.plane.true_focus = s.truth;
        h_.plane.noise = s.noise;
        place(s.zoom, s.focus);
        FrameLoop loop = make_loop();
        ASSERT_GT(run_until_focused(loop, 3000), 0)
            << "never settled focused; lens at " << lens_get_focus_pos() << " phase "
            << g_search.searchPhase;
        EXPECT_NEAR(lens_get_focus_pos(), s.truth, h_.plane.half_width);
    }
}

TEST_F(AfSearchTest, FocusedPictureStaysPutAndTheSearchAllocatesNothing) {
    place(3200, 3900);
    FrameLoop loop = make_loop();
    // Warm up: the first search runs every path once.
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    const uint16_t at = lens_get_focus_pos();
    const uint64_t before = testsupport::allocation_count();
    // A second search from the other side, then a long focused watch.
    af_reset_for_testing();
    place(3200, 4480);
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    for (int i = 0; i < 300; ++i)
        loop.iteration();
    EXPECT_EQ(testsupport::allocation_count() - before, 0u) << "heap use in the frame path";
    EXPECT_EQ(g_afState, 2);
    EXPECT_NEAR(lens_get_focus_pos(), at, h_.plane.half_width);
}

TEST_F(AfSearchTest, OneShotModeSearchesOnceThenSwitchesItselfOff) {
    place(3200, 3900);
    command_set_autofocus_mode(3);
    FrameLoop loop = make_loop();
    int off_at = -1;
    for (int i = 1; i <= 3000 && off_at < 0; ++i) {
        loop.iteration();
        if (command_autofocus_mode() == 0)
            off_at = i;
    }
    ASSERT_GT(off_at, 0) << "mode 3 never switched off";
    EXPECT_EQ(g_oneShotStage, 0);
    EXPECT_NEAR(lens_get_focus_pos(), 4300, h_.plane.half_width);
    // Autofocus off: the lens no longer moves even when the subject does.
    const uint16_t at = lens_get_focus_pos();
    h_.plane.true_focus = 4000;
    for (int i = 0; i < 200; ++i)
        loop.iteration();
    EXPECT_EQ(lens_get_focus_pos(), at);
}

TEST_F(AfSearchTest, ZoomChangeRestartsTheSearchTowardsTheZoomDirection) {
    place(3200, 4300);
    FrameLoop loop = make_loop();
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    // The zoom moves towards tele: the in-focus position falls, so the search heads down.
    lens_set_positions(3300, lens_get_focus_pos());
    int i = 0;
    while (g_afState == 2 && i++ < 10)
        loop.iteration();
    ASSERT_EQ(g_afState, 0) << "the zoom change restarted the search";
    EXPECT_EQ(g_search.searchDir, 1u);
    EXPECT_EQ(g_search.refocusCause, 9u);
}

TEST_F(AfSearchTest, DigitalZoomAloneDoesNotRestartTheSearch) {
    place(3200, 4300);
    FrameLoop loop = make_loop();
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    command_set_ezoom(200);
    for (int i = 0; i < 20; ++i)
        loop.iteration();
    EXPECT_EQ(g_afState, 2) << "the optics did not move";
    EXPECT_EQ(g_search.lastDigitalZoom, 200) << "only remembered";
    command_set_ezoom(0);
}

TEST_F(AfSearchTest, PanTiltHoldsTheSearchAndRestartsItAfterTheHeadStops) {
    h_.plane.peak = 700;  // a soft picture: the centre column is not sharp enough to keep
    place(3200, 4300);
    FrameLoop loop = make_loop();
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    auto pan_tilt = [](uint8_t mode) {  // 14: the head moves, 15: it stopped
        uint8_t d[2 + kMotionCommandWireSize] = {'w', 0};
        MotionCommand m{};
        m.mode = mode;
        motion_command_encode(m, d + 2);
        testsupport::capture_stdout([&] { command_process_datagram(d, sizeof d, sockaddr_in{}); });
    };
    pan_tilt(14);
    ASSERT_EQ(command_pt_moving(), 1);
    const uint16_t at = lens_get_focus_pos();
    for (int i = 0; i < 40; ++i)
        loop.iteration();
    EXPECT_EQ(lens_get_focus_pos(), at) << "no search while the head moves";
    EXPECT_NE(g_search.ptHold, 0);
    pan_tilt(15);
    int i = 0;
    while (g_search.ptHold != 0 && i++ < 20)
        loop.iteration();
    EXPECT_EQ(g_search.ptHold, 0);
    EXPECT_NE(g_afState, 2) << "a new search follows the stop";
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    EXPECT_NEAR(lens_get_focus_pos(), 4300, h_.plane.half_width);
    // Leave the command channel as the other tests expect to find it.
    testsupport::capture_stdout([] { command_state_init(); });
}

TEST_F(AfSearchTest, ModeTwoHoldsFocusUntilARefocusIsRequested) {
    place(3200, 3900);
    command_set_autofocus_mode(2);
    FrameLoop loop = make_loop();
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    h_.plane.true_focus = 4100;  // the subject moves; mode 2 does not follow by itself
    const uint16_t at = lens_get_focus_pos();
    for (int i = 0; i < 100; ++i)
        loop.iteration();
    EXPECT_EQ(lens_get_focus_pos(), at);
    g_refocusRequest = 1;
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    EXPECT_NEAR(lens_get_focus_pos(), 4100, h_.plane.half_width);
}

TEST_F(AfSearchTest, FeaturelessWallEndsFocusedWithoutHunting) {
    h_.plane.peak = 62;  // no contrast worth the name anywhere
    h_.plane.floor = 60;
    place(3200, 4100);
    FrameLoop loop = make_loop();
    ASSERT_GT(run_until_focused(loop, 8000), 0)
        << "a flat scene still ends, at the best place seen";
    const uint16_t at = lens_get_focus_pos();
    for (int i = 0; i < 200; ++i)
        loop.iteration();
    EXPECT_EQ(lens_get_focus_pos(), at) << "and stays there";
}

TEST_F(AfSearchTest, StartBelowTheRangeStepsInByAtMostThirtyBeforeSearching) {
    h_.plane.true_focus = 3900;
    place(3200, 3600);  // the range at this zoom starts near 3745
    FrameLoop loop = make_loop();
    uint16_t prev = lens_get_focus_pos();
    bool searched_below = false;
    for (int i = 0;
         i < 40 && (g_search.lowerBound == 0 || lens_get_focus_pos() < g_search.lowerBound); ++i) {
        loop.iteration();
        const uint16_t now = lens_get_focus_pos();
        EXPECT_LE(now - prev, 30) << "frame " << i;
        EXPECT_GE(now, prev) << "only inwards";
        if (g_afState == 1 && now < g_search.lowerBound)
            searched_below = true;
        prev = now;
    }
    EXPECT_FALSE(searched_below) << "the search itself starts inside the range";
    ASSERT_GT(run_until_focused(loop, 3000), 0);
    EXPECT_NEAR(lens_get_focus_pos(), 3900, h_.plane.half_width);
}

}  // namespace

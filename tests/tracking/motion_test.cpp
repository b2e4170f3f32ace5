// Motion commands and tracked zooms, driven frame by frame against a recording lens driver and a
// small optical model: the centre sharpness of each frame depends on how far the focus stood from
// the object's curve two frames earlier (the lens's statistics latency).
#include "tracking/motion.h"

#include <gtest/gtest.h>

#include <deque>

#include "af/auto_focus.h"
#include "base/frame_pacing.h"
#include "command/command_process.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "tests/isp/stat_frame.h"
#include "tests/support/test_env.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

int g_moveCalls = 0;
void count_move(uint8_t, uint8_t, uint8_t, uint8_t) {
    ++g_moveCalls;
}

class MotionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ops_ = lens_ops();
        ops_.move_both = count_move;
        lens_set_ops_for_testing(&ops_);
        lens_position_reset_for_testing();
        zoom_track_reset_for_testing();
        motion_reset_for_testing();
        testsupport::capture_stdout([] { curve_load(); });
        command_set_autofocus_mode(0);
        command_set_zoom_motion_active(1);
        command_clear_focus_stop_request();
        command_set_max_ezoom(0);
        command_set_ezoom(0);
        g_moveCalls = 0;
        feed(1000);
    }
    void TearDown() override {
        lens_set_ops_for_testing(nullptr);
        lens_position_reset_for_testing();
        zoom_track_reset_for_testing();
        command_set_zoom_motion_active(0);
        command_set_max_ezoom(0);
    }

    // Every block reads the given sharpness in all four filter sums.
    static void feed(uint32_t sharpness) {
        isptest::StatFrame f;
        f.fill(isptest::Field::kLuma, 2000);
        for (auto field : {isptest::Field::kFirV, isptest::Field::kFirH, isptest::Field::kIir1,
                           isptest::Field::kIir2})
            f.fill(field, sharpness);
        af_stat_fetch_from(f.data(), 2);
    }

    static MotionCommand cmd(uint8_t mode, uint16_t zoom_target = 0, uint16_t focus_target = 0,
                             uint8_t zoom_speed = 3) {
        MotionCommand c{};
        c.mode = mode;
        c.zoom_target = zoom_target;
        c.focus_target = focus_target;
        c.zoom_speed = zoom_speed;
        c.focus_speed = 7;
        return c;
    }

    // Runs motion frames until the motion ends (or max frames); returns the frames taken.
    static int run(const MotionCommand& c, int max_frames = 2000) {
        for (int i = 1; i <= max_frames; ++i) {
            motion_execute(c);
            if (command_zoom_motion_active() == 0)
                return i;
        }
        return -1;
    }

    LensDriverOps ops_{};
    testsupport::SandboxRoot root_;
};

// Motions that run to their end: where zoom and focus stand when the motion reports done.
TEST_F(MotionTest, MotionsEndWhereTheyShould) {
    const uint16_t fmax = lens_get_focus_max();
    MotionCommand zoom_out = cmd(0, 0, 0, 7);
    MotionCommand focus_in = cmd(4);
    focus_in.focus_dir = 1;
    const struct {
        const char* what;
        uint16_t z0, f0;
        MotionCommand c;
        uint16_t z, f;
        int focus_tolerance;
    } cases[] = {
        // The focus follows the start's curve down to the wide end.
        {"zoom out", 6378, curve_focus_at(20, 6378), zoom_out, 0, curve_focus_at(20, 0), 3},
        {"focus in", 3000, 3000, focus_in, 3000, fmax, 0},
        {"focus target past the end", 3000, 6000, cmd(5, 0, uint16_t(fmax + 100)), 3000, fmax, 0},
        {"zoom, then focus", 4000, 3000, cmd(7, 4300, 3200, 7), 4300, 3200, 0},
        {"blind zoom: the focus stays", 1000, 3000, cmd(3, 1500), 1500, 3000, 0},
    };
    for (const auto& c : cases) {
        lens_set_positions(c.z0, c.f0);
        command_set_zoom_motion_active(1);
        EXPECT_GT(run(c.c), 0) << c.what;
        EXPECT_EQ(lens_get_zoom_pos(), c.z) << c.what;
        EXPECT_NEAR(lens_get_focus_pos(), c.f, c.focus_tolerance) << c.what;
        EXPECT_EQ(zoom_track_is_active(), 0) << c.what << ": a finished motion forgets its set-up";
    }
    lens_set_positions(3000, fmax);
    command_set_zoom_motion_active(1);
    EXPECT_EQ(run(cmd(5, 0, 5950)), (fmax - 5950 + 15) / 16 + 1) << "16 steps a frame at speed 7";
}

// Each zoom picks the curve through (or nearest to) the focus of its own start and, with
// autofocus off, keeps the focus on it to the end.
TEST_F(MotionTest, EachZoomTracksTheCurveThroughTheFocusOfItsOwnStart) {
    const struct {
        uint16_t from, to;
        uint8_t curve;
        int16_t off;  // start focus off the curve; the tele curves lie far apart
    } zooms[] = {{3000, 6000, 30, 0}, {4000, 5000, 10, 0}, {6000, 4500, 30, 5}};
    for (const auto& z : zooms) {
        // Autofocus (or a manual focus) put the focus on the object's curve before the zoom.
        lens_set_positions(z.from, static_cast<uint16_t>(curve_focus_at(z.curve, z.from) + z.off));
        command_set_zoom_motion_active(1);
        ASSERT_GT(run(cmd(1, z.to)), 0);
        EXPECT_EQ(lens_get_zoom_pos(), z.to);
        EXPECT_NEAR(zoom_track_start_curve(), z.curve, 1) << "from " << z.from;
        EXPECT_EQ(zoom_track_move_curve(), zoom_track_start_curve());
        EXPECT_NEAR(lens_get_focus_pos(), curve_focus_at(z.curve, z.to), 3) << "from " << z.from;
    }
}

TEST_F(MotionTest, WideZoomAlwaysTracksTheMidCurve) {
    lens_set_positions(2000, curve_focus_at(45, 2000));
    MotionCommand c = cmd(1);
    c.zoom_target = 2100;
    run(c);
    EXPECT_EQ(zoom_track_start_curve(), 13);
}

TEST_F(MotionTest, ZoomTrackEndsReversalsAndSpeeds) {
    lens_set_positions(0, 3000);
    EXPECT_EQ(zoom_track_step(0, 4, 0), 0) << "at the minimum going out";
    EXPECT_EQ(g_moveCalls, 0);
    lens_set_positions(lens_get_zoom_max(), 3000);
    EXPECT_EQ(zoom_track_step(1, 4, 0), 0) << "going in at the maximum does not move";
    EXPECT_EQ(zoom_track_step(0, 4, 0), 1) << "a reversal at the maximum proceeds at once";
    EXPECT_LT(lens_get_zoom_pos(), lens_get_zoom_max());
    // At the wide end the curves are nearly flat, so the focus never limits the step.
    lens_set_positions(100, curve_focus_at(13, 100));
    EXPECT_EQ(zoom_track_step(1, 9, 0), 0) << "elsewhere a reversal costs one frame";
    EXPECT_EQ(zoom_track_step(1, 9, 0), 1);
    EXPECT_EQ(lens_get_zoom_pos(), 160) << "a speed above 8 moves 60 steps";
}

TEST_F(MotionTest, ProbingConvergesOnTheObjectsCurve) {
    // The object lies on curve 34; the zoom starts focused as if on curve 28.
    constexpr uint8_t kObjectCurve = 34;
    lens_set_positions(3800, curve_focus_at(28, 3800));
    command_set_autofocus_mode(1);
    MotionCommand c = cmd(1);
    c.zoom_target = 5200;
    c.zoom_speed = 0;
    std::deque<uint16_t> shown;  // focus error the sensor sees, two frames late
    int frames = 0;
    while (command_zoom_motion_active() == 1 && frames < 3000) {
        const int32_t err = static_cast<int32_t>(lens_get_focus_pos()) -
                            curve_focus_at(kObjectCurve, lens_get_zoom_pos());
        shown.push_back(static_cast<uint16_t>(err < 0 ? -err : err));
        // This frame shows the lens as the move two frames ago left it.
        const uint16_t e = shown.size() >= 2 ? shown[shown.size() - 2] : shown.front();
        feed(8000 / (1 + e / 4) + 60);
        motion_execute(c);
        ++frames;
    }
    ASSERT_EQ(command_zoom_motion_active(), 0);
    EXPECT_NEAR(zoom_track_current_curve(), kObjectCurve, 1);
    const int32_t final_err = static_cast<int32_t>(lens_get_focus_pos()) -
                              curve_focus_at(kObjectCurve, lens_get_zoom_pos());
    EXPECT_LT(std::abs(final_err), std::abs(static_cast<int32_t>(curve_focus_at(28, 5200)) -
                                            curve_focus_at(kObjectCurve, 5200)));
}

TEST_F(MotionTest, TeleLatchDelaysElectronicZoom) {
    command_set_max_ezoom(40);
    lens_set_positions(6600, curve_focus_at(20, 6600));
    MotionCommand c = cmd(0);
    c.zoom_dir = 1;
    c.zoom_speed = 7;
    for (int i = 0; i < 3 && lens_get_zoom_pos() < lens_get_zoom_max(); ++i)
        motion_execute(c);
    ASSERT_EQ(lens_get_zoom_pos(), lens_get_zoom_max());
    EXPECT_EQ(motion_tele_latch(), 1);
    motion_execute(c);
    EXPECT_EQ(motion_tele_latch(), 0);
    EXPECT_EQ(command_get_ezoom(), 0u) << "the frame after the optical end only clears the latch";
    motion_execute(c);
    EXPECT_EQ(command_get_ezoom(), 8u);
    EXPECT_EQ(run(c), 5) << "8 per frame up to 40, then the end is detected";
    EXPECT_EQ(command_get_ezoom(), 40u);
}

TEST_F(MotionTest, ZoomTargetClampingSplitsOpticalAndElectronic) {
    command_set_max_ezoom(100);
    lens_set_positions(lens_get_zoom_max(), 3000);
    MotionCommand c = cmd(1);
    c.zoom_target = 7000;
    c.ezoom_target = 300;
    ASSERT_GT(run(c), 0);
    EXPECT_EQ(command_get_ezoom(), 100u) << "electronic target limited to its maximum";

    c.zoom_target = 5000;
    c.ezoom_target = 50;
    command_set_zoom_motion_active(1);
    ASSERT_GT(run(c), 0);
    EXPECT_EQ(command_get_ezoom(), 0u) << "below the optical end there is no electronic zoom";
    EXPECT_EQ(lens_get_zoom_pos(), 5000);
}

// Blind zooms and focus motions belong to manual operation: with autofocus on they end at once
// without moving the lens.
TEST_F(MotionTest, ManualMotionsEndAtOnceWhileAutofocusIsOn) {
    command_set_autofocus_mode(1);
    for (uint8_t mode : {2, 3, 4, 5, 6}) {
        lens_set_positions(3000, 3000);
        command_set_zoom_motion_active(1);
        MotionCommand c = cmd(mode, 3500, 3500);
        c.zoom_dir = c.focus_dir = 1;
        EXPECT_EQ(run(c), 1) << "mode " << int(mode);
    }
    EXPECT_EQ(g_moveCalls, 0);
}

TEST_F(MotionTest, FocusStopRequestEndsAFocusMoveAndIsConsumed) {
    lens_set_positions(3000, 3000);
    testsupport::capture_stdout([] {
        const uint8_t stop[20] = {'w', 0, 13};
        command_process_datagram(stop, sizeof stop, sockaddr_in{});
    });
    EXPECT_EQ(run(cmd(5, 0, 4000)), 1);
    EXPECT_EQ(command_focus_stop_request(), 0);
    EXPECT_EQ(g_moveCalls, 0);
}

}  // namespace

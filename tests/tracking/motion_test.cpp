// Motion commands and tracked zooms, driven frame by frame against a recording lens driver and a
// small optical model: the centre sharpness of each frame depends on how far the focus stood from
// the object's curve two frames earlier (the lens's statistics latency).
#include "tracking/motion.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <vector>

#include "af/auto_focus.h"
#include "app/frame_pacing.h"
#include "command/command_process.h"
#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

int g_moveCalls = 0;
void count_move(uint8_t, uint8_t, uint8_t, uint8_t) {
    ++g_moveCalls;
}

// A statistics frame whose every block reads the given sharpness (fir_v = iir1 = s).
std::vector<uint8_t> uniform_frame(uint32_t s) {
    std::vector<uint8_t> f(5504, 0);
    auto put = [&](size_t word, uint32_t v) { std::memcpy(f.data() + 4 * word, &v, 4); };
    for (size_t b = 0; b < 225; ++b) {
        put(3 + b, 2000);  // luma
        put(228 + b, s);   // fir_v
        put(453 + b, s);   // fir_h
        put(678 + b, s);   // iir1
        put(903 + b, s);   // iir2
        put(1128 + b, 0);  // highlight
    }
    return f;
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

    static void feed(uint32_t sharpness) {
        const std::vector<uint8_t> f = uniform_frame(sharpness);
        af_stat_fetch_from(f.data(), 2);
    }

    static MotionCommand cmd(uint8_t mode) {
        MotionCommand c{};
        c.mode = mode;
        c.zoom_speed = 3;
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

TEST_F(MotionTest, ContinuousZoomOutReachesTheWideEndAndStops) {
    lens_set_positions(6378, curve_focus_at(20, 6378));
    MotionCommand c = cmd(0);
    c.zoom_dir = 0;
    c.zoom_speed = 7;
    const int frames = run(c);
    ASSERT_GT(frames, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_NEAR(lens_get_focus_pos(), curve_focus_at(20, 0), 3) << "the focus followed its curve";
}

TEST_F(MotionTest, TrackedZoomKeepsTheFocusOnTheStartCurveWithAutofocusOff) {
    lens_set_positions(3000, curve_focus_at(30, 3000));
    MotionCommand c = cmd(1);
    c.zoom_target = 6000;
    ASSERT_GT(run(c), 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6000);
    EXPECT_EQ(zoom_track_move_curve(), zoom_track_start_curve());
    EXPECT_NEAR(lens_get_focus_pos(), curve_focus_at(zoom_track_start_curve(), 6000), 2);
    EXPECT_NEAR(zoom_track_start_curve(), 30, 1) << "the curve through the start focus";
}

TEST_F(MotionTest, EachZoomPicksTheCurveThroughTheFocusOfItsOwnStart) {
    lens_set_positions(3000, curve_focus_at(30, 3000));
    MotionCommand c = cmd(1);
    c.zoom_target = 4000;
    ASSERT_GT(run(c), 0);
    EXPECT_NEAR(zoom_track_start_curve(), 30, 1);
    EXPECT_EQ(zoom_track_is_active(), 0) << "a finished motion forgets its set-up";
    // Autofocus (or a manual focus) moved the focus to an object on curve 10 meanwhile.
    lens_set_positions(4000, curve_focus_at(10, 4000));
    c.zoom_target = 5000;
    command_set_zoom_motion_active(1);
    ASSERT_GT(run(c), 0);
    EXPECT_NEAR(zoom_track_start_curve(), 10, 1);
    EXPECT_NEAR(lens_get_focus_pos(), curve_focus_at(10, 5000), 3);
}

TEST_F(MotionTest, WideZoomAlwaysTracksTheMidCurve) {
    lens_set_positions(2000, curve_focus_at(45, 2000));
    MotionCommand c = cmd(1);
    c.zoom_target = 2100;
    run(c);
    EXPECT_EQ(zoom_track_start_curve(), 13);
}

TEST_F(MotionTest, ZoomTrackEndsAndReversals) {
    lens_set_positions(0, 3000);
    EXPECT_EQ(zoom_track_step(0, 4, 0), 0) << "at the minimum going out";
    EXPECT_EQ(g_moveCalls, 0);
    lens_set_positions(3000, 3000);
    EXPECT_EQ(zoom_track_step(1, 4, 0), 0) << "a reversal costs one frame";
    EXPECT_EQ(zoom_track_step(1, 4, 0), 1);
    lens_set_positions(lens_get_zoom_max(), 3000);
    EXPECT_EQ(zoom_track_step(1, 4, 0), 0) << "going in at the maximum does not move";
    EXPECT_EQ(zoom_track_step(0, 4, 0), 1) << "a reversal at the maximum proceeds at once";
    EXPECT_LT(lens_get_zoom_pos(), lens_get_zoom_max());
}

TEST_F(MotionTest, SpeedAboveEightGivesSixtySteps) {
    // At the wide end the curves are nearly flat, so the focus never limits the step.
    lens_set_positions(100, curve_focus_at(13, 100));
    EXPECT_EQ(zoom_track_step(1, 9, 0), 0) << "the first call going in turns the direction";
    EXPECT_EQ(zoom_track_step(1, 9, 0), 1);
    EXPECT_EQ(lens_get_zoom_pos(), 160);
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

TEST_F(MotionTest, FocusToTargetBeyondTheEndStopsAtTheEnd) {
    lens_set_positions(3000, 6000);
    MotionCommand c = cmd(5);
    c.focus_target = lens_get_focus_max() + 100;
    ASSERT_GT(run(c), 0);
    EXPECT_EQ(lens_get_focus_pos(), lens_get_focus_max());
    c.focus_target = 5950;
    command_set_zoom_motion_active(1);
    const int frames = run(c);
    EXPECT_EQ(lens_get_focus_pos(), 5950);
    EXPECT_EQ(frames, (6120 - 5950 + 15) / 16 + 1) << "16 steps a frame at speed 7";
}

TEST_F(MotionTest, FocusMotionsNeedAutofocusOff) {
    lens_set_positions(3000, 3000);
    command_set_autofocus_mode(1);
    MotionCommand c = cmd(4);
    c.focus_dir = 1;
    EXPECT_EQ(run(c), 1);
    EXPECT_EQ(g_moveCalls, 0) << "stops at once without moving";
    command_set_autofocus_mode(0);
    command_set_zoom_motion_active(1);
    motion_execute(c);
    EXPECT_EQ(lens_get_focus_pos(), 3016);
    // The focus-stop request ends a focus-to-target move and is consumed.
    MotionCommand t = cmd(5);
    t.focus_target = 4000;
    command_set_zoom_motion_active(1);
    testsupport::capture_stdout([] {
        const uint8_t stop[20] = {'w', 0, 13};
        sockaddr_in from{};
        command_process_datagram(stop, sizeof stop, from);
    });
    EXPECT_EQ(run(t), 1);
    EXPECT_EQ(command_focus_stop_request(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 3016);
}

TEST_F(MotionTest, ZoomThenFocusMovesFocusOnlyOnceTheZoomArrived) {
    lens_set_positions(4000, 3000);
    MotionCommand c = cmd(7);
    c.zoom_target = 4300;
    c.focus_target = 3200;
    c.zoom_speed = 7;
    std::vector<std::pair<uint16_t, uint16_t>> path;
    for (int i = 0; i < 400 && command_zoom_motion_active() == 1; ++i) {
        const uint16_t z = lens_get_zoom_pos();
        const uint16_t f = lens_get_focus_pos();
        motion_execute(c);
        if (z != 4300)
            path.emplace_back(z, f);
    }
    EXPECT_EQ(command_zoom_motion_active(), 0);
    EXPECT_EQ(lens_get_zoom_pos(), 4300);
    EXPECT_EQ(lens_get_focus_pos(), 3200);
    EXPECT_EQ(zoom_track_is_active(), 0);
}

TEST_F(MotionTest, BlindZoomWithoutAutofocusOnly) {
    lens_set_positions(1000, 3000);
    MotionCommand c = cmd(3);
    c.zoom_target = 1500;
    command_set_autofocus_mode(2);
    EXPECT_EQ(run(c), 1);
    EXPECT_EQ(lens_get_zoom_pos(), 1000);
    command_set_autofocus_mode(0);
    command_set_zoom_motion_active(1);
    ASSERT_GT(run(c), 0);
    EXPECT_EQ(lens_get_zoom_pos(), 1500);
    EXPECT_EQ(lens_get_focus_pos(), 3000) << "the focus does not follow a blind zoom";
}

}  // namespace

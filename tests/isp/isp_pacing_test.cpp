// The frame loop paced by a scripted ISP service on virtual time: the stamps in the frame headers
// drive the clock, so the loop measures the service's frame interval and learns its rate.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "app/frame_loop.h"
#include "app/frame_pacing.h"
#include "isp/af_stat.h"
#include "isp/isp_link.h"
#include "platform/clock.h"
#include "platform/ports.h"
#include "platform/sim/virtual_clock.h"
#include "tests/isp/isp_peer.h"
#include "tests/isp/stat_frame.h"
#include "tests/support/test_env.h"

namespace {

int g_fetches = 0;

FrameLoopOps loop_ops() {
    // The ISP side is real; everything the loop would do to the lens is left out.
    FrameLoopOps ops = default_frame_loop_ops();
    ops.track_poll = [] { return uint32_t{0}; };
    ops.stat_fetch = [](uint8_t mode) {
        ++g_fetches;
        af_stat_fetch(mode);
    };
    ops.curve_calibrate_step = [] { return 0; };
    ops.iris_correct_step = [](uint8_t) { return 0; };
    ops.hall_calibrate = [] { return 1; };
    ops.offset_save = [](const char*, int32_t) {};
    ops.motion_execute = [](const MotionCommand&) {};
    ops.af_frame = [] {};
    ops.return_to_last = [] {};
    ops.snapshot_reference = [] {};
    ops.publish_positions = [] {};
    ops.auto_iris_step = [] {};
    return ops;
}

struct RateCase {
    uint32_t period_us;
    uint32_t fps;
};

class IspPacingTest : public ::testing::TestWithParam<RateCase> {
  protected:
    void SetUp() override {
        setenv("AFD_ISP_PORT", std::to_string(peer.port()).c_str(), 1);
        platform::reload_ports();
        platform::select_clock(&clock);
        isp_link_reset_for_testing();
        frame_pacing_reset_for_testing();
    }
    void TearDown() override {
        isp_link_reset_for_testing();
        frame_pacing_reset_for_testing();
        platform::select_clock(nullptr);
        unsetenv("AFD_ISP_PORT");
        platform::reload_ports();
    }
    testsupport::SandboxRoot root;
    isptest::IspPeer peer;
    platform::VirtualClock clock;
};

TEST_P(IspPacingTest, LoopClassifiesTheServiceFrameRateFromFrameStamps) {
    const RateCase rc = GetParam();
    clock.set_now_us(2000000);
    peer.set_frame_stamps(2000000, rc.period_us);
    const FrameLoopOps ops = loop_ops();
    FrameLoop loop(ops, 0);
    testsupport::capture_stdout([&] {
        loop.mark_start_time();
        ASSERT_EQ(socket_to_soc_init(), 0);
        ASSERT_EQ(isp_af_attr_setup(), 0);
        loop.arm();
        set_frame_rate(rc.fps == 60 ? 25 : 60);  // start from a different rate
        for (int i = 0; i < 3; ++i)
            loop.iteration();
    });
    EXPECT_EQ(loop.state().interval_us, rc.period_us);
    EXPECT_EQ(get_frame_rate(), rc.fps);
    EXPECT_EQ(get_high_rate(), rc.fps >= 45 ? 1 : 0);
    EXPECT_EQ(clock.monotonic_us(), 2000000u + 3 * rc.period_us);
}

INSTANTIATE_TEST_SUITE_P(FrameRates, IspPacingTest,
                         ::testing::Values(RateCase{16667, 60}, RateCase{20000, 50},
                                           RateCase{33333, 30}, RateCase{40000, 25}));

}  // namespace

// Homing sequence of the driver table: order of operations, failure bits and the counts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "platform/sim/virtual_clock.h"

namespace {

std::vector<std::string> g_log;
uint32_t g_zoomResult = kHomeOk;
uint32_t g_focusResult = kHomeOk;

void f_init() {
    g_log.push_back("init_regs");
}
void f_on() {
    g_log.push_back("power_on");
}
void f_off() {
    g_log.push_back("power_off");
}
uint32_t f_zoom() {
    g_log.push_back("zoom_home");
    return g_zoomResult;
}
uint32_t f_focus() {
    g_log.push_back("focus_home");
    return g_focusResult;
}
int32_t f_all() {
    return 0;
}
void f_filter(uint8_t) {}
void f_iris(uint16_t) {}
void f_step(uint8_t, uint8_t) {}
void f_both(uint8_t, uint8_t, uint8_t, uint8_t) {}

const LensDriverOps kFakeOps = {f_init,   f_on,   f_off,  f_zoom, f_focus, f_all,
                                f_filter, f_iris, f_step, f_step, f_both};

class LensDriverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log.clear();
        g_zoomResult = g_focusResult = kHomeOk;
        lens_set_ops_for_testing(&kFakeOps);
        platform::select_clock(&clock);
        lens_set_positions(123, 456);
    }
    void TearDown() override {
        lens_set_ops_for_testing(nullptr);
        platform::select_clock(nullptr);
    }
    platform::VirtualClock clock;
};

TEST_F(LensDriverTest, InitSetsUpHomesZoomThenFocusAndAssignsTheHomeCounts) {
    EXPECT_EQ(lens_motor_init(), 0);
    EXPECT_EQ(g_log, (std::vector<std::string>{"init_regs", "power_on", "zoom_home", "focus_home",
                                               "power_off"}));
    EXPECT_EQ(clock.monotonic_us(), 1000u) << "1 ms settling after the supply";
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(lens_get_focus_pos(), lens_get_focus_home());
}

TEST_F(LensDriverTest, FailureBitsZeroBothCountsAndZoomFailureStillHomesFocus) {
    g_zoomResult = kHomeFailed;
    EXPECT_EQ(lens_motor_init(), kZoomHomeFailed);
    EXPECT_EQ(g_log[3], "focus_home");
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);

    g_zoomResult = kHomeOk;
    g_focusResult = kHomeFailed;
    lens_set_positions(1, 1);
    EXPECT_EQ(lens_motor_init(), kFocusHomeFailed);
    EXPECT_EQ(lens_get_zoom_pos(), 0) << "zoom count is dropped too";

    g_zoomResult = 0x1234FFFF;  // only the low 16 bits count
    EXPECT_EQ(lens_motor_init(), kZoomHomeFailed | kFocusHomeFailed);
}

TEST_F(LensDriverTest, RehomeSkipsTheSetUpAndTheSettlingWait) {
    EXPECT_EQ(lens_motor_rehome(), 0);
    EXPECT_EQ(g_log,
              (std::vector<std::string>{"power_on", "zoom_home", "focus_home", "power_off"}));
    EXPECT_EQ(clock.monotonic_us(), 0u);
}

}  // namespace

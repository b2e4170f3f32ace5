// Automatic iris loop, step table and the published iris state.
#include "lens_api/iris.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "command/command_process.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "tests/support/test_env.h"

namespace {

std::vector<uint16_t> g_drives;
uint32_t g_brightness = 225;

void record_iris(uint16_t v) {
    g_drives.push_back(v);
}
uint32_t brightness() {
    return g_brightness;
}

class IrisTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ops_ = lens_ops();
        ops_.iris_drive = record_iris;
        lens_set_ops_for_testing(&ops_);
        iris_reset_for_testing();
        iris_set_brightness_source_for_testing(brightness);
        command_set_zoom_motion_active(0);
        command_set_calibration_mode(0);
        g_drives.clear();
    }
    void TearDown() override {
        lens_set_ops_for_testing(nullptr);
        iris_set_brightness_source_for_testing(nullptr);
        iris_reset_for_testing();
    }
    // Automatic steps until the loop has adjusted `n` more times (it works on every second
    // call).
    static void adjustments(int n) {
        for (int i = 0; i < 2 * n; ++i)
            auto_iris_step();
    }
    LensDriverOps ops_{};
    testsupport::SandboxRoot root_;
};

TEST_F(IrisTest, DarkImageOpensByWholeSteps) {
    iris_set(1000);
    g_drives.clear();
    g_brightness = 150;
    adjustments(1);  // measures: step (230 - 150) / 10 = 8, opening
    EXPECT_TRUE(g_drives.empty()) << "the first evaluation only arms the loop";
    adjustments(1);
    ASSERT_EQ(g_drives.size(), 1u);
    EXPECT_EQ(g_drives.back(), 1008);
    EXPECT_EQ(iris_get_value(), 1008);
    adjustments(12);
    EXPECT_GT(iris_get_value(), 1100u) << "keeps opening while the image stays dark";
    EXPECT_LE(iris_get_value(), 2300u) << "never past the LC898201's largest value";
}

TEST_F(IrisTest, BrightImageClosesByHalfStepsNearTheClosedEnd) {
    iris_set(650);
    g_drives.clear();
    g_brightness = 300;
    adjustments(2);
    ASSERT_EQ(g_drives.size(), 1u);
    EXPECT_EQ(g_drives.back(), 645);
    adjustments(40);
    EXPECT_EQ(iris_get_value(), iris_table_get(8)) << "automatic mode never closes past step 8";
}

TEST_F(IrisTest, BrightnessInsideTheBandLeavesTheIrisAlone) {
    iris_set(900);
    g_drives.clear();
    for (uint32_t b : {200u, 225u, 250u}) {
        g_brightness = b;
        adjustments(5);
    }
    EXPECT_TRUE(g_drives.empty());
}

TEST_F(IrisTest, LoopSettlesAfterTenAdjustmentsBackInBand) {
    iris_set(1000);
    g_brightness = 150;
    adjustments(3);
    g_brightness = 240;  // above the opening target: inside the band
    adjustments(1);      // the step decided on the last dark frame is still taken
    const uint16_t v = iris_get_value();
    adjustments(11);
    EXPECT_EQ(iris_get_value(), v) << "no adjustment once the brightness is back";
    g_brightness = 150;
    g_drives.clear();
    adjustments(2);
    EXPECT_EQ(g_drives.size(), 1u) << "idle again, so a new dark scene re-arms the loop";
}

TEST_F(IrisTest, FixedModeAndZoomMotionHoldTheLoop) {
    iris_set(1000);
    g_drives.clear();
    g_brightness = 100;
    iris_set_mode(0);
    adjustments(5);
    EXPECT_TRUE(g_drives.empty());
    iris_set_mode(1);
    command_set_zoom_motion_active(1);
    adjustments(5);
    EXPECT_TRUE(g_drives.empty());
    command_set_zoom_motion_active(0);
    adjustments(2);
    EXPECT_FALSE(g_drives.empty());
}

TEST_F(IrisTest, StepTableAccessClampsTheIndex) {
    iris_goto_step(20);
    ASSERT_EQ(g_drives.size(), 1u);
    EXPECT_EQ(g_drives.back(), iris_table_get(12));
    EXPECT_EQ(iris_table_get(12), 0);
    iris_goto_step(3);
    EXPECT_EQ(g_drives.back(), 1100);
    iris_use_ms41908_table();
    EXPECT_EQ(iris_table_get(0), 960);
    iris_table_set(99, 7);
    EXPECT_EQ(iris_table_get(12), 7);
}

TEST_F(IrisTest, PublishedStateLayout) {
    lens_set_positions(1500, 0);
    iris_publish_init();
    iris_set_mode(1);
    iris_drive_publish(777);
    std::ifstream f(root_.host("/dev/sm_af_iris_value"), std::ios::binary);
    std::string c((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(c.size(), 37u);
    auto u16 = [&](size_t at) {
        return static_cast<uint8_t>(c[at]) | (static_cast<uint8_t>(c[at + 1]) << 8);
    };
    EXPECT_EQ(u16(0), 1);
    EXPECT_EQ(u16(2), 777);
    EXPECT_EQ(u16(4), 1984);
    EXPECT_EQ(u16(6), 0);
    EXPECT_EQ(u16(8), 1500);
    EXPECT_EQ(u16(10), 1984);
    EXPECT_EQ(u16(10 + 2 * 12), 0);
    EXPECT_EQ(u16(10 + 2 * 5), 900);
}

TEST_F(IrisTest, TableSurvivesASaveAndLoad) {
    iris_table_set(4, 1234);
    iris_table_save();
    iris_table_set(4, 1);
    iris_table_load();
    EXPECT_EQ(iris_table_get(4), 1234);
}

}  // namespace

// Automatic iris loop, step table and the published iris state.
#include <gtest/gtest.h>

#include <fstream>

#include "command/command_process.h"
#include "tests/lens_api/fake_devices.h"

namespace {

std::vector<uint16_t> g_drives;
uint32_t g_brightness = 225;

class IrisTest : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        ops_ = lens_ops();
        ops_.iris_drive = [](uint16_t v) { g_drives.push_back(v); };
        lens_set_ops_for_testing(&ops_);
        iris_set_brightness_source([] { return g_brightness; });
        command_set_zoom_motion_active(0);
        command_set_calibration_mode(0);
        g_drives.clear();
    }
    void TearDown() override {
        iris_set_brightness_source(nullptr);
        Rig::TearDown();
    }
    // Starts from iris value `from` with the image at brightness `b`.
    static void start(uint16_t from, uint32_t b) {
        iris_set(from);
        g_drives.clear();
        g_brightness = b;
    }
    // Automatic steps until the loop has adjusted `n` more times (it works every second call).
    static void adjustments(int n) {
        for (int i = 0; i < 2 * n; ++i)
            auto_iris_step();
    }
    LensDriverOps ops_{};
};

TEST_F(IrisTest, DarkImageOpensByWholeStepsUpToTheChipsLargestValue) {
    start(1000, 150);
    adjustments(1);  // measures: step (230 - 150) / 10 = 8, opening
    EXPECT_TRUE(g_drives.empty()) << "the first evaluation only arms the loop";
    adjustments(1);
    EXPECT_EQ(g_drives, std::vector<uint16_t>{1008});
    EXPECT_EQ(iris_get_value(), 1008);
    start(1200, 150);
    adjustments(1);
    EXPECT_EQ(g_drives, std::vector<uint16_t>{1216}) << "double steps above step 3";
    adjustments(200);
    EXPECT_EQ(iris_get_value(), 2300u) << "the LC898201's largest value";
}

TEST_F(IrisTest, BrightImageClosesByHalfStepsNearTheClosedEndAndStopsAtStep8) {
    start(650, 300);
    adjustments(2);  // step (300 - 250) / 5 = 10, halved this close to step 8
    EXPECT_EQ(g_drives, std::vector<uint16_t>{645});
    adjustments(40);
    EXPECT_EQ(iris_get_value(), iris_table_get(8));
}

TEST_F(IrisTest, BrightnessInsideTheBandLeavesTheIrisAlone) {
    start(900, 200);
    for (uint32_t b : {200u, 225u, 250u}) {
        g_brightness = b;
        adjustments(5);
    }
    EXPECT_TRUE(g_drives.empty());
}

TEST_F(IrisTest, LoopSettlesAfterTenAdjustmentsBackInBand) {
    start(1000, 150);
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
    start(1000, 100);
    iris_set_mode(0);
    adjustments(5);
    iris_set_mode(1);
    command_set_zoom_motion_active(1);
    adjustments(5);
    EXPECT_TRUE(g_drives.empty());
    command_set_zoom_motion_active(0);
    adjustments(2);
    EXPECT_FALSE(g_drives.empty());
}

TEST_F(IrisTest, StepIndicesAbove12CountAs12) {
    iris_table_set(99, 7);
    EXPECT_EQ(iris_table_get(12), 7);
    iris_goto_step(20);
    iris_goto_step(3);
    EXPECT_EQ(g_drives, (std::vector<uint16_t>{7, iris_table_get(3)}));
}

TEST_F(IrisTest, PublishedStateLayout) {
    lens_set_positions(1500, 0);
    iris_table_set(0, 1984);
    iris_table_set(5, 900);
    iris_table_set(12, 3);
    iris_publish_init();
    iris_set_mode(1);
    iris_drive_publish(777);
    std::ifstream f(root.host("/dev/sm_af_iris_value"), std::ios::binary);
    std::string c((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(c.size(), 37u);
    auto u16 = [&](size_t at) {
        return static_cast<uint8_t>(c[at]) | (static_cast<uint8_t>(c[at + 1]) << 8);
    };
    // Mode, driven value, most open and most closed step, zoom, then the thirteen steps.
    const int want[][2] = {{0, 1},    {2, 777},   {4, 1984},         {6, 3},
                           {8, 1500}, {10, 1984}, {10 + 2 * 5, 900}, {10 + 2 * 12, 3}};
    for (const auto& w : want)
        EXPECT_EQ(u16(w[0]), w[1]) << "offset " << w[0];
}

}  // namespace

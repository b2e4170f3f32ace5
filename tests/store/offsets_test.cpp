// Version file and calibration-offset file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_position.h"
#include "store/lens_data.h"
#include "store/offsets.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::capture_stdout;

class OffsetsTest : public ::testing::Test {
  protected:
    void SetUp() override { lc_reset_for_testing(); }
    void TearDown() override {
        lc_reset_for_testing();
        capture_stdout([] {
            lens_set_focus_backlash(2);
            lens_set_zoom_backlash(1);
        });
    }
    void put(const char* abs, const std::string& text) {
        const std::string path = root.host(abs);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << text;
    }
    std::string get(const char* abs) {
        std::ifstream f(root.host(abs), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }

    testsupport::SandboxRoot root;
};

TEST_F(OffsetsTest, VersionFileIsWrittenAndChecked) {
    EXPECT_EQ(version_check(), -1) << "no file yet";
    ASSERT_EQ(version_write(), 0);
    EXPECT_EQ(get(kVersionFilePath), "AF: [20.4.27]");
    EXPECT_EQ(version_check(), 1);
    const struct {
        std::string text;
        int expect;
    } cases[] = {
        {"AF: [20.4.027]", 1},  // numbers are read like atoi
        {"AF: [20.4.07]", 0},   // the third number is 27, not 7
        {"AF: [20.4.28]", 0},  {"AF: [20.4", 0}, {"garbage", 0},
    };
    for (const auto& c : cases) {
        put(kVersionFilePath, c.text);
        EXPECT_EQ(version_check(), c.expect) << c.text;
    }
}

TEST_F(OffsetsTest, LoadAppliesInRangeValuesAndDefaultsTheRest) {
    capture_stdout([] { lens_set_zoom_backlash(7); });
    EXPECT_EQ(capture_stdout([] { lens_load_offsets(); }), "");
    EXPECT_EQ(lens_get_zoom_backlash(), 7) << "a missing file changes nothing";
    put(kOffsetFilePath,
        "FOCUS_OFFSET = 40\nZOOM_OFFSET = 5\nIRIS_OFFSET = 241\nBIAS_OFFSET = 80\n"
        "ZOOM_GAIN = 150\nFOCUS_GAIN = 300\nCURVE_OFFSET = 1\nHALL_VERSION = 1\n");
    capture_stdout([] { lens_load_offsets(); });
    EXPECT_EQ(lens_get_focus_backlash(), 2) << "40 is not below 31";
    EXPECT_EQ(lens_get_zoom_backlash(), 5);
    const LcSettings lc = lc_get_settings();
    EXPECT_EQ(lc.iris_offset, 176) << "241 is outside 64..240";
    EXPECT_EQ(lc.bias_offset, 80);
    EXPECT_EQ(lc.zoom_gain, 150);
    EXPECT_EQ(lc.focus_gain, 204) << "300 does not fit a byte";
    EXPECT_EQ(offset_curve_form(), 1);
    EXPECT_EQ(offset_hall_version(), 1);
    EXPECT_EQ(offset_iris_drive(), 49139);
}

// Saving a key moves its line to the end (so a key never appears twice) and drops empty lines;
// a save that would outgrow what is read back, or of an unknown key, leaves the file.
TEST_F(OffsetsTest, SaveRewritesTheKeyLine) {
    const std::string full = std::string(190, 'x') + "\n";
    const struct {
        const char* before;  // nullptr: no file
        std::function<void()> save;
        std::string after;
    } cases[] = {
        {"ZOOM_OFFSET = 1\nFOCUS_OFFSET = 2\n", [] { offset_save(kOffsetZoom, 3); },
         "FOCUS_OFFSET = 2\nZOOM_OFFSET = 3\n"},
        {"A = 1\nIRIS_OFFSET = 9\n\n\nB = 2\n",
         [] {
             offset_save(kOffsetIris, 150);
             offset_save(kOffsetHallVersion, 1);
             offset_save(kOffsetIris, 151);
         },
         "A = 1\nB = 2\nHALL_VERSION = 1\nIRIS_OFFSET = 151\n"},
        {nullptr, [] { offset_save(kOffsetZoom2, 4); }, "ZOOM2_OFFSET = 4\n"},
        {"FOCUS_OFFSET = 2", [] { offset_save(kOffsetBias, 64); },
         "FOCUS_OFFSET = 2\nBIAS_OFFSET = 64\n"},
        {"FOCUS_OFFSET = 2\n", [] { offset_save(5, 9); }, "FOCUS_OFFSET = 2\n"},
        {full.c_str(), [] { offset_save(kOffsetZoom, 3); }, full},
        {nullptr,
         [] {
             offset_save_by_key("IRIS_OFFSET =", 131);
             offset_save_by_key("BIAS_OFFSET =", 64);
             offset_save_by_key("CURVE_OFFSET =", 1);  // never written by the daemon
         },
         "IRIS_OFFSET = 131\nBIAS_OFFSET = 64\n"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(root.host(kOffsetFilePath));
        if (c.before != nullptr)
            put(kOffsetFilePath, c.before);
        capture_stdout(c.save);
        EXPECT_EQ(get(kOffsetFilePath), c.after) << (c.before != nullptr ? c.before : "(none)");
    }
    capture_stdout([] { lens_load_offsets(); });
    EXPECT_EQ(lc_get_settings().iris_offset, 131) << "a saved key loads back";
}

}  // namespace

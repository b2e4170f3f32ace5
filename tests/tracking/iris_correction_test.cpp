// Iris correction on the fake chips, with the scene brightness served by a scripted ISP service
// (the exposure record's brightness over gain is what the correction reads) and computed from
// where the iris stands: a synthetic iris whose light falls as the value closes.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "base/command_state.h"
#include "isp/isp_link.h"
#include "lens_api/lens_driver.h"
#include "platform/ports.h"
#include "tests/isp/isp_peer.h"
#include "tests/lens_api/fake_devices.h"
#include "tracking/calibration.h"

namespace {

using testsupport::capture_stdout;

// Brightness of each F-number step in 1/1024 of the open brightness (steps 2..11 are measured).
constexpr uint32_t kFraction[13] = {1024, 1024, 576, 423, 287, 207, 143, 102, 72, 51, 36, 31, 15};
constexpr uint32_t kOpenLuma = 200;
constexpr uint16_t kStartValue = 700;

std::string file_text(const std::string& host_path) {
    std::ifstream f(host_path);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

class IrisCorrectionRig : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        setenv("AFD_ISP_ADDR", "127.0.0.1", 1);
        setenv("AFD_ISP_PORT", std::to_string(peer_.port()).c_str(), 1);
        platform::reload_ports();
        capture_stdout([] { ASSERT_EQ(socket_to_soc_init(), 0); });
        calibration_reset_for_testing();
        command_set_status_text("");
        mkdir(root.host("/data").c_str(), 0777);
    }
    void TearDown() override {
        isp_link_reset_for_testing();
        unsetenv("AFD_ISP_PORT");
        unsetenv("AFD_ISP_ADDR");
        platform::reload_ports();
        calibration_reset_for_testing();
        command_set_calibration_mode(0);
        Rig::TearDown();
    }
    // The unit before the correction: automatic iris at some value, a table with marked ends.
    void unit_in_service() {
        iris_set_mode(1);
        iris_drive_publish(kStartValue);
        iris_table_set(0, static_cast<uint16_t>(iris_table_get(0) - 1));
        iris_table_set(1, static_cast<uint16_t>(iris_table_get(1) - 1));
        for (uint8_t k = 0; k < 13; ++k)
            table_before_.push_back(iris_table_get(k));
        command_set_calibration_mode(kCalibrationIris);
        iris_correct_step(0);  // as the command channel starts it
    }
    std::vector<uint16_t> table() const {
        std::vector<uint16_t> t;
        for (uint8_t k = 0; k < 13; ++k)
            t.push_back(iris_table_get(k));
        return t;
    }
    // One correction step as the frame loop runs it every tenth frame, on the brightness the
    // scene shows for the iris as it stands. -1 once the mode is no longer 4.
    int step() {
        peer_.set_exposure(static_cast<float>(scene(iris_get_value())), 0.01f, 1.0f);  // x 100
        EXPECT_EQ(isp_read_exposure(), 0);
        calibration_supervise(1);
        if (command_calibration_mode() != kCalibrationIris)
            return -1;
        const int r = iris_correct_step(1);
        if (drives_.empty() || drives_.back() != iris_get_value())
            drives_.push_back(iris_get_value());
        return r;
    }
    int run_until(const std::function<bool()>& stop = [] { return false; }) {
        int r = 0;
        for (int i = 0; i < 40000 && r == 0 && !stop(); ++i)
            r = step();
        return r;
    }
    // The table the rule gives for the iris values of the last pass (from its open drive to the
    // drive after the end): each step takes the first value whose brightness is below its
    // fraction of the open one, one step per value.
    std::vector<uint16_t> expected_table(uint16_t open) const {
        size_t from = drives_.size() - 1;
        while (from > 0 && drives_[from - 1] != open)
            --from;
        std::vector<uint16_t> t = table_before_;
        const uint32_t reference = scene(open) * 100;
        uint8_t k = 2;
        for (size_t i = from; i + 1 < drives_.size() && k <= 11; ++i)
            if (kFraction[k] * reference / 1024 > scene(drives_[i]) * 100)
                t[k++] = drives_[i];
        t[12] = 0;
        return t;
    }

    std::function<uint32_t(uint16_t value)> scene = [](uint16_t) { return kOpenLuma; };
    std::vector<uint16_t> drives_;  // iris values in the order the iris stood at them
    std::vector<uint16_t> table_before_;
    isptest::IspPeer peer_;
};

// ---- LC898201 ----

class IrisCorrectionLc : public IrisCorrectionRig {
  protected:
    void SetUp() override {
        IrisCorrectionRig::SetUp();
        lc_set_iris_offset(176);
        lc_set_bias_offset(64);
        unit_in_service();
        board.clear();
    }
    std::vector<int> bias_writes() {
        std::vector<int> b;
        for (const auto& w : chip.writes(0x007C))
            b.push_back(static_cast<int>(w.second));
        return b;
    }
    lensfake::LcChip chip{board};
};

// An iris whose light falls within 300 values below a knee; a higher Hall bias moves the knee
// down by 300 a step of 5. At bias 64..74 step 11 is reached above 501, at 79 below.
TEST_F(IrisCorrectionLc, RaisesTheBiasUntilTheRangeSpreadsThenSavesTableAndOffsets) {
    scene = [this](uint16_t v) {
        const int knee = 1500 - (chip.reg8[0x007C] - 64) * 60;
        const int t = std::min(300, std::max(0, v - (knee - 300)));
        return static_cast<uint32_t>(kOpenLuma * t / 300);
    };
    int result = 0;
    capture_stdout([&] { result = run_until(); });
    ASSERT_EQ(result, 1);
    EXPECT_EQ(bias_writes(), (std::vector<int>{69, 74, 79}));
    EXPECT_EQ(table(), expected_table(2048));
    EXPECT_LT(table()[11], 501);
    EXPECT_EQ(command_calibration_mode(), 0);
    EXPECT_STREQ(command_status_text(), "Iris_Correction Done!\n");
    EXPECT_EQ(iris_get_value(), 2048);
    EXPECT_EQ(iris_get_mode(), 0) << "the iris stays fixed";

    std::string lines;
    for (uint16_t v : table())
        lines += std::to_string(v) + "\n";
    EXPECT_EQ(file_text(root.host("/data/iris_data.dat")), lines);
    const std::string offsets = file_text(root.host("/data/af_data.dat"));
    for (const char* line : {"IRIS_OFFSET = 176\n", "BIAS_OFFSET = 79\n", "HALL_VERSION = 1\n"})
        EXPECT_NE(offsets.find(line), std::string::npos) << line << offsets;
    EXPECT_EQ(lc_get_settings().bias_offset, 79);
}

// A scene that never darkens: each pass closes the iris to its end, the bias is lowered by 5
// down to 37, then the run fails and the unit keeps what it had.
TEST_F(IrisCorrectionLc, BrightnessThatNeverFallsLowersTheBiasThenFails) {
    int result = 0;
    capture_stdout([&] { result = run_until(); });
    EXPECT_EQ(result, 2);
    EXPECT_EQ(bias_writes(), (std::vector<int>{59, 54, 49, 44, 39, 34, 64}))
        << "lowered by 5 while above 37, then put back";
    const int last = 2048 % 5;  // the first value below 6 closing by 5 from 2048
    EXPECT_EQ(std::string(command_status_text()),
              "Iris_Correction Fail! num = 2,F_data = " + std::to_string(last) + "\n");
    EXPECT_EQ(command_calibration_mode(), 0);
    EXPECT_EQ(table(), table_before_);
    EXPECT_EQ(lc_get_settings().bias_offset, 64);
    EXPECT_EQ(iris_get_mode(), 1);
    EXPECT_EQ(iris_get_value(), kStartValue);
    EXPECT_FALSE(std::ifstream(root.host("/data/iris_data.dat")).good());
    EXPECT_FALSE(std::ifstream(root.host("/data/af_data.dat")).good());
}

// Whatever ends a run before its end, the unit keeps its table, bias, iris mode and position.
// The scene is the one above: the first pass measures every step, then the bias is raised.
TEST_F(IrisCorrectionLc, InterruptedRunsLeaveTheOldTableBiasAndIris) {
    scene = [this](uint16_t v) {
        const int t = std::min(300, std::max(0, v - (1200 - (chip.reg8[0x007C] - 64) * 60)));
        return static_cast<uint32_t>(kOpenLuma * t / 300);
    };
    const struct {
        const char* what;
        std::function<void()> interrupt;
        uint8_t mode_after;
    } cases[] = {
        {"stopped by the command channel", [] { command_set_calibration_mode(0); }, 0},
        {"ISP link lost", [] { calibration_supervise(0); }, 0},
        {"lens re-homed", [] { lens_motor_rehome(); }, 0},
        {"started again", [] { iris_correct_step(0); }, kCalibrationIris},
    };
    for (const auto& c : cases) {
        calibration_reset_for_testing();
        command_set_calibration_mode(kCalibrationIris);
        iris_correct_step(0);
        drives_.clear();
        // Into the second pass, after the bias was raised once.
        capture_stdout([&] {
            run_until([&] { return chip.reg8[0x007C] == 69 && iris_get_value() < 1500; });
            c.interrupt();
            step();
        });
        const bool restarted = command_calibration_mode() == kCalibrationIris;
        EXPECT_EQ(command_calibration_mode(), c.mode_after) << c.what;
        EXPECT_EQ(chip.reg8[0x007C], 64) << c.what;
        EXPECT_EQ(lc_get_settings().bias_offset, 64) << c.what;
        EXPECT_EQ(table(), table_before_) << c.what;
        EXPECT_EQ(iris_get_mode(), restarted ? 0 : 1) << c.what;
        EXPECT_EQ(iris_get_value(), restarted ? 2048 : kStartValue)
            << c.what << (restarted ? ": opened for the new run" : "");
        EXPECT_STREQ(command_status_text(), "") << c.what;
        EXPECT_FALSE(std::ifstream(root.host("/data/iris_data.dat")).good()) << c.what;
        EXPECT_FALSE(std::ifstream(root.host("/data/af_data.dat")).good()) << c.what;
        iris_set_mode(1);
        iris_drive_publish(kStartValue);
    }
}

// ---- MS41908 ----

class IrisCorrectionMs : public IrisCorrectionRig {
  protected:
    void SetUp() override {
        IrisCorrectionRig::SetUp();
        capture_stdout([] {
            gpio_load_pins();
            lens_detect_chip();
            ms_init_regs();
        });
        ASSERT_EQ(lens_is_ms41908(), 1);
        unit_in_service();
    }
    lensfake::MsChip chip{board};
};

TEST_F(IrisCorrectionMs, ClosesBy5ThenBy2Below501AndRecordsEachStep) {
    scene = [](uint16_t v) { return static_cast<uint32_t>(v); };  // light in proportion
    int result = 0;
    capture_stdout([&] { result = run_until(); });
    ASSERT_EQ(result, 1);
    ASSERT_GE(drives_.size(), 3u);
    ASSERT_EQ(drives_[0], 1023) << "opened fully first";
    for (size_t i = 1; i + 1 < drives_.size(); ++i)
        EXPECT_EQ(drives_[i - 1] - drives_[i], drives_[i - 1] < 501 ? 2 : 5) << drives_[i - 1];
    EXPECT_LT(drives_[drives_.size() - 2], 501) << "the run went on below 501";
    EXPECT_EQ(table(), expected_table(1023));
    EXPECT_EQ(iris_get_value(), 960);
    EXPECT_STREQ(command_status_text(), "Iris_Correction Done!\n");
    EXPECT_EQ(file_text(root.host("/data/af_data.dat")), "") << "no Hall servo on this chip";
}

// The MS41908 has no bias to move: a scene that never darkens closes the iris to 0, not past it,
// and the run reports the step it could not reach.
TEST_F(IrisCorrectionMs, IrisThatReaches0BeforeStep11StopsThereAndFails) {
    int result = 0;
    capture_stdout([&] { result = run_until(); });
    EXPECT_EQ(result, 2);
    const std::vector<uint16_t> closing(drives_.begin(), drives_.end() - 1);  // then put back
    EXPECT_EQ(closing.back(), 0);
    EXPECT_TRUE(std::is_sorted(closing.rbegin(), closing.rend())) << "never wrapped round";
    EXPECT_STREQ(command_status_text(), "Iris_Correction Fail! num = 2,F_data = 0\n");
    EXPECT_EQ(table(), table_before_);
    EXPECT_EQ(iris_get_value(), kStartValue);
    EXPECT_EQ(iris_get_mode(), 1);
}

}  // namespace

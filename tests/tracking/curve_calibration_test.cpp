// Curve calibration end to end, frame by frame as the frame loop runs it, on a lens model: the
// focus gear has a known play (the lens follows the motor only once the slack is taken up), and
// the target in front of the camera is sharpest on this unit's curve, which lies 40 steps above
// the factory shape. The LC898201's Hall servo is the register-level fake chip.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "base/command_state.h"
#include "data/lens_tables.h"
#include "isp/highlight.h"
#include "lens_api/lens_driver.h"
#include "store/lens_data.h"
#include "tests/isp/stat_frame.h"
#include "tests/lens_api/fake_devices.h"
#include "tracking/calibration.h"
#include "tracking/curves.h"
#include "tracking/zoom_track.h"

namespace {

using afdata::kDefaultCurveShape;
using testsupport::capture_stdout;

constexpr int kUnitOffset = 40;

// The focus gear and the target.
struct LensModel {
    int play = 7;
    int motor = 0;  // focus motor position
    int lens = 0;   // where the focus lens really is: pushed up at motor - play, down at motor
    int first_climb_drag = 0;  // on the first climb the lens sticks this much longer
    bool went_down = false;
    std::function<int(int zoom)> peak = [](int zoom) {
        return kDefaultCurveShape[std::min(zoom / 32, kCurvePoints - 1)] + kUnitOffset;
    };
    uint32_t sharpness(int zoom) const {
        const int d = std::abs(lens - peak(zoom));
        return static_cast<uint32_t>(std::max(60, 8000 - 40 * d));
    }
};
LensModel* g_model = nullptr;

void model_move(uint8_t, uint8_t, uint8_t focus_dir, uint8_t focus_steps) {
    LensModel& m = *g_model;
    if (focus_steps == 0)
        return;
    if (focus_dir == 1) {
        m.motor += focus_steps;
        m.lens = std::max(m.lens, m.motor - m.play - (m.went_down ? 0 : m.first_climb_drag));
    } else {
        m.motor -= focus_steps;
        m.went_down = true;
        m.lens = std::min(m.lens, m.motor);
    }
}
uint32_t model_home_focus() {
    g_model->motor = g_model->lens = 2400;  // the home sensor's edge, reached going down
    return kHomeOk;
}

std::string file_text(const std::string& host_path) {
    struct stat st;
    if (stat(host_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return "(no file)";
    std::ifstream f(host_path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}
std::vector<uint16_t> curve_file(const std::string& host_path) {
    const std::string b = file_text(host_path);
    std::vector<uint16_t> v(b.size() / 2);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = static_cast<uint16_t>(uint8_t(b[2 * i]) | (uint8_t(b[2 * i + 1]) << 8));
    return v;
}

// A Hall reading that rises with offset and bias and reaches the window at bias 64.
uint32_t hall_bits(int offset, int bias) {
    const float f = 0.986f + float(offset - 90) * 0.0006f + float(bias - 64) * 0.005f;
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

class CurveCalibrationTest : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        reset();
    }
    void TearDown() override {
        lens_set_ops_for_testing(nullptr);
        calibration_reset_for_testing();
        command_set_calibration_mode(0);
        g_model = nullptr;
        Rig::TearDown();
    }
    // A calibrated unit: a full-form curve file, offsets, the Hall values on the chip.
    void reset() {
        model_ = LensModel{};
        g_model = &model_;
        ops_ = kLc898201Ops;
        ops_.init_regs = ops_.sensor_power_on = ops_.sensor_power_off = [] {};
        ops_.zoom_home = [] { return kHomeOk; };
        ops_.focus_home = model_home_focus;
        ops_.move_both = model_move;
        lens_set_ops_for_testing(&ops_);
        calibration_reset_for_testing();
        zoom_track_reset_for_testing();
        highlight_reset_for_testing();
        command_set_autofocus_mode(0);
        command_set_status_text("");
        chip.hall = hall_bits;
        mkdir(root.host("/data").c_str(), 0777);
        std::vector<uint16_t> old(kCurvePoints);
        for (int s = 0; s < kCurvePoints; ++s)
            old[s] = static_cast<uint16_t>(kDefaultCurveShape[s] - 19);
        old[kCurvePoints - 1] = kCurveFullForm;
        ASSERT_EQ(curve_file_write(old.data(), kCurvePoints), 1);
        std::ofstream(root.host("/data/af_data.dat")) << "FOCUS_OFFSET = 3\nIRIS_OFFSET = 150\n"
                                                         "BIAS_OFFSET = 70\n";
        capture_stdout([] {
            curve_load();
            lens_load_offsets();  // as the command channel does before a calibration
        });
        lc_set_iris_offset(150);
        lc_set_bias_offset(70);
        lens_set_positions(6378, 3000);
        lens_clear_directions();
        model_.motor = model_.lens = 3000;
        before_ = snapshot();
    }

    // What a run may change: the curve and bounds in memory, backlash, Hall values, files.
    struct Snapshot {
        std::vector<uint16_t> curve, lower, upper;
        uint16_t backlash;
        int iris_offset, bias_offset, chip_offset, chip_bias;
        std::string curve_file, offsets_file;
        bool operator==(const Snapshot&) const = default;
    };
    Snapshot snapshot() {
        Snapshot s{};
        for (uint16_t i = 0; i < kCurvePoints; ++i) {
            s.curve.push_back(curve_get_point(i));
            s.lower.push_back(curve_get_lower_bound(i));
            s.upper.push_back(curve_get_upper_bound(i));
        }
        s.backlash = lens_get_focus_backlash();
        s.iris_offset = lc_get_settings().iris_offset;
        s.bias_offset = lc_get_settings().bias_offset;
        s.chip_offset = chip.reg8[0x0079];
        s.chip_bias = chip.reg8[0x007C];
        s.curve_file = file_text(root.host("/data/curve.dat"));
        s.offsets_file = file_text(root.host("/data/af_data.dat"));
        return s;
    }

    // One processed frame as the frame loop runs it in calibration mode 1: supervision, the
    // centre statistics of what the lens shows now, one step. -1 when the mode is no longer 1.
    int frame() {
        calibration_supervise(1);
        if (command_calibration_mode() != kCalibrationCurve)
            return -1;
        const uint32_t s = model_.sharpness(lens_get_zoom_pos());
        for (int r = 7; r < 10; ++r)
            for (int c = 7; c < 10; ++c)
                stats_.sharp(r, c, s);
        af_stat_fetch_from(stats_.data(), 0);
        return curve_calibrate_step();
    }
    // Starts a run and steps it until `stop` holds or it ends; returns the last step's result.
    int run(
        uint8_t full, const std::function<bool()>& stop = [] { return false; }) {
        curve_calibration_set_variant(full);
        command_set_calibration_mode(kCalibrationCurve);
        int r = 1;
        for (int i = 0; i < 100000 && r == 1 && !stop(); ++i)
            r = frame();
        return r;
    }
    static bool scanning(uint8_t point) {
        const CurveCalibrationProgress p = curve_calibration_progress();
        return p.state == 3 && p.point == point;
    }
    int sharp_focus_at(int zoom) const { return model_.peak(zoom); }

    lensfake::LcChip chip{board};
    LensModel model_;
    LensDriverOps ops_{};
    isptest::StatFrame stats_;
    Snapshot before_;
};

// ---- Completed runs ----

TEST_F(CurveCalibrationTest, ReferencePointFormMeasuresStepZeroAndCommitsTheUnitsValues) {
    const uint16_t fmax = lens_get_focus_max();
    std::vector<uint16_t> scan_zooms;
    CurveCalibrationProgress first_scan{};
    int result = 0;
    const std::string out = capture_stdout([&] {
        result = run(0, [&] {
            const CurveCalibrationProgress p = curve_calibration_progress();
            if (p.state == 3 && scan_zooms.empty())
                first_scan = p;
            if (p.state == 3)
                scan_zooms.push_back(lens_get_zoom_pos());
            return false;
        });
    });
    ASSERT_EQ(result, 2);
    EXPECT_EQ(command_calibration_mode(), 0);
    EXPECT_NE(out.find("Track curve Success"), std::string::npos);

    EXPECT_EQ(first_scan.scan_start, fmax - 500);
    EXPECT_EQ(first_scan.scan_end, fmax);
    EXPECT_EQ(std::count(scan_zooms.begin(), scan_zooms.end(), 0), int(scan_zooms.size()))
        << "only zoom step 0 is scanned";

    // The file: the measured reference, no stray values where packed Hall values could sit.
    const int r0 = sharp_focus_at(0);
    std::vector<uint16_t> want(kCurvePoints, 0);
    want[0] = static_cast<uint16_t>(r0);
    want[kCurvePoints - 1] = 0xAA55;
    EXPECT_EQ(curve_file(root.host("/data/curve.dat")), want);

    // In memory: the factory shape moved to the measured reference, and the search bounds.
    for (uint16_t s : {0, 1, 50, 150, 207}) {
        const int base = s == 0 ? r0 : std::min<int>(kDefaultCurveShape[s] + kUnitOffset, fmax);
        EXPECT_EQ(curve_get_point(s), base) << s;
        EXPECT_EQ(curve_get_lower_bound(s), base) << s;
        EXPECT_EQ(curve_get_upper_bound(s), base + afdata::kFarCurveOffsets[50][s]) << s;
    }
    EXPECT_EQ(curve_get_anchor_focus(), r0);

    // Offsets: the measured play, and the Hall values the calibration left on the chip.
    EXPECT_EQ(lens_get_focus_backlash(), model_.play);
    const std::string offsets = file_text(root.host("/data/af_data.dat"));
    for (const std::string& line :
         {"FOCUS_OFFSET = " + std::to_string(model_.play),
          "IRIS_OFFSET = " + std::to_string(chip.reg8[0x0079]),
          "BIAS_OFFSET = " + std::to_string(chip.reg8[0x007C]), std::string("HALL_VERSION = 1")})
        EXPECT_NE(offsets.find(line + "\n"), std::string::npos) << line << " in\n" << offsets;
    EXPECT_EQ(lc_get_settings().iris_offset, chip.reg8[0x0079]);
    EXPECT_STREQ(command_status_text(), "");

    EXPECT_EQ(lens_get_focus_pos(), r0) << "back at the best focus";
}

TEST_F(CurveCalibrationTest, FullFormScansEveryZoomStep32StepsApart) {
    std::vector<int> zoom_of_point(kCurvePoints, -1);
    int result = 0;
    capture_stdout([&] {
        result = run(1, [&] {
            const CurveCalibrationProgress p = curve_calibration_progress();
            if (p.state == 3)
                zoom_of_point[p.point] = lens_get_zoom_pos();
            return false;
        });
    });
    ASSERT_EQ(result, 2);
    const std::vector<uint16_t> file = curve_file(root.host("/data/curve.dat"));
    ASSERT_EQ(file.size(), size_t(kCurvePoints));
    for (int i = 0; i < kCurvePoints - 1; ++i) {
        EXPECT_EQ(zoom_of_point[i], 32 * i) << i;
        EXPECT_EQ(file[i], sharp_focus_at(32 * i)) << i;
    }
    EXPECT_EQ(zoom_of_point[kCurvePoints - 1], kZoomTravelLimit) << "step 208 lies past the travel";
    EXPECT_EQ(file[kCurvePoints - 1], 0xAA44);
    // The measured points take effect at the next load; now the curve follows step 0.
    EXPECT_EQ(curve_get_point(100), kDefaultCurveShape[100] + kUnitOffset);
}

// The play is the distance between the peaks seen going up and going down.
TEST_F(CurveCalibrationTest, BacklashIsThePlayBetweenTheUpAndDownPeaks) {
    const struct {
        const char* what;
        int play, first_climb_drag, expected;
    } cases[] = {
        {"plain", 7, 0, 7},
        {"a first climb on a sticking gear is not used", 7, 60, 7},
        {"the cap itself is kept", 30, 0, 30},
        {"more play than a gear should have is capped", 31, 0, 30},
    };
    for (const auto& c : cases) {
        reset();
        model_.play = c.play;
        model_.first_climb_drag = c.first_climb_drag;
        capture_stdout([&] { ASSERT_EQ(run(0), 2) << c.what; });
        EXPECT_EQ(lens_get_focus_backlash(), c.expected) << c.what;
        EXPECT_NE(file_text(root.host("/data/af_data.dat"))
                      .find("FOCUS_OFFSET = " + std::to_string(c.expected) + "\n"),
                  std::string::npos)
            << c.what;
    }
}

// The scan after step 0 runs from 25 below the factory curve's fall to 10 above the last best;
// a target out of its reach is not searched for beyond it: the best seen is what is recorded.
TEST_F(CurveCalibrationTest, ScanWindowFollowsTheFactoryCurveAndEndsAtItsEnd) {
    const auto factory = model_.peak;
    // At zoom step 1 the target's sharpest position lies above the window.
    model_.peak = [factory](int zoom) { return zoom == 32 ? factory(0) + 80 : factory(zoom); };
    int lowest = 1 << 20, highest = 0;
    capture_stdout([&] {
        run(1, [&] {
            if (scanning(1)) {
                lowest = std::min<int>(lowest, lens_get_focus_pos());
                highest = std::max<int>(highest, lens_get_focus_pos());
            }
            return curve_calibration_progress().point == 2;
        });
    });
    const int best0 = sharp_focus_at(0);
    EXPECT_EQ(lowest, best0 - 37);
    EXPECT_EQ(lens_get_focus_pos(), best0 + 10) << "the scan ran to its end";
    EXPECT_EQ(highest, best0 + 9) << "the last frame read is the one before the end";
    const int fall = kDefaultCurveShape[1] - kDefaultCurveShape[2];
    EXPECT_EQ(curve_calibration_progress().scan_start, (best0 + 9) - (fall + 25))
        << "step 1 recorded the sharpest position seen, one below the end";
}

TEST_F(CurveCalibrationTest, FailedHallCalibrationIsReportedButTheCurveIsSaved) {
    chip.hall = [](int, int) { return hall_bits(400, 64); };  // never in the window
    capture_stdout([&] { ASSERT_EQ(run(0), 2); });
    EXPECT_STREQ(command_status_text(), "Hall init fail!\n");
    EXPECT_EQ(curve_file(root.host("/data/curve.dat"))[0], sharp_focus_at(0));
    const std::string offsets = file_text(root.host("/data/af_data.dat"));
    EXPECT_NE(offsets.find("IRIS_OFFSET = 150\n"), std::string::npos) << offsets;
    EXPECT_NE(offsets.find("BIAS_OFFSET = 70\n"), std::string::npos) << offsets;
    EXPECT_EQ(offsets.find("HALL_VERSION"), std::string::npos) << offsets;
    EXPECT_EQ(chip.reg8[0x0079], 150) << "the servo keeps the Hall values in force";
    EXPECT_EQ(chip.reg8[0x007C], 70);
}

// ---- Interrupted runs ----

// A run that does not complete leaves the unit as it was, in memory and on flash, whatever ends
// it and whenever; a new request starts from the beginning.
TEST_F(CurveCalibrationTest, InterruptedRunsLeaveTheOldCurveOffsetsAndFiles) {
    // Mid-scan of step 1: step 0 is measured and the backlash is the measured one.
    const auto mid_scan = [] { return scanning(1) && curve_calibration_progress().best_focus; };
    const auto to_the_end = [] { return false; };
    const auto nothing = [] {};
    const struct {
        const char* what;
        std::function<void()> prepare;
        std::function<bool()> until;
        std::function<void()> interrupt;
        uint8_t mode_after;
    } cases[] = {
        {"stopped by the command channel", nothing, mid_scan,
         [] { command_set_calibration_mode(0); }, 0},
        {"another calibration requested", nothing, mid_scan,
         [] { command_set_calibration_mode(kCalibrationIris); }, kCalibrationIris},
        {"lens re-homed", nothing, mid_scan, [] { lens_motor_rehome(); }, 0},
        {"ISP link lost", nothing, mid_scan, [] { calibration_supervise(0); }, 0},
        {"stopped during the Hall calibration at the finish",
         [this] {
             chip.hall = [](int off, int bias) {
                 command_set_calibration_mode(0);
                 return hall_bits(off, bias);
             };
         },
         to_the_end, nothing, 0},
        {"curve file not written",
         [this] {
             std::remove(root.host("/data/curve.dat").c_str());
             mkdir(root.host("/data/curve.dat").c_str(), 0777);  // a save cannot replace it
             before_ = snapshot();
         },
         to_the_end, nothing, 0},
    };
    for (const auto& c : cases) {
        reset();
        c.prepare();
        capture_stdout([&] {
            run(1, c.until);
            c.interrupt();
            for (int i = 0; i < 5 && frame() != -1; ++i) {
            }
        });
        EXPECT_FALSE(curve_calibration_progress().active) << c.what;
        EXPECT_EQ(command_calibration_mode(), c.mode_after) << c.what;
        EXPECT_TRUE(snapshot() == before_) << c.what;
        EXPECT_EQ(lens_get_focus_backlash(), 3) << c.what;

        command_set_calibration_mode(kCalibrationCurve);
        capture_stdout([&] { frame(); });
        EXPECT_TRUE(curve_calibration_progress().active) << c.what;
        EXPECT_EQ(curve_calibration_progress().state, 0) << c.what << ": starts afresh";
    }
}

}  // namespace

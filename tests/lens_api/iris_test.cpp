// The iris module on the real chip drivers, against the fake chips: the value the automatic loop
// and the commands work from is the one the chip was driven to, what the loop drives from there,
// the MS41908's hold-off and step limits, the step table, and the iris state published for the
// camera's control software.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "base/command_state.h"
#include "tests/lens_api/fake_devices.h"

namespace {

using testsupport::capture_stdout;

uint32_t g_brightness = 225;

// The iris module with the brightness source, the command flags it reads, and its published
// device, over one of the two chips.
class IrisRig : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        iris_set_brightness_source([] { return g_brightness; });
        command_set_zoom_motion_active(0);
        command_set_calibration_mode(0);
        g_brightness = 225;
    }
    void TearDown() override {
        iris_set_brightness_source(nullptr);
        command_set_zoom_motion_active(0);
        command_set_calibration_mode(0);
        Rig::TearDown();
    }
    // Automatic steps until the loop has adjusted `n` more times (it works every second call).
    static void adjustments(int n) {
        for (int i = 0; i < 2 * n; ++i)
            auto_iris_step();
    }
    // Iris values driven since the board's log was last cleared, as the chip received them.
    virtual std::vector<uint16_t> drives() = 0;
    // One letter per automatic step: D when it drove the iris, . when not.
    std::string rhythm(int calls) {
        std::string s;
        for (int i = 0; i < calls; ++i) {
            board.clear();
            auto_iris_step();
            s += drives().empty() ? '.' : 'D';
        }
        return s;
    }
    // A 16-bit field of /dev/sm_af_iris_value.
    uint16_t published(size_t at) const {
        std::ifstream f(root.host("/dev/sm_af_iris_value"), std::ios::binary);
        const std::string c((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        EXPECT_GE(c.size(), at + 2);
        if (c.size() < at + 2)
            return 0xFFFF;
        return static_cast<uint16_t>(static_cast<uint8_t>(c[at]) |
                                     (static_cast<uint8_t>(c[at + 1]) << 8));
    }
};

// The LC898201: its Hall servo is told a float target in [-1, 1) for the iris values 0..2047.
class IrisLc : public IrisRig {
  protected:
    // Decoded from the servo target writes (values 2047..2300 all read back as 2047).
    std::vector<uint16_t> drives() override {
        std::vector<uint16_t> out;
        for (const auto& w : chip.writes32(0x1027)) {
            float f;
            std::memcpy(&f, &w.second, sizeof f);
            const float v = f <= 0.0f ? 1024.0f + f * 1024.0f : f * 1024.0f + 1023.5f;
            out.push_back(static_cast<uint16_t>(v + 0.25f));
        }
        return out;
    }
    // Starts from iris value `from` with the image at brightness `b`.
    void start(uint16_t from, uint32_t b) {
        iris_set(from);
        board.clear();
        g_brightness = b;
    }
    lensfake::LcChip chip{board};
};

// The MS41908, found on the bus as at start-up: its iris table, its iris register (1023 minus
// the value), one busy line for motors and iris.
class IrisMs : public IrisRig {
  protected:
    void SetUp() override {
        IrisRig::SetUp();
        capture_stdout([] {
            gpio_load_pins();
            lens_detect_chip();
            ms_init_regs();
        });
        ASSERT_EQ(lens_is_ms41908(), 1);
        board.clear();
    }
    std::vector<uint16_t> drives() override {
        std::vector<uint16_t> out;
        for (const auto& w : chip.writes())
            if (w.first == 0x00)
                out.push_back(static_cast<uint16_t>(1023 - w.second));
        return out;
    }
    void start(uint16_t from, uint32_t b) {
        iris_drive_publish(from);
        board.clear();
        g_brightness = b;
    }
    lensfake::MsChip chip{board};
};

// ---- The loop on the LC898201 ------------------------------------------------------------------

TEST_F(IrisLc, DarkImageOpensByWholeStepsUpToTheChipsLargestValue) {
    start(1000, 150);
    adjustments(1);  // measures: step (230 - 150) / 10 = 8, opening
    EXPECT_TRUE(drives().empty()) << "the first evaluation only arms the loop";
    adjustments(1);
    EXPECT_EQ(drives(), std::vector<uint16_t>{1008});
    EXPECT_EQ(iris_get_value(), 1008);
    start(1200, 150);
    adjustments(1);
    EXPECT_EQ(drives(), std::vector<uint16_t>{1216}) << "double steps above step 3";
    adjustments(200);
    EXPECT_EQ(iris_get_value(), 2300u) << "the LC898201's largest value";
}

TEST_F(IrisLc, BrightImageClosesByHalfStepsNearTheClosedEndAndStopsAtStep8) {
    start(650, 300);
    adjustments(2);  // step (300 - 250) / 5 = 10, halved this close to step 8
    EXPECT_EQ(drives(), std::vector<uint16_t>{645});
    adjustments(40);
    EXPECT_EQ(iris_get_value(), iris_table_get(8));
    EXPECT_EQ(drives().back(), iris_table_get(8));
}

TEST_F(IrisLc, BrightnessInsideTheBandLeavesTheIrisAlone) {
    start(900, 200);
    for (uint32_t b : {200u, 225u, 250u}) {
        g_brightness = b;
        adjustments(5);
    }
    EXPECT_TRUE(chip.writes().empty());
    EXPECT_TRUE(chip.writes32().empty());
}

TEST_F(IrisLc, LoopSettlesAfterTenAdjustmentsBackInBand) {
    start(1000, 150);
    adjustments(3);
    g_brightness = 240;  // above the opening target: inside the band
    adjustments(1);      // the step decided on the last dark frame is still taken
    const uint16_t v = iris_get_value();
    board.clear();
    adjustments(11);
    EXPECT_TRUE(drives().empty()) << "no adjustment once the brightness is back";
    EXPECT_EQ(iris_get_value(), v);
    g_brightness = 150;
    adjustments(2);
    EXPECT_EQ(drives().size(), 1u) << "idle again, so a new dark scene re-arms the loop";
}

// ---- The iris value is the value the chip was driven to ----------------------------------------

// Start-up drives the iris fully open; the loop must go on from there, not from the power-on 0:
// in a dark scene a fully open iris stays open instead of being driven down to step 8.
// The published value is what the chip holds: the request limited to the chip's range.
TEST_F(IrisLc, TheLoopStartsFromTheStartUpDrive) {
    iris_publish_init();
    iris_drive_publish(3000);
    board.clear();
    g_brightness = 150;
    adjustments(3);
    for (uint16_t v : drives())
        EXPECT_EQ(v, 2047) << "the servo's fully open target";
    EXPECT_EQ(iris_get_value(), 2300);
    EXPECT_EQ(published(2), 2300);
    board.clear();
    iris_set(1500);
    EXPECT_EQ(drives(), std::vector<uint16_t>{1500});
    EXPECT_EQ(published(2), 1500);
}

TEST_F(IrisMs, TheLoopStartsFromTheStartUpDrive) {
    iris_publish_init();
    iris_drive_publish(2300);
    board.clear();
    g_brightness = 150;
    adjustments(4);
    for (uint16_t v : drives())
        EXPECT_EQ(v, 1023) << "already fully open";
    EXPECT_EQ(iris_get_value(), 1023) << "the MS41908's largest value";
    EXPECT_EQ(published(2), 1023);
    iris_goto_step(3);
    EXPECT_EQ(drives().back(), 563);
    EXPECT_EQ(iris_get_value(), 563);
    EXPECT_EQ(published(2), 563);
}

// Value 0 (step 12 of the LC898201's table) only switches the servo's drive stage off: no new
// position is driven, so the value and the published state keep the last one.
TEST_F(IrisLc, TheClosedStepSwitchesTheDriveOffAndKeepsTheLastDrivenValue) {
    iris_publish_init();
    iris_goto_step(3);
    EXPECT_EQ(iris_get_value(), 1100);
    EXPECT_EQ(published(2), 1100);
    board.clear();
    iris_goto_step(12);
    EXPECT_EQ(chip.writes(), (std::vector<std::pair<uint16_t, uint32_t>>{{0x0314, 0x00}}));
    EXPECT_EQ(iris_get_value(), 1100);
    EXPECT_EQ(published(2), 1100);
}

// A drive that never reached the chip (busy line stuck) changes nothing the others rely on.
TEST_F(IrisMs, ADriveDroppedOnAStuckBusyLineKeepsTheValue) {
    iris_publish_init();
    iris_drive_publish(700);
    chip.busy_stuck = true;
    board.keep_log = false;
    capture_stdout([] { iris_drive_publish(300); });
    EXPECT_EQ(chip.regs[0x00], 1023 - 700);
    EXPECT_EQ(iris_get_value(), 700);
    EXPECT_EQ(published(2), 700);
}

// Fixed mode holds the loop; a fixed step is where the iris stands when the automatic loop takes
// over again.
TEST_F(IrisLc, FixedModeHoldsTheLoopWhichResumesFromTheFixedStep) {
    start(1000, 300);
    iris_set_mode(0);
    adjustments(5);
    EXPECT_TRUE(drives().empty());
    iris_goto_step(3);  // 1100
    iris_set_mode(1);
    board.clear();
    adjustments(2);  // step (300 - 250) / 5 = 10; 1100 is above step 5 + 10: one whole step
    EXPECT_EQ(drives(), std::vector<uint16_t>{1090});
}

// ---- MS41908 only: hold-off and step limits ----------------------------------------------------

// The MS41908 loop skips one call after start, and three after a calibration or a zoom motion
// (then the loop's own every-second-call rhythm goes on); the LC898201 has no hold-off.
TEST_F(IrisMs, HoldOffAfterStartCalibrationAndZoomMotion) {
    start(400, 100);
    EXPECT_EQ(rhythm(7), "....D.D");
    command_set_calibration_mode(1);
    EXPECT_EQ(rhythm(3), "...");
    command_set_calibration_mode(0);
    EXPECT_EQ(rhythm(7), "....D.D");
    command_set_zoom_motion_active(1);
    EXPECT_EQ(rhythm(3), "...");
    command_set_zoom_motion_active(0);
    EXPECT_EQ(rhythm(7), "....D.D");
}

TEST_F(IrisLc, NoHoldOff) {
    start(400, 100);
    EXPECT_EQ(rhythm(7), "...D.D.");
    command_set_calibration_mode(1);  // the LC898201's loop runs on through a calibration
    EXPECT_EQ(rhythm(2), "D.");
    command_set_calibration_mode(0);
    command_set_zoom_motion_active(1);
    EXPECT_EQ(rhythm(3), "...");
    command_set_zoom_motion_active(0);
    EXPECT_EQ(rhythm(4), "D.D.");
}

// The MS41908's iris output moves the blades most per count in the middle of its range: there the
// step of a dark scene (10) is cut to 4 between steps 5 and 4 of the table (458..497), to 8 below
// step 5 and between steps 4 and 3 (498..562), and left whole from step 3 (563) up.
struct StepLimit {
    uint16_t from;
    uint16_t first_drive;
};

class IrisMsStepLimit : public IrisMs, public ::testing::WithParamInterface<StepLimit> {};

TEST_P(IrisMsStepLimit, FirstOpeningStepFromTheValue) {
    start(GetParam().from, 100);
    adjustments(3);  // hold-off, measuring, then the first adjustment
    EXPECT_EQ(drives(), std::vector<uint16_t>{GetParam().first_drive});
}

INSTANTIATE_TEST_SUITE_P(ByIrisValue, IrisMsStepLimit,
                         ::testing::Values(StepLimit{400, 404},   // step 8: half of it
                                           StepLimit{457, 465},   // step 8, whole
                                           StepLimit{458, 462},   // step 4
                                           StepLimit{497, 501},   // step 4
                                           StepLimit{498, 506},   // step 8
                                           StepLimit{562, 578},   // step 8, doubled
                                           StepLimit{563, 583}),  // step 10, doubled
                         [](const ::testing::TestParamInfo<StepLimit>& i) {
                             return "From" + std::to_string(i.param.from);
                         });

TEST_F(IrisLc, TheLc898201TakesTheWholeStep) {
    start(950, 100);  // between its steps 5 and 4
    adjustments(2);
    EXPECT_EQ(drives(), std::vector<uint16_t>{960});
}

// ---- Step table and published state ------------------------------------------------------------

TEST_F(IrisLc, StepIndicesAbove12CountAs12) {
    iris_table_set(99, 7);
    EXPECT_EQ(iris_table_get(12), 7);
    iris_goto_step(20);
    iris_goto_step(3);
    EXPECT_EQ(drives(), (std::vector<uint16_t>{7, iris_table_get(3)}));
}

TEST_F(IrisLc, PublishedStateLayout) {
    lens_set_positions(1500, 0);
    iris_table_set(0, 1984);
    iris_table_set(5, 900);
    iris_table_set(12, 3);
    iris_publish_init();
    iris_set_mode(1);
    iris_drive_publish(777);
    // Mode, driven value, most open and most closed step, zoom, then the thirteen steps.
    const int want[][2] = {{0, 1},    {2, 777},   {4, 1984},         {6, 3},
                           {8, 1500}, {10, 1984}, {10 + 2 * 5, 900}, {10 + 2 * 12, 3}};
    for (const auto& w : want)
        EXPECT_EQ(published(static_cast<size_t>(w[0])), w[1]) << "offset " << w[0];
}

}  // namespace

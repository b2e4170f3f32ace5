// Chip detection, and the MS41908 driver against the fake chip: the register groups of every
// operation and their strobes, matched pulse periods, the sensor supply and command, the iris,
// homing on the GPIO home sensors with each of its failure limits, and bounded waits on a stuck
// busy line.
#include <gtest/gtest.h>

#include <cmath>

#include "base/dbgout.h"
#include "tests/lens_api/fake_devices.h"

namespace {

using lensfake::Call;
using testsupport::capture_stdout;
using Writes = std::vector<std::pair<uint8_t, uint16_t>>;

class LensChipDetect : public lensfake::Rig<> {
  protected:
    static std::string detect() {
        return capture_stdout([] {
            gpio_load_pins();
            lens_detect_chip();
        });
    }
    static bool iris_table_fits(uint16_t max) {
        for (uint8_t i = 0; i < kIrisSteps; ++i)
            if (iris_table_get(i) > max)
                return false;
        return true;
    }
};

TEST_F(LensChipDetect, AnLc898201AnsweringTheProbeKeepsItsTableAndLink) {
    lensfake::LcChip lc{board};
    EXPECT_EQ(detect(), "IC is LC898201 \n");
    EXPECT_EQ(lens_is_ms41908(), 0);
    EXPECT_EQ(lens_ops().move_both, kLc898201Ops.move_both);
    EXPECT_EQ(spi_lc_info().opened, 1) << "its link stays open for the driver";
    EXPECT_TRUE(board.calls(Call::kGpio).empty()) << "the MS41908 lines are left alone";
    EXPECT_FALSE(iris_table_fits(1023)) << "the iris keeps the LC898201's range";
    board.clear();
    ms_sensor_command(0x20);
    EXPECT_EQ(ms_sensor_last_command(), 0x20);
    EXPECT_TRUE(board.calls().empty()) << "the MS41908 sensor command is only stored";
}

TEST_F(LensChipDetect, AnMs41908IgnoresTheProbeAndGetsItsTableLinesAndIrisTable) {
    lensfake::MsChip ms{board};
    ms.path = "/dev/spidev2.0";
    spi_set_bus_number(2);
    EXPECT_EQ(detect(), "init gpio \nIC is MS41908 \n");
    EXPECT_EQ(lens_is_ms41908(), 1);
    EXPECT_EQ(lens_ops().move_both, kMs41908Ops.move_both);
    // The probe (a write and a read) went out in the LC898201's mode; that link is closed now.
    const auto frames = board.calls(Call::kTransfer);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].mode + frames[1].mode, 2 * 0x03);
    EXPECT_EQ(spi_lc_info().opened, 0);
    EXPECT_EQ(board.calls(Call::kClose).size(), 1u);
    // vd as an output, then the focus sensor, the zoom sensor and pls as inputs.
    std::vector<std::pair<unsigned long, uint32_t>> setup;
    for (const Call& c : board.calls(Call::kGpio))
        setup.emplace_back(c.request, c.value);
    EXPECT_EQ(setup, (decltype(setup){{kGpioReqOutHigh, 112},
                                      {kGpioReqInput, 111},
                                      {kGpioReqInput, 50},
                                      {kGpioReqInput, 62}}));
    EXPECT_TRUE(iris_table_fits(1023));
    // From here the MS41908 link reaches the chip on its bus, in its own mode.
    capture_stdout([] { lens_ops().init_regs(); });
    EXPECT_EQ(ms.regs[0x24], 0x1520);
}

class Ms41908Driver : public lensfake::Rig<> {
  protected:
    void SetUp() override {
        Rig::SetUp();
        capture_stdout([] {
            gpio_load_pins();
            lens_detect_chip();
            ms_init_regs();
        });
        ASSERT_EQ(lens_is_ms41908(), 1);
        board.clear();
    }
    lensfake::MsChip chip{board};
};

// A zoom step is two pulses at the zoom period, a focus step one at the focus period: any pair of
// step counts ends together on both channels.
TEST_F(Ms41908Driver, MoveBothTimesTheChannelsToFinishTogether) {
    chip.busy_reads = 0;
    std::string late;
    for (int z = 1; z <= 100; ++z) {
        for (int f = 1; f <= 100; ++f) {
            ms_move_both(0, static_cast<uint8_t>(z), 1, static_cast<uint8_t>(f));
            ASSERT_EQ(chip.regs[0x24] & 0xFF, 2 * z);
            ASSERT_EQ(chip.regs[0x29] & 0xFF, f);
            const double zoom_time = 2.0 * z * chip.regs[0x25];
            if (std::abs(f * chip.regs[0x2A] - zoom_time) > 0.02 * zoom_time)
                late += " " + std::to_string(z) + "/" + std::to_string(f);
        }
    }
    EXPECT_EQ(late, "");

    board.clear();
    ms_move_both(1, 10, 0, 30);
    EXPECT_EQ(chip.shape(), "BLWWWWH");
    EXPECT_EQ(chip.regs[0x24], 0x1414);
    EXPECT_EQ(chip.regs[0x29], 0x151E);
    ms_move_both(0, 0, 1, 20);
    EXPECT_EQ(chip.regs[0x24] & 0xFF, 0);
    EXPECT_EQ(chip.regs[0x2A], 374) << "a focus-only move runs at the focus motor's own speed";
    ms_move_both(0, 80, 0, 0);
    EXPECT_EQ(chip.regs[0x29] & 0xFF, 0);
    // Beyond the table the fastest periods; 200 zoom steps saturate the count rather than spill
    // into the direction bit.
    ms_move_both(0, 100, 0, 100);
    const uint16_t zoom_fastest = chip.regs[0x25], focus_fastest = chip.regs[0x2A];
    ms_move_both(0, 200, 0, 110);
    EXPECT_EQ(chip.regs[0x25], zoom_fastest);
    EXPECT_EQ(chip.regs[0x2A], focus_fastest);
    EXPECT_EQ(chip.regs[0x24], 0x15FF);
    EXPECT_EQ(chip.regs[0x29], 0x1500 + 110);
}

TEST_F(Ms41908Driver, SensorSupplyIsBit11WrittenAtOnceAndKeptThroughMoves) {
    ms_sensor_power_on();
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1D00}, {0x29, 0x1D00}}));
    EXPECT_EQ(chip.shape(), "WW") << "no strobe, no wait";
    EXPECT_EQ(clock.monotonic_us(), 50000u);
    board.clear();
    ms_zoom_step(1, 1);
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1C02}, {0x29, 0x1D00}}));
    board.clear();
    ms_sensor_power_off();
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1400}, {0x29, 0x1500}}));
    EXPECT_EQ(clock.monotonic_us(), 100000u);
}

TEST_F(Ms41908Driver, IrisDriveReachesTheChipOncePerNewValueWithoutMovingAMotor) {
    ms_iris_drive(0);
    EXPECT_EQ(chip.shape(), "") << "the last value starts at 0";
    ms_iris_drive(5);
    EXPECT_EQ(chip.writes(), (Writes{{0x00, 1018}, {0x24, 0x1500}, {0x29, 0x1500}}));
    EXPECT_EQ(chip.shape(), "BLWWWH");
    EXPECT_GE(clock.monotonic_us(), 4000u);
    EXPECT_EQ(chip.zoom() + chip.focus, 0);
    EXPECT_EQ(iris_get_value(), 5);
    board.clear();
    ms_iris_drive(5);
    EXPECT_EQ(chip.shape(), "");
    ms_iris_drive(2000);
    EXPECT_EQ(chip.regs[0x00], 0);
    EXPECT_EQ(iris_get_value(), 1023);
    // On a stuck busy line the drive is dropped, and the same value is tried again later.
    chip.busy_stuck = true;
    const std::string out = capture_stdout([] { ms_iris_drive(300); });
    EXPECT_NE(out.find("DBG_ERR:lens_api/lens_ms ms_iris_drive["), std::string::npos) << out;
    EXPECT_EQ(ms_busy_timeouts(), 1u);
    EXPECT_EQ(chip.regs[0x00], 0);
    EXPECT_EQ(iris_get_value(), 1023) << "the iris is still where it was";
    chip.busy_stuck = false;
    capture_stdout([] { ms_iris_drive(300); });
    EXPECT_EQ(chip.regs[0x00], 723);
    EXPECT_EQ(iris_get_value(), 300);
}

TEST_F(Ms41908Driver, AMoveOnAStuckBusyLineIsDroppedWithinTheBound) {
    chip.busy_stuck = true;
    board.keep_log = false;
    std::string out = capture_stdout([] { ms_move_both(0, 10, 0, 10); });
    EXPECT_EQ(chip.strobes, 0u);
    EXPECT_EQ(out.rfind("DBG_ERR:lens_api/lens_ms ms_move_both[", 0), 0u) << out;
    EXPECT_NE(out.find("] busy line stuck (pls reads 1), move dropped\n"), std::string::npos)
        << out;
    // Without sleeps between polls the bound is the poll count (time does not advance here).
    EXPECT_EQ(chip.pls_reads, kMsBusyWaitMaxPolls);
    EXPECT_EQ(clock.monotonic_us(), 0u);
    EXPECT_EQ(lens_take_dropped(), kMoveZoomDropped | kMoveFocusDropped) << "one line, both";

    // Once found stuck, the line is read once per operation, and the repeats are counted rather
    // than printed, until the next report is due.
    out = capture_stdout([] {
        ms_zoom_step(0, 1);
        ms_move_both(0, 0, 1, 5);
        ms_iris_drive(300);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(chip.pls_reads, kMsBusyWaitMaxPolls + 3);
    EXPECT_EQ(lens_take_dropped(), kMoveFocusDropped);
    EXPECT_EQ(ms_busy_timeouts(), 4u);
    clock.sleep_us(kDbgRepeatIntervalUs);
    out = capture_stdout([] { ms_move_both(0, 10, 0, 10); });
    EXPECT_NE(out.find("move dropped (3 more since the last report)\n"), std::string::npos) << out;
    EXPECT_EQ(chip.strobes, 0u);
    EXPECT_EQ(lens_take_dropped(), kMoveZoomDropped | kMoveFocusDropped);

    // The line comes back: the move goes out, and the end of the spell is reported.
    chip.busy_stuck = false;
    out = capture_stdout([] { ms_move_both(0, 10, 0, 10); });
    EXPECT_EQ(chip.strobes, 1u);
    EXPECT_NE(out.find("busy line idle again, 5 moves dropped"), std::string::npos) << out;
    EXPECT_EQ(lens_take_dropped(), 0);

    // Stuck again: a whole bound again, this time ended by the clock, as each read costs time like
    // a bus call does; and the first line of the new spell is printed.
    board.after_call = [this](const Call& c) {
        if (c.kind == Call::kGpio)
            clock.sleep_us(10);
    };
    chip.busy_stuck = true;
    const uint64_t t0 = clock.monotonic_us();
    out = capture_stdout([] { ms_zoom_step(0, 1); });
    EXPECT_GE(clock.monotonic_us() - t0, kMsBusyWaitLimitUs);
    EXPECT_LT(clock.monotonic_us() - t0, kMsBusyWaitLimitUs + 20);
    EXPECT_EQ(chip.strobes, 1u);
    EXPECT_EQ(ms_busy_timeouts(), 6u);
    EXPECT_NE(out.find("ms_zoom_step"), std::string::npos) << out;
    EXPECT_EQ(out.find("more since"), std::string::npos) << out;
}

// A bus that fails while a move's words go out: no strobe, so the chip latches none of the
// half-written words, and the move is dropped from the counts (a homing step fails, an iris drive
// is left to be tried again). The next move on a working bus is strobed with its own words.
TEST_F(Ms41908Driver, AMoveTheBusFailedToWriteIsNeitherStrobedNorCounted) {
    board.transfer_fails = true;
    capture_stdout([] {
        ms_move_both(0, 10, 1, 10);
        ms_move_both(0, 0, 1, 4);
        EXPECT_EQ(lens_take_dropped(), kMoveZoomDropped | kMoveFocusDropped);
    });
    EXPECT_EQ(chip.strobes, 0u);
    capture_stdout([] { EXPECT_EQ(lens_zoom_init_ms(), kHomeFailed); });
    EXPECT_EQ(chip.strobes, 0u) << "homing gives up at its first failed step";
    // An iris drive: its strobe would latch the last move's words again.
    capture_stdout([] { ms_iris_drive(700); });
    EXPECT_EQ(chip.strobes, 0u);
    board.transfer_fails = false;
    capture_stdout([] { ms_move_both(0, 10, 0, 0); });
    EXPECT_EQ(chip.strobes, 1u);
    EXPECT_EQ(lens_take_dropped(), 0);
    EXPECT_EQ(chip.regs[0x24] & 0xFF, 20) << "the new move's own count, two pulses a step";
    capture_stdout([] { ms_iris_drive(700); });
    EXPECT_EQ(chip.strobes, 2u) << "the iris value the failed drive left undone";
}

TEST_F(Ms41908Driver, FilterSwitchDrivesForATenthOfASecond) {
    ms_filter_switch(1);
    ms_filter_switch(0);
    EXPECT_EQ(chip.writes(), (Writes{{0x2C, 6}, {0x2C, 2}, {0x2C, 5}, {0x2C, 2}}));
    EXPECT_EQ(clock.monotonic_us(), 200000u);
}

// Bit 0 picks the channel (1 focus), bits 4..5 the action (toggle, on, off, nothing); one toggle
// state serves both channels.
TEST_F(Ms41908Driver, SensorCommandSwitchesOneSupplyWithoutStrobeOrWait) {
    chip.busy_stuck = true;  // a move in progress does not delay the command
    for (uint8_t command : {0x10, 0x11, 0x21, 0x30, 0x01})
        ms_sensor_command(command);
    EXPECT_EQ(chip.writes(),
              (Writes{{0x24, 0x1D20}, {0x29, 0x1520}, {0x29, 0x1D20}, {0x24, 0x1520}}));
    EXPECT_EQ(chip.shape(), "WWWW");
    EXPECT_EQ(ms_sensor_toggle_state(), 0);
    EXPECT_EQ(ms_sensor_last_command(), 0x01);
}

// ---- Homing ------------------------------------------------------------------------------------

enum class Sensor {
    kDead,        // never on
    kStuckOn,     // always on
    kLatchesOn,   // normal until first on, then stays on
    kDiesAtBack,  // normal until it turned off again after being found, then never on
};

struct HomingFailure {
    const char* name;
    bool zoom;
    Sensor how;
    const char* message;
    uint32_t strobes;  // moves made before giving up
};

class Ms41908HomingFailure : public Ms41908Driver,
                             public ::testing::WithParamInterface<HomingFailure> {};

TEST_P(Ms41908HomingFailure, StopsAtItsLimitWithItsMessage) {
    const HomingFailure& p = GetParam();
    int phase = 0;  // 0 before first on, 1 on, 2 off again
    chip.sensor_override = [&](int channel) -> int {
        if (channel != (p.zoom ? 1 : 0))
            return -1;
        const bool lit = chip.sensor_lit(channel);
        if (p.how == Sensor::kDead || (p.how == Sensor::kDiesAtBack && phase == 2))
            return 0;
        if (p.how == Sensor::kStuckOn || (p.how == Sensor::kLatchesOn && phase == 1))
            return 1;
        phase = lit ? 1 : phase == 1 ? 2 : phase;
        return lit;
    };
    chip.set_zoom(3000);
    chip.focus = 3000;
    ms_sensor_power_on();
    uint32_t r = 0;
    const std::string out =
        capture_stdout([&] { r = p.zoom ? lens_zoom_init_ms() : lens_focus_init_ms(); });
    EXPECT_EQ(r, kHomeFailed);
    EXPECT_NE(out.find(p.message), std::string::npos) << out;
    EXPECT_EQ(chip.strobes, p.strobes);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, Ms41908HomingFailure,
    ::testing::Values(HomingFailure{"ZoomDead", true, Sensor::kDead,
                                    "lens_zoom_init_ms[0973] zoom initial fail!\n", 500},
                      HomingFailure{"ZoomLatchesOn", true, Sensor::kLatchesOn,
                                    "lens_zoom_init_ms[0986] zoom initial fail! 1\n", 212 + 100},
                      HomingFailure{"ZoomStuckOn", true, Sensor::kStuckOn,
                                    "lens_zoom_init_ms[0998] zoom initial fail! 2\n", 500},
                      HomingFailure{"ZoomDiesAtBack", true, Sensor::kDiesAtBack,
                                    "lens_zoom_init_ms[1017] zoom initial fail!\n", 212 + 1 + 3000},
                      HomingFailure{"FocusDead", false, Sensor::kDead,
                                    "lens_focus_init_ms[1099] focus initial fail!\n", 300},
                      HomingFailure{"FocusLatchesOn", false, Sensor::kLatchesOn,
                                    "lens_focus_init_ms[1111] focus initial fail!\n", 38 + 100},
                      HomingFailure{"FocusStuckOn", false, Sensor::kStuckOn,
                                    "lens_focus_init_ms[1122] focus initial fail!\n", 300},
                      HomingFailure{"FocusDiesAtBack", false, Sensor::kDiesAtBack,
                                    "lens_focus_init_ms[1146] focus initial fail!\n",
                                    38 + 1 + 200}),
    [](const ::testing::TestParamInfo<HomingFailure>& i) { return std::string(i.param.name); });

}  // namespace

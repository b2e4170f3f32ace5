// MS41908 driver against a recording fake chip: the register groups of every operation and their
// strobes, the pulse-period table, the sensor supply and command, the iris drive, homing on the
// GPIO home sensors with each of its failure limits, and bounded waits on a stuck busy line.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/sim/virtual_clock.h"
#include "tests/lens_api/fake_ms41908.h"
#include "tests/support/test_env.h"

namespace {

using msfake::Event;
using testsupport::capture_stdout;
using Writes = std::vector<std::pair<uint8_t, uint16_t>>;

class MsDriverTest : public msfake::RigTest<platform::VirtualClock> {
  protected:
    void SetUp() override {
        RigTest::SetUp();
        capture_stdout([] { gpio_load_pins(); });
    }
    // The chip as the driver finds it after detection and set-up.
    void set_up_chip() {
        capture_stdout([] {
            lens_detect_chip();
            ms_init_regs();
        });
        ASSERT_EQ(lens_is_ms41908(), 1);
        chip.clear_events();
    }
    // Kinds of the write-side events (writes and strobe edges) in order.
    std::vector<Event::Kind> group_shape() {
        std::vector<Event::Kind> out;
        for (const Event& e : chip.events())
            if (e.kind == Event::kWrite || e.kind == Event::kVdLow || e.kind == Event::kVdHigh)
                out.push_back(e.kind);
        return out;
    }
};

constexpr auto W = Event::kWrite;
constexpr auto L = Event::kVdLow;
constexpr auto H = Event::kVdHigh;

TEST_F(MsDriverTest, SetUpWritesBothTablesInOrderWithoutStrobes) {
    set_up_chip();
    capture_stdout([] { ms_init_regs(); });
    EXPECT_EQ(chip.writes(), (Writes{{0x20, 0x1E01},
                                     {0x21, 0x0087},
                                     {0x22, 0x0001},
                                     {0x23, 0xF0F0},
                                     {0x24, 0x1520},
                                     {0x25, 0x0232},
                                     {0x27, 0x0001},
                                     {0x28, 0xF0F0},
                                     {0x29, 0x1520},
                                     {0x2A, 0x0232},
                                     {0x00, 0x0000},
                                     {0x01, 0x708A},
                                     {0x02, 0x66F0},
                                     {0x03, 0x0E10},
                                     {0x04, 0x8A40},
                                     {0x05, 0x0924},
                                     {0x0B, 0x0480},
                                     {0x0A, 0x0000},
                                     {0x0E, 0x0C00}}));
    EXPECT_EQ(chip.strobes(), 0u);
    EXPECT_EQ(ms_zoom_word(), 0x1520);
    EXPECT_EQ(ms_focus_word(), 0x1520);
}

TEST_F(MsDriverTest, ChannelStepsWriteBothWordsInsideOneStrobe) {
    set_up_chip();
    ms_zoom_step(1, 10);
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1414}, {0x29, 0x1500}}));
    EXPECT_EQ(group_shape(), (std::vector<Event::Kind>{L, W, W, H}));
    EXPECT_EQ(chip.zoom(), -10) << "direction 1 lowers the zoom, two pulses a step";

    // A negative count moves 127 steps (254 pulses); direction 0 sets bit 8.
    chip.clear_events();
    ms_zoom_step(0, static_cast<uint8_t>(-1));
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x15FE}, {0x29, 0x1500}}));
    EXPECT_EQ(chip.zoom(), 117);

    // Focus: one pulse a step, the zoom count cleared; the words keep the order 0x24, 0x29.
    chip.clear_events();
    ms_focus_step(1, 30);
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1500}, {0x29, 0x141E}}));
    EXPECT_EQ(chip.focus_pos, 30) << "direction 1 raises the focus";
    chip.clear_events();
    ms_focus_step(0, 200);  // -56 as a signed count
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1500}, {0x29, 0x157F}}));
    EXPECT_EQ(chip.focus_pos, 30 - 127);

    // No steps: the idle wait still runs, nothing is written or strobed.
    chip.clear_events();
    ms_zoom_step(1, 0);
    EXPECT_TRUE(chip.writes().empty());
    EXPECT_EQ(chip.count(Event::kVdLow), 0);
    EXPECT_GE(chip.count(Event::kBusyRead), 1);
}

TEST_F(MsDriverTest, StepsWaitForTheBusyLineBeforeTheStrobe) {
    set_up_chip();
    chip.busy_reads = 5;
    ms_zoom_step(1, 2);
    chip.clear_events();
    const uint64_t t0 = clock.monotonic_us();
    ms_zoom_step(1, 2);
    // Five busy reads, then the idle one, then the group; 1 us between polls.
    const std::vector<Event> ev = chip.events();
    int reads = 0;
    for (const Event& e : ev) {
        if (e.kind == Event::kVdLow)
            break;
        reads += e.kind == Event::kBusyRead;
    }
    EXPECT_EQ(reads, 6);
    EXPECT_EQ(clock.monotonic_us() - t0, 5u);
}

TEST_F(MsDriverTest, MoveBothMatchesThePeriodsOfTheTwoChannels) {
    set_up_chip();
    ms_move_both(0, 0, 1, 20);
    EXPECT_EQ(chip.writes(), (Writes{{0x2A, 374}, {0x29, 0x1414}, {0x25, 14638}, {0x24, 0x1500}}));
    EXPECT_EQ(group_shape(), (std::vector<Event::Kind>{L, W, W, W, W, H}));

    chip.clear_events();
    ms_move_both(1, 10, 0, 30);
    EXPECT_EQ(chip.writes(),
              (Writes{{0x2A, 2 * 486}, {0x29, 0x151E}, {0x25, 1462}, {0x24, 0x1414}}));
    EXPECT_EQ(chip.zoom(), -10);
    EXPECT_EQ(chip.focus_pos, 20 - 30);

    // Zoom only: the focus period is twice entry 0.
    chip.clear_events();
    ms_move_both(0, 80, 0, 0);
    EXPECT_EQ(chip.writes(), (Writes{{0x2A, 29276}, {0x29, 0x1500}, {0x25, 181}, {0x24, 0x15A0}}));
}

TEST_F(MsDriverTest, StepCountsBeyondTheTableUseItsLastEntry) {
    EXPECT_EQ(ms_period_for_steps(0), 14638);
    EXPECT_EQ(ms_period_for_steps(100), 145);
    EXPECT_EQ(ms_period_for_steps(101), 145);
    EXPECT_EQ(ms_period_for_steps(255), 145);

    set_up_chip();
    // A focus reversal with calibrated backlash: 80 + 30 steps while the zoom moves.
    ms_move_both(1, 10, 1, 110);
    EXPECT_EQ(chip.writes()[0], (std::pair<uint8_t, uint16_t>{0x2A, 290}));
    EXPECT_EQ(chip.writes()[1], (std::pair<uint8_t, uint16_t>{0x29, 0x146E}));
    // 200 zoom steps would be 400 pulses: the count saturates instead of flipping the direction.
    chip.clear_events();
    ms_move_both(0, 200, 0, 0);
    EXPECT_EQ(chip.writes()[2], (std::pair<uint8_t, uint16_t>{0x25, 145}));
    EXPECT_EQ(chip.writes()[3], (std::pair<uint8_t, uint16_t>{0x24, 0x15FF}));
}

TEST_F(MsDriverTest, SensorSupplyTakesBit11WithoutStrobeAndSurvivesMoves) {
    set_up_chip();
    const uint64_t t0 = clock.monotonic_us();
    ms_sensor_power_on();
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1D00}, {0x29, 0x1D00}}));
    EXPECT_EQ(clock.monotonic_us() - t0, 50000u);
    chip.clear_events();
    ms_zoom_step(1, 1);
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1C02}, {0x29, 0x1D00}}));
    chip.clear_events();
    ms_sensor_power_off();
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1400}, {0x29, 0x1500}}));
    EXPECT_EQ(chip.strobes(), 1u);
    EXPECT_EQ(clock.monotonic_us() - t0, 100000u);
}

TEST_F(MsDriverTest, IrisDriveReachesTheChipOncePerNewValue) {
    set_up_chip();
    ms_iris_drive(0);
    EXPECT_TRUE(chip.events().empty()) << "the last value starts at 0";

    const uint64_t t0 = clock.monotonic_us();
    ms_iris_drive(5);
    EXPECT_EQ(chip.writes(), (Writes{{0x00, 1018}, {0x24, 0x1500}, {0x29, 0x1500}}));
    EXPECT_EQ(group_shape(), (std::vector<Event::Kind>{L, W, W, W, H}));
    EXPECT_GE(clock.monotonic_us() - t0, 4000u);
    EXPECT_EQ(chip.zoom(), 0);
    EXPECT_EQ(chip.focus_pos, 0);
    EXPECT_EQ(ms_iris_value(), 5);

    chip.clear_events();
    ms_iris_drive(5);
    EXPECT_TRUE(chip.events().empty());
    ms_iris_drive(2000);
    EXPECT_EQ(chip.writes()[0], (std::pair<uint8_t, uint16_t>{0x00, 0}));
    EXPECT_EQ(ms_iris_value(), 1023);
}

TEST_F(MsDriverTest, IrisDriveOnAStuckBusyLineIsDroppedAndRetriedLater) {
    set_up_chip();
    chip.busy_stuck = true;
    std::string out = capture_stdout([] { ms_iris_drive(300); });
    EXPECT_TRUE(chip.writes().empty());
    EXPECT_EQ(ms_busy_timeouts(), 1u);
    EXPECT_NE(out.find("DBG_ERR:lens_api/lens_ms ms_iris_drive["), std::string::npos) << out;
    EXPECT_NE(out.find("busy line stuck"), std::string::npos);
    chip.busy_stuck = false;
    ms_iris_drive(300);
    EXPECT_EQ(chip.writes()[0], (std::pair<uint8_t, uint16_t>{0x00, 723}));
}

TEST_F(MsDriverTest, MoveOnAStuckBusyLineIsDroppedWithinTheBound) {
    set_up_chip();
    chip.busy_stuck = true;
    const uint64_t t0 = clock.monotonic_us();
    const std::string out = capture_stdout([] { ms_move_both(0, 10, 0, 10); });
    EXPECT_EQ(chip.strobes(), 0u);
    EXPECT_NE(out.find("busy line stuck (pls reads 1), move dropped"), std::string::npos) << out;
    // Without sleeps between polls the bound is the poll count (time does not advance here).
    EXPECT_EQ(chip.count(Event::kBusyRead), static_cast<int>(kMsBusyWaitMaxPolls));
    EXPECT_EQ(clock.monotonic_us(), t0);

    // When each read costs time, as a bus call does, the 2 s on the clock end the wait.
    chip.clock = &clock;
    chip.call_cost_us = 10;
    chip.clear_events();
    capture_stdout([] { ms_zoom_step(0, 1); });
    EXPECT_GE(clock.monotonic_us() - t0, kMsBusyWaitLimitUs);
    EXPECT_LT(clock.monotonic_us() - t0, kMsBusyWaitLimitUs + 20);
    EXPECT_EQ(chip.strobes(), 0u);
    EXPECT_EQ(ms_busy_timeouts(), 2u);
}

TEST_F(MsDriverTest, FilterSwitchDrivesForATenthOfASecond) {
    set_up_chip();
    ms_filter_switch(1);
    ms_filter_switch(0);
    EXPECT_EQ(chip.writes(), (Writes{{0x2C, 6}, {0x2C, 2}, {0x2C, 5}, {0x2C, 2}}));
    EXPECT_EQ(clock.monotonic_us(), 200000u);
}

TEST_F(MsDriverTest, SensorCommandSwitchesOneSupplyWithoutStrobeOrWait) {
    ms_sensor_command(0x10);
    EXPECT_EQ(ms_sensor_last_command(), 0x10);
    EXPECT_TRUE(chip.writes().empty()) << "not the chip in use: only stored";

    set_up_chip();
    chip.busy_stuck = true;   // a move in progress does not delay the command
    ms_sensor_command(0x10);  // toggle zoom: on
    EXPECT_EQ(chip.writes(), (Writes{{0x24, 0x1D20}}));
    EXPECT_EQ(ms_sensor_toggle_state(), 1);
    ms_sensor_command(0x11);  // toggle focus: the one toggle state says "on", so off
    ms_sensor_command(0x21);  // focus on
    ms_sensor_command(0x30);  // zoom off
    ms_sensor_command(0x01);  // nothing
    EXPECT_EQ(chip.writes(),
              (Writes{{0x24, 0x1D20}, {0x29, 0x1520}, {0x29, 0x1D20}, {0x24, 0x1520}}));
    EXPECT_EQ(ms_sensor_toggle_state(), 0);
    EXPECT_EQ(ms_sensor_last_command(), 0x01);
    EXPECT_EQ(chip.count(Event::kBusyRead), 0);
    EXPECT_EQ(chip.strobes(), 0u);
}

// ---- Homing ------------------------------------------------------------------------------------

class MsHomingTest : public MsDriverTest {
  protected:
    void SetUp() override {
        MsDriverTest::SetUp();
        set_up_chip();
        ms_sensor_power_on();
        chip.clear_events();
    }
};

TEST_F(MsHomingTest, ZoomFromBelowFindsTheSensorBacksOffAndApproachesInSingleSteps) {
    chip.set_zoom(3000);
    uint32_t r = 1;
    const std::string out = capture_stdout([&] { r = lens_zoom_init_ms(); });
    EXPECT_EQ(r, kHomeOk);
    EXPECT_EQ(chip.zoom(), 6378);
    // 212 moves of 16 reach 6392, one back to 6376, two single steps.
    EXPECT_NE(out.find("zoom init: 1 time = 212\n"), std::string::npos) << out;
    EXPECT_NE(out.find("zoom init: 3 time = 2\n"), std::string::npos);
    EXPECT_EQ(chip.strobes(), 212u + 1 + 2);
}

TEST_F(MsHomingTest, ZoomFromOnTheSensorLeavesItFirst) {
    chip.set_zoom(6500);
    std::string out = capture_stdout([] { EXPECT_EQ(lens_zoom_init_ms(), kHomeOk); });
    EXPECT_EQ(chip.zoom(), 6378);
    EXPECT_NE(out.find("zoom init: 2 time = 1\n"), std::string::npos);
    EXPECT_NE(out.find("zoom init: 2 time = 8\n"), std::string::npos) << "6500 - 8 x 16 = 6372";
    EXPECT_EQ(out.find("zoom init: 1 time"), std::string::npos);
    EXPECT_NE(out.find("zoom init: 3 time = 6\n"), std::string::npos);
}

TEST_F(MsHomingTest, FocusHomesFromEitherSide) {
    chip.focus_pos = 5000;
    std::string out = capture_stdout([] { EXPECT_EQ(lens_focus_init_ms(), kHomeOk); });
    EXPECT_EQ(chip.focus_pos, 2400);
    EXPECT_NE(out.find("focus init: 1 time = 163\n"), std::string::npos) << out;
    chip.focus_pos = 100;
    out = capture_stdout([] { EXPECT_EQ(lens_focus_init_ms(), kHomeOk); });
    EXPECT_EQ(chip.focus_pos, 2400);
    EXPECT_NE(out.find("focus init: 2 time = 144\n"), std::string::npos) << out;
}

TEST_F(MsHomingTest, AnUnpoweredSensorNeverTrips) {
    ms_sensor_power_off();
    chip.set_zoom(6400);
    const std::string out = capture_stdout([] { EXPECT_EQ(lens_zoom_init_ms(), kHomeFailed); });
    EXPECT_NE(out.find("DBG_ERR:lens_api/lens_ms lens_zoom_init_ms[0973] zoom initial fail!\n"),
              std::string::npos)
        << out;
}

// How a sensor misbehaves, per read.
enum class Misbehaviour {
    kDead,        // never on
    kStuckOn,     // always on
    kLatchesOn,   // normal until first on, then stays on
    kDiesAtBack,  // normal until it turned off again after being found, then never on
};

struct HomingFailure {
    const char* name;
    bool zoom;
    Misbehaviour how;
    int start;  // starting position
    const char* message;
    uint32_t strobes;  // moves made before giving up
};

void PrintTo(const HomingFailure& f, std::ostream* os) {
    *os << f.name;
}

class MsHomingFailures : public MsHomingTest,
                         public ::testing::WithParamInterface<HomingFailure> {};

TEST_P(MsHomingFailures, StopAtTheirLimitWithTheirMessage) {
    const HomingFailure& p = GetParam();
    const int channel = p.zoom ? 1 : 0;
    // The normal sensor, as the threshold model gives it.
    auto normal = [this, channel] {
        return channel == 1 ? chip.zoom() >= chip.zoom_edge : chip.focus_pos <= chip.focus_edge;
    };
    int phase = 0;  // 0 before first on, 1 on, 2 off again
    chip.sensor_override = [&, channel](int ch) -> int {
        if (ch != channel)
            return -1;
        switch (p.how) {
            case Misbehaviour::kDead:
                return 0;
            case Misbehaviour::kStuckOn:
                return 1;
            case Misbehaviour::kLatchesOn:
                if (normal())
                    phase = 1;
                return phase == 1 ? 1 : 0;
            case Misbehaviour::kDiesAtBack: {
                if (phase == 2)
                    return 0;
                const bool on = normal();
                if (on)
                    phase = 1;
                else if (phase == 1)
                    phase = 2;
                return on ? 1 : 0;
            }
        }
        return 0;
    };
    if (p.zoom)
        chip.set_zoom(p.start);
    else
        chip.focus_pos = p.start;
    uint32_t r = 0;
    const std::string out =
        capture_stdout([&] { r = p.zoom ? lens_zoom_init_ms() : lens_focus_init_ms(); });
    EXPECT_EQ(r, kHomeFailed);
    EXPECT_NE(out.find(p.message), std::string::npos) << out;
    EXPECT_EQ(chip.strobes(), p.strobes);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, MsHomingFailures,
    ::testing::Values(HomingFailure{"ZoomDead", true, Misbehaviour::kDead, 3000,
                                    "lens_zoom_init_ms[0973] zoom initial fail!\n", 500},
                      HomingFailure{"ZoomLatchesOn", true, Misbehaviour::kLatchesOn, 3000,
                                    "lens_zoom_init_ms[0986] zoom initial fail! 1\n", 212 + 100},
                      HomingFailure{"ZoomStuckOn", true, Misbehaviour::kStuckOn, 3000,
                                    "lens_zoom_init_ms[0998] zoom initial fail! 2\n", 500},
                      HomingFailure{"ZoomDiesAtBack", true, Misbehaviour::kDiesAtBack, 3000,
                                    "lens_zoom_init_ms[1017] zoom initial fail!\n", 212 + 1 + 3000},
                      HomingFailure{"FocusDead", false, Misbehaviour::kDead, 3000,
                                    "lens_focus_init_ms[1099] focus initial fail!\n", 300},
                      HomingFailure{"FocusLatchesOn", false, Misbehaviour::kLatchesOn, 3000,
                                    "lens_focus_init_ms[1111] focus initial fail!\n", 38 + 100},
                      HomingFailure{"FocusStuckOn", false, Misbehaviour::kStuckOn, 3000,
                                    "lens_focus_init_ms[1122] focus initial fail!\n", 300},
                      HomingFailure{"FocusDiesAtBack", false, Misbehaviour::kDiesAtBack, 3000,
                                    "lens_focus_init_ms[1146] focus initial fail!\n",
                                    38 + 1 + 200}),
    [](const ::testing::TestParamInfo<HomingFailure>& i) { return std::string(i.param.name); });

// ---- Start-up through the table ----------------------------------------------------------------

TEST_F(MsDriverTest, MotorInitHomesBothAndSetsTheCounts) {
    capture_stdout([] { lens_detect_chip(); });
    chip.set_zoom(1000);
    chip.focus_pos = 6000;
    uint8_t r = 0xFF;
    capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(lens_get_zoom_pos(), 6378);
    EXPECT_EQ(lens_get_focus_pos(), 2400);
    EXPECT_EQ(chip.zoom(), 6378);
    EXPECT_EQ(chip.focus_pos, 2400);
    EXPECT_EQ(chip.reg(0x24) & 0x800, 0) << "supplies off after homing";
    EXPECT_EQ(chip.reg(0x29) & 0x800, 0);

    // Counts follow the chip through lens_move from here on.
    lens_move(0, 50, 1, 30);
    lens_move(1, 20, 0, 10);
    // Both reversals carry the backlash (zoom 1, focus 2) to the motor, not to the counts; this
    // chip has no play, so its motor ends where the counts say.
    EXPECT_EQ(lens_get_zoom_pos(), 6378 - 50 + 20);
    EXPECT_EQ(chip.zoom(), 6378 - 51 + 21);
    EXPECT_EQ(lens_get_focus_pos(), 2400 + 30 - 10);
    EXPECT_EQ(chip.focus_pos, 2400 + 32 - 12);
}

struct InitCase {
    const char* name;
    bool zoom_dead;
    bool focus_dead;
    uint8_t result;
};

class MsMotorInitFailures : public MsDriverTest, public ::testing::WithParamInterface<InitCase> {};

TEST_P(MsMotorInitFailures, GiveTheFailureBitsAndZeroCounts) {
    const InitCase& c = GetParam();
    capture_stdout([] { lens_detect_chip(); });
    chip.set_zoom(5000);
    chip.focus_pos = 3000;
    chip.sensor_override = [&c](int ch) -> int {
        return (ch == 1 && c.zoom_dead) || (ch == 0 && c.focus_dead) ? 0 : -1;
    };
    lens_set_positions(100, 100);
    uint8_t r = 0xFF;
    const std::string out = capture_stdout([&] { r = lens_motor_rehome(); });
    EXPECT_EQ(r, c.result);
    EXPECT_EQ(lens_get_zoom_pos(), 0);
    EXPECT_EQ(lens_get_focus_pos(), 0);
    // The focus is homed even after the zoom failed.
    EXPECT_EQ(chip.focus_pos == 2400, !c.focus_dead) << out;
}

INSTANTIATE_TEST_SUITE_P(
    Sensors, MsMotorInitFailures,
    ::testing::Values(InitCase{"Zoom", true, false, kZoomHomeFailed},
                      InitCase{"Focus", false, true, kFocusHomeFailed},
                      InitCase{"Both", true, true, kZoomHomeFailed | kFocusHomeFailed}),
    [](const ::testing::TestParamInfo<InitCase>& i) { return std::string(i.param.name); });

TEST_F(MsDriverTest, StuckBusyLineFailsBothHomingsWithinBoundedTime) {
    capture_stdout([] { lens_detect_chip(); });
    chip.busy_stuck = true;
    uint8_t r = 0;
    const std::string out = capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, kZoomHomeFailed | kFocusHomeFailed);
    EXPECT_NE(out.find("lens_zoom_init_ms["), std::string::npos);
    EXPECT_NE(out.find("busy line stuck"), std::string::npos);
    EXPECT_NE(out.find("zoom initial fail!"), std::string::npos);
    EXPECT_NE(out.find("focus initial fail!"), std::string::npos);
    EXPECT_LT(clock.monotonic_us(), 5u * 1000000u);
}

TEST_F(MsDriverTest, MissingGpioDeviceFailsTheHomingCleanly) {
    chip.gpio_open_fails = true;
    capture_stdout([] { gpio_load_pins(); });
    capture_stdout([] { lens_detect_chip(); });
    uint8_t r = 0;
    // A failed read leaves the pin number (62) where the level should be: "busy" for ever.
    const std::string out = capture_stdout([&] { r = lens_motor_init(); });
    EXPECT_EQ(r, kZoomHomeFailed | kFocusHomeFailed);
    EXPECT_NE(out.find("busy line stuck (pls reads 62)"), std::string::npos) << out;
    EXPECT_LT(clock.monotonic_us(), 5u * 1000000u);
}

}  // namespace

// MS41908 emulator: shadow registers latched on the vd edge, pulse trains and the busy line,
// mechanical play and end stops, sensor supply, iris, frames in the wrong bus mode, reset.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "sim/hw/ms41908_emu.h"

namespace {

using vcam::hw::Ms41908Config;
using vcam::hw::Ms41908Emu;
using vcam::hw::SensorFault;

class Ms41908EmuTest : public ::testing::Test {
  protected:
    void make(Ms41908Config c, double time_unit_us, double zoom = 3000, double focus = 3000) {
        c.time_unit_us = time_unit_us;
        emu = std::make_unique<Ms41908Emu>(mech, c);
        emu->power_on(zoom, focus, 0);
    }
    // One frame at time t; returns the 16-bit value read back.
    uint16_t xfer(uint8_t b0, uint16_t v, uint64_t t, uint8_t mode = Ms41908Emu::kChipMode) {
        const uint8_t tx[3] = {b0, static_cast<uint8_t>(v & 0xFF), static_cast<uint8_t>(v >> 8)};
        uint8_t rx[3] = {0xEE, 0xEE, 0xEE};
        emu->transfer(t, mode, tx, rx, 3);
        return static_cast<uint16_t>(rx[1] | (rx[2] << 8));
    }
    uint16_t read(uint8_t reg, uint64_t t, uint8_t mode = Ms41908Emu::kChipMode) {
        return xfer(static_cast<uint8_t>(reg | 0x40), 0, t, mode);
    }
    // A move as the driver's move_both writes it, strobed at t.
    void move(uint16_t zoom_word, uint16_t zoom_period, uint16_t focus_word, uint16_t focus_period,
              uint64_t t) {
        xfer(0x2A, focus_period, t);
        xfer(0x29, focus_word, t);
        xfer(0x25, zoom_period, t);
        xfer(0x24, zoom_word, t);
        emu->vd_rise(t);
    }
    double zoom() const { return mech.snapshot().zoom; }
    double focus() const { return mech.snapshot().focus; }

    vcam::LensMechanics mech;
    std::unique_ptr<Ms41908Emu> emu;
};

TEST_F(Ms41908EmuTest, MotorSettingsWaitForTheStrobeThenRunTheirPulseTrain) {
    make({}, 1.0);
    // 10 zoom steps up (20 pulses, bit 8 set), 100 us a pulse.
    xfer(0x25, 100, 0);
    xfer(0x24, 0x1500 | 20, 0);
    xfer(0x29, 0x1500, 0);
    emu->advance(50000);
    EXPECT_EQ(zoom(), 3000.0) << "nothing moves before vd rises";
    EXPECT_FALSE(emu->pls());
    emu->vd_rise(50000);
    EXPECT_TRUE(emu->pls()) << "busy from the strobe on";
    emu->advance(50000 + 1000);
    EXPECT_DOUBLE_EQ(zoom(), 3005.0);
    emu->advance(50000 + 1999);
    EXPECT_TRUE(emu->pls());
    emu->advance(50000 + 2000);
    EXPECT_FALSE(emu->pls());
    EXPECT_DOUBLE_EQ(zoom(), 3010.0);

    // Focus: bit 8 set lowers it, one pulse a step; bit 8 clear raises it. Zoom with bit 8 clear
    // goes down.
    move(0x1500, 100, 0x1500 | 7, 10, 60000);
    emu->advance(70000);
    EXPECT_DOUBLE_EQ(focus(), 2993.0);
    move(0x1400 | 8, 10, 0x1400 | 9, 10, 70000);
    emu->advance(80000);
    EXPECT_DOUBLE_EQ(focus(), 3002.0);
    EXPECT_DOUBLE_EQ(zoom(), 3006.0);
    EXPECT_EQ(emu->strobes(), 3u);
}

TEST_F(Ms41908EmuTest, AStrobeWithoutCountsMovesNothingAndLatchesTheIris) {
    Ms41908Config c;
    c.iris_tau_us = 1000;
    make(c, 0.4);
    xfer(0x00, 1023 - 600, 0);
    emu->advance(100000);
    EXPECT_EQ(mech.snapshot().iris, 0.0) << "the iris target waits for the strobe too";
    move(0x1500, 100, 0x1500, 100, 100000);
    EXPECT_FALSE(emu->pls());
    emu->advance(100000 + 1000);
    EXPECT_NEAR(mech.snapshot().iris, 600.0 * (1 - std::exp(-1.0)), 1.0);
    emu->advance(200000);
    EXPECT_NEAR(mech.snapshot().iris, 600.0, 0.01);
    EXPECT_EQ(zoom(), 3000.0);
    EXPECT_EQ(focus(), 3000.0);
}

TEST_F(Ms41908EmuTest, ReversalsTakeUpThePlayAndPulsesPastAnEndStopAreLost) {
    Ms41908Config c;
    c.zoom_backlash = 1;
    c.focus_backlash = 2;
    c.focus_stop_min = 2900;
    make(c, 0.001);
    uint64_t t = 0;
    auto step = [&](uint16_t zw, uint16_t fw) {
        move(zw, 10, fw, 10, t += 1000);
        emu->advance(t += 1000);
    };
    // At power-on the slack lies on the rising side of each carriage.
    step(0x1500 | 20, 0x1500 | 5);  // zoom up 10 takes up the play first; focus down 5 at once
    EXPECT_DOUBLE_EQ(zoom(), 3009.0);
    EXPECT_DOUBLE_EQ(focus(), 2995.0);
    step(0x1500 | 20, 0x1500 | 5);  // same directions: full travel
    EXPECT_DOUBLE_EQ(zoom(), 3019.0);
    EXPECT_DOUBLE_EQ(focus(), 2990.0);
    step(0x1400 | 22, 0x1400 | 7);  // reversals with the play added, as the daemon does
    EXPECT_DOUBLE_EQ(zoom(), 3009.0);
    EXPECT_DOUBLE_EQ(focus(), 2995.0);
    EXPECT_DOUBLE_EQ(emu->zoom_motor(), 3009.0) << "falling, the carriage rides on the motor";
    EXPECT_DOUBLE_EQ(emu->focus_motor(), 2997.0) << "rising, it lags by the play";
    step(0x1500, 0x1500 | 200);  // 2 steps of play, 95 to the stop, 103 against it
    EXPECT_DOUBLE_EQ(focus(), 2900.0);
    EXPECT_EQ(emu->lost_pulses(), 103u);
    EXPECT_FALSE(emu->pls());
}

TEST_F(Ms41908EmuTest, HomeSensorsNeedTheirSupplyBitAndFollowTheCarriage) {
    make({}, 0.001, 6378, 2401);
    EXPECT_FALSE(emu->zoom_sensor()) << "unpowered";
    xfer(0x24, 0x1D00, 10);  // supply on at the write, no strobe needed
    EXPECT_TRUE(emu->zoom_sensor());
    xfer(0x29, 0x1D00, 10);
    EXPECT_FALSE(emu->focus_sensor()) << "focus lit at or below its edge only";
    move(0x1C00 | 2, 10, 0x1D00 | 1, 10, 100);
    emu->advance(1000);
    EXPECT_FALSE(emu->zoom_sensor());
    EXPECT_TRUE(emu->focus_sensor());
    xfer(0x29, 0x1500, 2000);
    EXPECT_FALSE(emu->focus_sensor());
    emu->config().zoom_sensor = SensorFault::kStuckOn;
    emu->config().focus_sensor = SensorFault::kStuckOff;
    EXPECT_TRUE(emu->zoom_sensor());
    xfer(0x29, 0x1D00, 3000);
    EXPECT_FALSE(emu->focus_sensor());
}

TEST_F(Ms41908EmuTest, FramesInAnotherBusModeOrWithBit7SetAreIgnored) {
    make({}, 0.4);
    xfer(0x24, 0x1234, 0);
    EXPECT_EQ(read(0x24, 0), 0x1234);
    // The LC898201 probe (write 0x82 to 0x0101, read it back) in that chip's mode.
    xfer(0x01, 0x8201, 10, 0x03);
    EXPECT_EQ(read(0x01, 20, 0x03), 0);
    EXPECT_EQ(read(0x01, 30), 0) << "the write never landed";
    EXPECT_EQ(emu->frames_ignored(), 2u);
    xfer(0xA4, 0x2211, 40);
    EXPECT_EQ(read(0x24, 50), 0x1234);
}

TEST_F(Ms41908EmuTest, ResetClearsRegistersAndStopsTheMotorsButNotTheLens) {
    make({}, 1.0);
    move(0x1D00 | 200, 100, 0x1D00, 100, 0);
    emu->advance(5000);
    const double z = zoom();
    EXPECT_TRUE(emu->pls());
    emu->reset(5000);
    EXPECT_FALSE(emu->pls());
    EXPECT_EQ(emu->reg(0x24), 0);
    EXPECT_FALSE(emu->zoom_sensor());
    emu->advance(100000);
    EXPECT_EQ(zoom(), z);
}

TEST_F(Ms41908EmuTest, AStrobeWhilePulsingReplacesTheRestAndIsCounted) {
    make({}, 1.0);
    move(0x1500 | 100, 100, 0x1500, 100, 0);   // 50 steps, 10 ms
    move(0x1500 | 2, 100, 0x1500, 100, 1000);  // after 10 pulses
    emu->advance(100000);
    EXPECT_DOUBLE_EQ(zoom(), 3006.0);
    EXPECT_EQ(emu->strobes_while_busy(), 1u);
    emu->config().busy_stuck = true;
    EXPECT_TRUE(emu->pls());
}

}  // namespace

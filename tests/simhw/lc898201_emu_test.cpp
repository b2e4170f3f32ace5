// LC898201 emulator: register behaviour as the daemon's driver relies on it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "sim/hw/lc898201_emu.h"

namespace {

using vcam::hw::Lc898201Config;
using vcam::hw::Lc898201Emu;
using vcam::hw::SensorFault;

class Lc898201EmuTest : public ::testing::Test {
  protected:
    void make(const Lc898201Config& cfg, double zoom, double focus) {
        emu = std::make_unique<Lc898201Emu>(mech, cfg);
        emu->power_on(zoom, focus, 0);
    }
    // One frame at time t (then 10 us later); 32-bit data as a float. Returns the value read.
    uint32_t xfer(uint16_t a, bool read, uint32_t v, bool wide = false, uint8_t mode = 3) {
        uint8_t tx[6] = {uint8_t((read ? a | 0x8000 : a & 0x7FFF) >> 8), uint8_t(a), uint8_t(v)};
        for (int i = 0; wide && i < 4; ++i)
            tx[2 + i] = uint8_t(v >> (24 - 8 * i));
        uint8_t rx[6];
        emu->transfer(t, mode, tx, rx, wide ? 6 : 3);
        t += 10;
        return wide ? (uint32_t(rx[2]) << 24) | (uint32_t(rx[3]) << 16) | (uint32_t(rx[4]) << 8) |
                          rx[5]
                    : rx[2];
    }
    void w8(uint16_t a, uint8_t v, uint8_t mode = 3) { xfer(a, false, v, false, mode); }
    uint8_t r8(uint16_t a, uint8_t mode = 3) { return uint8_t(xfer(a, true, 0xFF, false, mode)); }
    void w32f(uint16_t a, float f) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        xfer(a, false, u, true);
    }
    float r32f(uint16_t a) {
        const uint32_t u = xfer(a, true, 0xFFFFFFFF, true);
        float f;
        std::memcpy(&f, &u, 4);
        return f;
    }
    // A move as the driver starts it (direction word, period, count, start).
    void start(uint16_t base, bool dir_bit, int pulses, uint16_t period = 392) {
        const uint8_t regs[][2] = {{0x02, uint8_t(dir_bit ? 0x96 : 0x16)}, {0x04, uint8_t(period)},
                                   {0x05, uint8_t(period >> 8)},           {0x06, uint8_t(pulses)},
                                   {0x07, uint8_t(pulses >> 8)},           {0x0E, 1}};
        for (const auto& r : regs)
            w8(uint16_t(base + r[0]), r[1]);
    }
    // The same, run to its end.
    void move(uint16_t base, bool dir_bit, int pulses) {
        start(base, dir_bit, pulses);
        for (int i = 0; i < 100000 && r8(uint16_t(base + 0x0E)) == 1; ++i) {
        }
    }

    vcam::LensMechanics mech;
    std::unique_ptr<Lc898201Emu> emu;
    uint64_t t = 1000;
};

TEST_F(Lc898201EmuTest, BusyLastsThePulseTrainAndDirectionBitsMoveEachChannelItsWay) {
    make({}, 1000, 3000);
    // 16 zoom steps: 64 pulses x 392 x 0.2 us = 5017.6 us.
    start(0x0100, false, 64);
    const uint64_t t0 = t - 10;
    EXPECT_EQ(r8(0x010E), 1) << "busy on the very next read";
    t = t0 + 5000;
    EXPECT_EQ(r8(0x010E), 1);
    t = t0 + 5030;
    EXPECT_EQ(r8(0x010E), 0);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1016.0) << "zoom word 0x16 raises the zoom";
    move(0x0100, true, 40);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1006.0) << "4 pulses a step";
    move(0x0140, true, 20);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 3010.0) << "focus word 0x96 raises, 2 pulses a step";
}

TEST_F(Lc898201EmuTest, BacklashIsTakenUpEndStopsLosePulsesAndRestartsAreCounted) {
    Lc898201Config cfg;
    cfg.zoom_backlash = 3;
    cfg.zoom_stop_max = 1020;
    make(cfg, 1000, 3000);
    move(0x0100, false, 40);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1007.0) << "rising: the first 3 steps take up play";
    move(0x0100, true, 8);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1007.0) << "reversal inside the play: no motion";
    move(0x0100, true, 20);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1003.0);
    move(0x0100, false, 4 * 30);  // 3 steps of play, 17 to the stop, 10 against it
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1020.0);
    EXPECT_EQ(emu->lost_pulses(), 4u * 10);
    w8(0x010E, 1);  // the last move's settings again, and a start while it runs
    w8(0x010E, 1);
    EXPECT_EQ(emu->restarts_while_busy(), 1u);
}

TEST_F(Lc898201EmuTest, HomeSensorsAreCrossWiredAndNeedTheirSupply) {
    make({}, 6400, 2000);  // zoom above its edge, focus below its edge: both lit
    EXPECT_EQ(r8(0x014C) & 0x10, 0) << "unpowered";
    w8(0x01A0, 0x11);
    EXPECT_EQ(r8(0x014C) & 0x10, 0x10) << "zoom sensor in the focus block";
    EXPECT_EQ(r8(0x010C) & 0x10, 0x10) << "focus sensor in the zoom block";
    emu->power_on(6377.75, 2400.5, t);
    EXPECT_EQ(r8(0x014C) & 0x10, 0);
    EXPECT_EQ(r8(0x010C) & 0x10, 0);
    emu->config().zoom_sensor = SensorFault::kStuckOn;
    EXPECT_EQ(r8(0x014C) & 0x10, 0x10);
}

TEST_F(Lc898201EmuTest, FramesInAnotherModeAreIgnoredAndStuckBusyNeverClears) {
    Lc898201Config cfg;
    cfg.focus_busy_stuck = true;
    make(cfg, 0, 0);
    w8(0x0101, 0x82, 0x0F);  // MS41908 mode: never reaches the chip
    EXPECT_EQ(r8(0x0101), 0x00);
    w8(0x0101, 0x82);
    EXPECT_EQ(r8(0x0101, 0x0F), 0x00) << "a probe in the wrong mode reads 0";
    EXPECT_EQ(r8(0x0101), 0x82);
    EXPECT_EQ(emu->frames_ignored(), 2u);
    t += 10000000;
    EXPECT_EQ(r8(0x014E), 1);
    EXPECT_EQ(r8(0x010E), 0);
}

// The Hall reading rises with the offset and scales with the bias; the iris follows the open-loop
// drive, in servo mode the latched target, and closes with the drive off.
TEST_F(Lc898201EmuTest, HallReadingAndIrisFollowOffsetBiasDriveAndServoTarget) {
    make({}, 0, 0);
    const std::pair<uint16_t, uint8_t> setup[] = {
        {0x0314, 0x80}, {0x000C, 0}, {0x007C, 64}, {0x0079, 150}};
    for (const auto& r : setup)
        w8(r.first, r.second);
    w32f(0x122E, 1.0f);
    t += 1000000;  // iris settles open
    const float open = r32f(0x1230);
    EXPECT_NEAR(open, 0.98633f, 1e-4f) << "window centre at the unit's Hall centre";
    w8(0x0079, 155);
    const float up = r32f(0x1230);
    EXPECT_GT(up - open, 0.002f);
    EXPECT_LT(up - open, 0.005f);
    w8(0x007C, 80);
    EXPECT_GT(r32f(0x1230), up) << "bias acts as a gain";
    w32f(0x122E, -1.0f);
    t += 1000000;
    EXPECT_LT(r32f(0x1230), -0.9f) << "driven closed";

    w8(0x007C, 64);
    w8(0x0079, 150);
    w8(0x000C, 7);
    w32f(0x1027, -0.5f);
    t += 1000000;
    r8(0x0000);  // the mechanics run on the time of the frames
    EXPECT_GT(emu->iris_opening(), 0.9) << "target not yet taken: still the power-on 1.0";
    w8(0x000D, 1);
    t += 1000000;
    EXPECT_NEAR(r32f(0x1230), -0.5f, 1e-3f);
    EXPECT_GT(emu->iris_opening(), 0.1);
    EXPECT_LT(emu->iris_opening(), 0.5);
    w8(0x0314, 0x00);
    t += 1000000;
    r8(0x0000);
    EXPECT_LT(emu->iris_opening(), 0.01);
}

}  // namespace

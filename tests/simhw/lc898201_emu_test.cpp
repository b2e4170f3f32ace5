// LC898201 emulator: register behaviour as the daemon's driver relies on it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sim/hw/lc898201_emu.h"

namespace {

using vcam::LensMechanics;
using vcam::hw::Lc898201Config;
using vcam::hw::Lc898201Emu;
using vcam::hw::SensorFault;

class LcEmuTest : public ::testing::Test {
  protected:
    void make(const Lc898201Config& cfg, double zoom, double focus) {
        emu = std::make_unique<Lc898201Emu>(mech, cfg);
        emu->power_on(zoom, focus, 0);
    }
    void w8(uint16_t a, uint8_t v, uint8_t mode = 3) {
        const uint8_t tx[3] = {uint8_t((a & 0x7FFF) >> 8), uint8_t(a), v};
        uint8_t rx[3];
        emu->transfer(t, mode, tx, rx, 3);
        t += 10;
    }
    uint8_t r8(uint16_t a, uint8_t mode = 3) {
        const uint8_t tx[3] = {uint8_t((a | 0x8000) >> 8), uint8_t(a), 0xFF};
        uint8_t rx[3];
        emu->transfer(t, mode, tx, rx, 3);
        t += 10;
        return rx[2];
    }
    float r32f(uint16_t a) {
        const uint8_t tx[6] = {uint8_t((a | 0x8000) >> 8), uint8_t(a), 0xFF, 0xFF, 0xFF, 0xFF};
        uint8_t rx[6];
        emu->transfer(t, 3, tx, rx, 6);
        t += 10;
        const uint32_t u =
            (uint32_t(rx[2]) << 24) | (uint32_t(rx[3]) << 16) | (uint32_t(rx[4]) << 8) | rx[5];
        float f;
        std::memcpy(&f, &u, 4);
        return f;
    }
    void w32f(uint16_t a, float f) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        const uint8_t tx[6] = {uint8_t((a & 0x7FFF) >> 8), uint8_t(a),      uint8_t(u >> 24),
                               uint8_t(u >> 16),           uint8_t(u >> 8), uint8_t(u)};
        uint8_t rx[6];
        emu->transfer(t, 3, tx, rx, 6);
        t += 10;
    }
    // Zoom move as the driver starts it: direction word, count, period, start.
    void zoom_move(bool dir_bit, int steps, uint16_t period = 392) {
        w8(0x0102, dir_bit ? 0x96 : 0x16);
        w8(0x0104, uint8_t(period));
        w8(0x0105, uint8_t(period >> 8));
        w8(0x0106, uint8_t(steps * 4));
        w8(0x0107, uint8_t((steps * 4) >> 8));
        w8(0x010E, 1);
    }
    void wait_idle() {
        for (int i = 0; i < 100000 && r8(0x010E) == 1; ++i) {
        }
    }

    LensMechanics mech;
    std::unique_ptr<Lc898201Emu> emu;
    uint64_t t = 1000;
};

TEST_F(LcEmuTest, BusyRisesAtStartAndFallsAfterThePulseTrain) {
    make({}, 1000, 3000);
    zoom_move(false, 16, 392);  // 64 pulses x 392 x 0.2 us = 5017.6 us
    const uint64_t t0 = t - 10;
    EXPECT_EQ(r8(0x010E), 1) << "busy on the very next read";
    t = t0 + 5000;
    EXPECT_EQ(r8(0x010E), 1);
    t = t0 + 5030;
    EXPECT_EQ(r8(0x010E), 0);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1016.0) << "direction word 0x16 raises the zoom";
    zoom_move(true, 10);
    wait_idle();
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1006.0);
}

TEST_F(LcEmuTest, FocusDirectionBitRaisesAndCountsTwoPulsesPerStep) {
    make({}, 1000, 3000);
    w8(0x0142, 0x96);
    w8(0x0146, 20);  // 10 steps
    w8(0x014E, 1);
    for (int i = 0; i < 10000 && r8(0x014E) == 1; ++i) {
    }
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 3010.0);
}

TEST_F(LcEmuTest, BacklashIsTakenUpOnReversalBeforeTheCarriageMoves) {
    Lc898201Config cfg;
    cfg.zoom_backlash = 3;
    make(cfg, 1000, 3000);
    zoom_move(false, 10);
    wait_idle();
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1007.0) << "rising: the first 3 steps take up play";
    zoom_move(true, 2);
    wait_idle();
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1007.0) << "reversal inside the play: no motion";
    zoom_move(true, 5);
    wait_idle();
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1003.0);
}

TEST_F(LcEmuTest, EndStopsLosePulses) {
    Lc898201Config cfg;
    cfg.zoom_stop_max = 1005;
    make(cfg, 1000, 3000);
    zoom_move(false, 20);
    wait_idle();
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 1005.0);
    EXPECT_EQ(emu->lost_pulses(), 60u);
}

TEST_F(LcEmuTest, HomeSensorsAreCrossWiredAndNeedTheirSupply) {
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

TEST_F(LcEmuTest, FramesInAnotherModeAreIgnored) {
    make({}, 0, 0);
    w8(0x0101, 0x82, 0x0F);  // MS41908 mode: never reaches the chip
    EXPECT_EQ(r8(0x0101), 0x00);
    w8(0x0101, 0x82);
    EXPECT_EQ(r8(0x0101, 0x0F), 0x00) << "a probe in the wrong mode reads 0";
    EXPECT_EQ(r8(0x0101), 0x82);
    EXPECT_EQ(emu->frames_ignored(), 2u);
}

TEST_F(LcEmuTest, StuckBusyNeverClears) {
    Lc898201Config cfg;
    cfg.focus_busy_stuck = true;
    make(cfg, 0, 0);
    t += 10000000;
    EXPECT_EQ(r8(0x014E), 1);
    EXPECT_EQ(r8(0x010E), 0);
}

TEST_F(LcEmuTest, HallReadingRisesWithOffsetAndBiasAndFollowsTheOpenLoopDrive) {
    make({}, 0, 0);
    w8(0x0314, 0x80);
    w8(0x000C, 0);
    w8(0x007C, 64);
    w8(0x0079, 150);
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
}

TEST_F(LcEmuTest, ServoModeHoldsTheLatchedTargetAndDriveOffCloses) {
    make({}, 0, 0);
    w8(0x0314, 0x80);
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
    const double half = emu->iris_opening();
    EXPECT_GT(half, 0.1);
    EXPECT_LT(half, 0.5);
    w8(0x0314, 0x00);
    t += 1000000;
    r8(0x0000);
    EXPECT_LT(emu->iris_opening(), 0.01);
}

}  // namespace

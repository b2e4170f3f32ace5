// MS41908 emulator: shadow registers latched on the vd edge, pulse trains and the busy line,
// mechanical play and end stops, sensor supply, iris, frames in the wrong bus mode, reset; and
// the hardware server's wiring of the chip to the GPIO device and the bus.
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "sim/hw/hw_server.h"
#include "sim/hw/ms41908_emu.h"

namespace {

using vcam::LensMechanics;
using vcam::hw::Ms41908Config;
using vcam::hw::Ms41908Emu;
using vcam::hw::SensorFault;

class Ms41908EmuTest : public ::testing::Test {
  protected:
    void make(const Ms41908Config& c, double zoom = 3000, double focus = 3000) {
        emu = std::make_unique<Ms41908Emu>(mech, c);
        emu->power_on(zoom, focus, 0);
    }
    // A register write in the chip's own bus mode, at time t.
    void write(uint8_t reg, uint16_t v, uint64_t t, uint8_t mode = Ms41908Emu::kChipMode) {
        const uint8_t tx[3] = {reg, static_cast<uint8_t>(v & 0xFF), static_cast<uint8_t>(v >> 8)};
        uint8_t rx[3];
        emu->transfer(t, mode, tx, rx, 3);
    }
    uint16_t read(uint8_t reg, uint64_t t, uint8_t mode = Ms41908Emu::kChipMode) {
        const uint8_t tx[3] = {static_cast<uint8_t>(reg | 0x40), 0, 0};
        uint8_t rx[3] = {0xEE, 0xEE, 0xEE};
        emu->transfer(t, mode, tx, rx, 3);
        return static_cast<uint16_t>(rx[1] | (rx[2] << 8));
    }
    // A move as the driver's move_both writes it, strobed at t.
    void move(uint16_t zoom_word, uint16_t zoom_period, uint16_t focus_word, uint16_t focus_period,
              uint64_t t) {
        write(0x2A, focus_period, t);
        write(0x29, focus_word, t);
        write(0x25, zoom_period, t);
        write(0x24, zoom_word, t);
        emu->vd_rise(t);
    }

    LensMechanics mech;
    std::unique_ptr<Ms41908Emu> emu;
};

TEST_F(Ms41908EmuTest, MotorSettingsWaitForTheStrobeThenRunTheirPulseTrain) {
    Ms41908Config c;
    c.time_unit_us = 1.0;
    make(c);
    // 10 zoom steps up (20 pulses, bit 8 set), 100 us a pulse.
    write(0x25, 100, 0);
    write(0x24, 0x1500 | 20, 0);
    write(0x29, 0x1500, 0);
    emu->advance(50000);
    EXPECT_EQ(mech.snapshot().zoom, 3000.0) << "nothing moves before vd rises";
    EXPECT_FALSE(emu->pls());

    emu->vd_rise(50000);
    EXPECT_TRUE(emu->pls()) << "busy from the strobe on";
    emu->advance(50000 + 1000);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3005.0);
    EXPECT_TRUE(emu->pls());
    emu->advance(50000 + 1999);
    EXPECT_TRUE(emu->pls());
    emu->advance(50000 + 2000);
    EXPECT_FALSE(emu->pls());
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3010.0);

    // Focus: bit 8 set lowers it, one pulse a step; bit 8 clear raises it.
    move(0x1500, 100, 0x1500 | 7, 10, 60000);
    emu->advance(70000);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 2993.0);
    move(0x1400, 100, 0x1400 | 9, 10, 70000);
    emu->advance(80000);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 3002.0);
    // Zoom with bit 8 clear goes down.
    move(0x1400 | 8, 10, 0x1500, 10, 80000);
    emu->advance(90000);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3006.0);
    EXPECT_EQ(emu->strobes(), 4u);
}

TEST_F(Ms41908EmuTest, AStrobeWithoutCountsMovesNothingAndLatchesTheIris) {
    Ms41908Config c;
    c.iris_tau_us = 1000;
    make(c);
    write(0x00, 1023 - 600, 0);
    emu->advance(100000);
    EXPECT_EQ(mech.snapshot().iris, 0.0) << "the iris target waits for the strobe too";
    write(0x24, 0x1500, 0);
    write(0x29, 0x1500, 0);
    emu->vd_rise(100000);
    EXPECT_FALSE(emu->pls());
    emu->advance(100000 + 1000);
    EXPECT_NEAR(mech.snapshot().iris, 600.0 * (1 - std::exp(-1.0)), 1.0);
    emu->advance(200000);
    EXPECT_NEAR(mech.snapshot().iris, 600.0, 0.01);
    EXPECT_EQ(mech.snapshot().zoom, 3000.0);
    EXPECT_EQ(mech.snapshot().focus, 3000.0);
}

TEST_F(Ms41908EmuTest, ReversalsTakeUpThePlayBeforeTheCarriageMoves) {
    Ms41908Config c;
    c.time_unit_us = 0.001;
    c.zoom_backlash = 1;
    c.focus_backlash = 2;
    make(c);
    uint64_t t = 0;
    auto step = [&](uint16_t zw, uint16_t fw) {
        move(zw, 10, fw, 10, t += 1000);
        emu->advance(t += 1000);
    };
    // At power-on the slack lies on the rising side of each carriage.
    step(0x1500 | 20, 0x1500 | 5);  // zoom up 10 takes up the play first; focus down 5 at once
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3009.0);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 2995.0);
    step(0x1500 | 20, 0x1500 | 5);  // same directions: full travel
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3019.0);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 2990.0);
    step(0x1400 | 22, 0x1400 | 7);  // reversals with the play added, as the daemon does
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3009.0);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 2995.0);
    EXPECT_DOUBLE_EQ(emu->zoom_motor(), 3009.0) << "falling, the carriage rides on the motor";
    EXPECT_DOUBLE_EQ(emu->focus_motor(), 2997.0) << "rising, it lags by the play";
}

TEST_F(Ms41908EmuTest, PulsesPastAnEndStopAreLost) {
    Ms41908Config c;
    c.time_unit_us = 0.001;
    c.focus_stop_min = 2990;
    make(c, 3000, 3000);
    move(0x1500, 10, 0x1500 | 50, 10, 1000);
    emu->advance(100000);
    EXPECT_DOUBLE_EQ(mech.snapshot().focus, 2990.0);
    EXPECT_EQ(emu->lost_pulses(), 40u);
    EXPECT_FALSE(emu->pls());
}

TEST_F(Ms41908EmuTest, HomeSensorsNeedTheirSupplyBitAndFollowTheCarriage) {
    Ms41908Config c;
    make(c, 6378, 2401);
    EXPECT_FALSE(emu->zoom_sensor()) << "unpowered";
    write(0x24, 0x1D00, 10);  // supply on at the write, no strobe needed
    EXPECT_TRUE(emu->zoom_sensor());
    write(0x29, 0x1D00, 10);
    EXPECT_FALSE(emu->focus_sensor()) << "focus lit at or below its edge only";
    emu->config().time_unit_us = 0.001;
    move(0x1C00 | 2, 10, 0x1D00 | 1, 10, 100);
    emu->advance(1000);
    EXPECT_FALSE(emu->zoom_sensor());
    EXPECT_TRUE(emu->focus_sensor());
    write(0x29, 0x1500, 2000);
    EXPECT_FALSE(emu->focus_sensor());

    emu->config().zoom_sensor = SensorFault::kStuckOn;
    emu->config().focus_sensor = SensorFault::kStuckOff;
    EXPECT_TRUE(emu->zoom_sensor());
    write(0x29, 0x1D00, 3000);
    EXPECT_FALSE(emu->focus_sensor());
}

TEST_F(Ms41908EmuTest, FramesInAnotherBusModeAreIgnored) {
    make(Ms41908Config{});
    write(0x24, 0x1234, 0);
    EXPECT_EQ(read(0x24, 0), 0x1234);
    // The LC898201 probe (write 0x82 to 0x0101, read it back) in that chip's mode.
    write(0x01, 0x8201, 10, 0x03);
    EXPECT_EQ(read(0x01, 20, 0x03), 0);
    EXPECT_EQ(read(0x01, 30), 0) << "the write never landed";
    EXPECT_EQ(emu->frames_ignored(), 2u);
    // Bit 7 of the first byte must be 0.
    const uint8_t tx[3] = {0xA4, 0x11, 0x22};
    uint8_t rx[3];
    emu->transfer(40, Ms41908Emu::kChipMode, tx, rx, 3);
    EXPECT_EQ(read(0x24, 50), 0x1234);
}

TEST_F(Ms41908EmuTest, ResetClearsRegistersAndStopsTheMotorsButNotTheLens) {
    Ms41908Config c;
    c.time_unit_us = 1;
    make(c);
    move(0x1D00 | 200, 100, 0x1D00, 100, 0);
    emu->advance(5000);
    const double z = mech.snapshot().zoom;
    EXPECT_TRUE(emu->pls());
    emu->reset(5000);
    EXPECT_FALSE(emu->pls());
    EXPECT_EQ(emu->reg(0x24), 0);
    EXPECT_FALSE(emu->zoom_sensor());
    emu->advance(100000);
    EXPECT_EQ(mech.snapshot().zoom, z);
}

TEST_F(Ms41908EmuTest, AStrobeWhilePulsingReplacesTheRestAndIsCounted) {
    Ms41908Config c;
    c.time_unit_us = 1;
    make(c);
    move(0x1500 | 100, 100, 0x1500, 100, 0);   // 50 steps, 10 ms
    move(0x1500 | 2, 100, 0x1500, 100, 1000);  // after 10 pulses
    emu->advance(100000);
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 3006.0);
    EXPECT_EQ(emu->strobes_while_busy(), 1u);
    emu->config().busy_stuck = true;
    EXPECT_TRUE(emu->pls());
}

// ---- The chip on the hardware server -----------------------------------------------------------

using hwwire::HwReply;
using hwwire::HwRequest;
using hwwire::Op;
using vcam::hw::HwConfig;
using vcam::hw::HwServer;

class MsServerTest : public ::testing::Test {
  protected:
    HwReply call(Op op, int handle, uint32_t request = 0, uint32_t value = 0,
                 const char* path = "") {
        HwRequest r;
        std::memset(&r, 0, sizeof r);
        r.magic = hwwire::kMagic;
        r.version = hwwire::kVersion;
        r.op = static_cast<uint16_t>(op);
        r.handle = handle;
        r.time_us = (t += 10);
        r.request = request;
        r.value = value;
        std::snprintf(r.path, sizeof r.path, "%s", path);
        return server->handle(r);
    }
    HwReply frame(int handle, uint8_t b0, uint8_t b1, uint8_t b2) {
        HwRequest r;
        std::memset(&r, 0, sizeof r);
        r.magic = hwwire::kMagic;
        r.version = hwwire::kVersion;
        r.op = static_cast<uint16_t>(Op::kSpiTransfer);
        r.handle = handle;
        r.time_us = (t += 10);
        r.len = 3;
        r.value = 1;
        r.tx[0] = b0;
        r.tx[1] = b1;
        r.tx[2] = b2;
        return server->handle(r);
    }
    int open_spi(const char* path, uint8_t mode) {
        const int fd = call(Op::kSpiOpen, -1, 0, 0, path).result;
        call(Op::kSpiIoctl, fd, SPI_IOC_WR_MODE, mode);
        return fd;
    }
    int gpio(int fd, uint32_t req, int pin) {
        return static_cast<int>(call(Op::kGpioIoctl, fd, req, static_cast<uint32_t>(pin)).value);
    }
    void make(const std::string& settings) {
        HwConfig cfg;
        std::string err;
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, settings, &err)) << err;
        server = std::make_unique<HwServer>(mech, cfg);
        server->power_on(6370, 2400);
    }

    LensMechanics mech;
    std::unique_ptr<HwServer> server;
    uint64_t t = 0;
};

TEST_F(MsServerTest, ConfigurationSelectsTheChipAndSharesTheMechanicalKeys) {
    HwConfig cfg;
    std::string err;
    ASSERT_TRUE(vcam::hw::hw_config_parse_list(
        cfg, "chip=ms41908,zoom_backlash=1.5,focus_stop_min=-10,fault.focus_home=stuck_on", &err));
    EXPECT_EQ(cfg.chip, vcam::hw::ChipKind::kMs41908);
    EXPECT_EQ(cfg.ms.zoom_backlash, 1.5);
    EXPECT_EQ(cfg.lc.zoom_backlash, 1.5);
    EXPECT_EQ(cfg.ms.focus_stop_min, -10.0);
    EXPECT_EQ(cfg.ms.focus_sensor, SensorFault::kStuckOn);
    EXPECT_EQ(cfg.ms.time_unit_us, 0.4) << "each chip keeps its own default period unit";
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "chip=ms4190", &err));
    ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, "fault.focus_busy=stuck", &err));
    EXPECT_TRUE(cfg.ms.busy_stuck) << "one busy line for both channels";
}

TEST_F(MsServerTest, GpioDeviceCarriesTheStrobeTheBusyLineAndTheSensors) {
    make("chip=ms41908,time_unit_us=0.01");
    const int g = call(Op::kGpioOpen, -1, 0, 2, "/dev/vhd_gpio").result;
    const int s = open_spi("/dev/spidev4.0", 0x0F);
    ASSERT_GE(g, 3);
    ASSERT_GE(s, 3);
    gpio(g, 0x40044266, 112);    // vd as an output, high
    frame(s, 0x24, 0x00, 0x1D);  // zoom word with supply, no count
    EXPECT_EQ(gpio(g, 0x4004426A, 50), 0) << "zoom below its edge";
    gpio(g, 0x40044268, 112);
    frame(s, 0x25, 100, 0);
    frame(s, 0x24, 20, 0x1D);  // 10 steps up
    EXPECT_EQ(gpio(g, 0x4004426A, 62), 0) << "shadow only";
    gpio(g, 0x40044267, 112);
    EXPECT_EQ(gpio(g, 0x4004426A, 62), 1) << "pls high from the edge on";
    gpio(g, 0x40044267, 112);  // vd already high: not an edge
    server->with_ms([](HwConfig&, vcam::hw::Ms41908Emu* ms, auto&) {
        ASSERT_NE(ms, nullptr);
        EXPECT_EQ(ms->strobes(), 1u);
    });
    t += 1000;
    EXPECT_EQ(gpio(g, 0x4004426A, 62), 0);
    EXPECT_EQ(gpio(g, 0x4004426A, 50), 1) << "6380 is above the zoom edge";
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 6380.0);
    EXPECT_EQ(gpio(g, 0x4004426A, 111), 0) << "focus sensor unpowered";

    // The reset pulse clears the chip: the supply goes with it.
    gpio(g, 0x40044266, 38);
    gpio(g, 0x40044265, 38);
    gpio(g, 0x40044266, 38);
    EXPECT_EQ(gpio(g, 0x4004426A, 50), 0);
}

TEST_F(MsServerTest, OnlyTheConfiguredBusHasTheChipAndOnlyItsModeReachesIt) {
    make("chip=ms41908,spi_bus=2");
    const int bus4 = open_spi("/dev/spidev4.0", 0x0F);
    const int lc = open_spi("/dev/spidev2.0", 0x03);
    const int bus2 = open_spi("/dev/spidev2.0", 0x0F);
    frame(bus4, 0x24, 0x34, 0x12);
    frame(lc, 0x01, 0x01, 0x82);  // the LC898201 probe
    EXPECT_EQ(frame(lc, 0x81, 0x01, 0xFF).rx[2], 0);
    EXPECT_EQ(frame(bus2, 0x64, 0, 0).rx[1], 0) << "the write on bus 4 went nowhere";
    frame(bus2, 0x24, 0x34, 0x12);
    const HwReply r = frame(bus2, 0x64, 0, 0);
    EXPECT_EQ(r.rx[1], 0x34);
    EXPECT_EQ(r.rx[2], 0x12);
}

}  // namespace

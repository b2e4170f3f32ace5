// Hardware server: configuration, descriptor state, bus routing, the GPIO device wired to the
// chips (strobe, busy line, home sensors, reset), fault switches and malformed requests.
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include <algorithm>
#include <cstring>

#include "sim/hw/hw_server.h"

namespace {

using hwwire::HwReply;
using hwwire::HwRequest;
using hwwire::Op;
using vcam::hw::HwConfig;
using vcam::hw::HwServer;
using vcam::hw::SensorFault;

constexpr uint32_t kOutHigh = 0x40044266, kOutLow = 0x40044265, kVdHigh = 0x40044267,
                   kVdLow = 0x40044268, kRead = 0x4004426A;

TEST(HwEmuConfigTest, MechanicalKeysSetBothChipsAndBadSettingsAreRefused) {
    HwConfig cfg;
    std::string err;
    ASSERT_TRUE(
        vcam::hw::hw_config_parse_list(cfg,
                                       "chip=ms41908, zoom_backlash = 2.5,focus_stop_min=-10,"
                                       "fault.focus_home=stuck_off,spi_bus=3,fault.zoom_busy=stuck",
                                       &err))
        << err;
    EXPECT_EQ(cfg.chip, vcam::hw::ChipKind::kMs41908);
    EXPECT_EQ(cfg.lc.zoom_backlash, 2.5);
    EXPECT_EQ(cfg.ms.zoom_backlash, 2.5);
    EXPECT_EQ(cfg.ms.focus_stop_min, -10.0);
    EXPECT_EQ(cfg.lc.focus_sensor, SensorFault::kStuckOff);
    EXPECT_EQ(cfg.ms.focus_sensor, SensorFault::kStuckOff);
    EXPECT_EQ(cfg.spi_bus, 3);
    EXPECT_TRUE(cfg.lc.zoom_busy_stuck);
    EXPECT_TRUE(cfg.ms.busy_stuck) << "the MS41908 has one busy line for both channels";
    EXPECT_NE(cfg.ms.time_unit_us, cfg.lc.time_unit_us) << "each chip keeps its own period unit";
    for (const char* bad : {"zoom_backlash=-1", "spi_bus=5", "chip=ms4190", "chip",
                            "time_unit_us=0", "fault.zoom_busy=yes"})
        EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, bad, &err)) << bad;
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "bogus=1", &err));
    EXPECT_NE(err.find("bogus"), std::string::npos);
}

class HwEmuServerTest : public ::testing::Test {
  protected:
    void make(const std::string& settings) {
        HwConfig cfg;
        std::string err;
        ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, settings, &err)) << err;
        server = std::make_unique<HwServer>(mech, cfg);
        server->power_on(6370, 2400);
    }
    HwReply call(Op op, int handle, uint32_t request = 0, uint32_t value = 0, const char* path = "",
                 std::initializer_list<uint8_t> tx = {}) {
        HwRequest r;
        std::memset(&r, 0, sizeof r);
        r.magic = hwwire::kMagic;
        r.version = hwwire::kVersion;
        r.op = static_cast<uint16_t>(op);
        r.seq = ++seq;
        r.handle = handle;
        r.time_us = (t += 10);
        r.request = request;
        r.value = value;
        std::snprintf(r.path, sizeof r.path, "%s", path);
        r.len = static_cast<uint32_t>(tx.size());
        std::copy(tx.begin(), tx.end(), r.tx);
        return server->handle(r);
    }
    HwReply frame(int fd, std::initializer_list<uint8_t> tx) {
        return call(Op::kSpiTransfer, fd, 0, 1, "", tx);
    }
    int open_spi(const char* path, uint8_t mode) {
        const int fd = call(Op::kSpiOpen, -1, 0, 0, path).result;
        call(Op::kSpiIoctl, fd, SPI_IOC_WR_MODE, mode);
        return fd;
    }
    int gpio(int fd, uint32_t req, int pin) {
        return static_cast<int>(call(Op::kGpioIoctl, fd, req, static_cast<uint32_t>(pin)).value);
    }

    vcam::LensMechanics mech;
    std::unique_ptr<HwServer> server;
    uint32_t seq = 0;
    uint64_t t = 0;
};

TEST_F(HwEmuServerTest, OnlyTheChipsBusAnswersOnlyInItsModeAndDescriptorsKeepTheirSettings) {
    make("chip=ms41908,spi_bus=2");
    const int bus4 = open_spi("/dev/spidev4.0", 0x0F);
    const int lc = open_spi("/dev/spidev2.0", 0x03);
    const int bus2 = open_spi("/dev/spidev2.0", 0x0F);
    EXPECT_GE(std::min({bus4, lc, bus2}), 3) << "every bus has its node; never 0..2";
    EXPECT_EQ(call(Op::kSpiIoctl, lc, SPI_IOC_RD_MODE).value, 3u);
    call(Op::kSpiIoctl, bus2, SPI_IOC_WR_MAX_SPEED_HZ, 5000000);
    EXPECT_EQ(call(Op::kSpiIoctl, bus2, SPI_IOC_RD_MAX_SPEED_HZ).value, 5000000u);
    frame(bus4, {0x24, 0x34, 0x12});
    frame(lc, {0x01, 0x01, 0x82});  // the LC898201 probe in its own mode
    EXPECT_EQ(frame(lc, {0x81, 0x01, 0xFF}).rx[2], 0);
    EXPECT_EQ(frame(bus2, {0x64, 0, 0}).rx[1], 0) << "neither write reached the chip";
    frame(bus2, {0x24, 0x34, 0x12});
    const HwReply r = frame(bus2, {0x64, 0, 0});
    EXPECT_EQ(r.result, 3);
    EXPECT_EQ(r.rx[1] | (r.rx[2] << 8), 0x1234);
    EXPECT_LT(call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev9.0").result, 0);
    EXPECT_EQ(call(Op::kSpiClose, bus2).result, 0);
    EXPECT_LT(frame(bus2, {0x64, 0, 0}).result, 0) << "closed descriptor";
}

TEST_F(HwEmuServerTest, FaultSwitchesFailOpenIoctlAndTransfers) {
    make("fault.spi_ioctl=rd_bits");
    const int fd = call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev4.0").result;
    EXPECT_EQ(call(Op::kSpiIoctl, fd, SPI_IOC_WR_BITS_PER_WORD, 8).result, 0);
    EXPECT_LT(call(Op::kSpiIoctl, fd, SPI_IOC_RD_BITS_PER_WORD).result, 0);
    server->with_lock([](HwConfig& c, auto*, auto&) { c.spi_transfer_error = true; });
    EXPECT_EQ(frame(fd, {0x81, 0x01, 0xFF}).result, -5);
    server->with_lock([](HwConfig& c, auto*, auto&) { c.spi_open_error = true; });
    EXPECT_LT(call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev4.0").result, 0);
}

TEST_F(HwEmuServerTest, GpioLevelsAndTheResetPulseClearingTheLc898201) {
    make("");
    const int spi = open_spi("/dev/spidev4.0", 3);
    frame(spi, {0x01, 0x01, 0x82});
    const int g = call(Op::kGpioOpen, -1, 0, 0, "/dev/vhd_gpio").result;
    ASSERT_GE(g, 3);
    EXPECT_EQ(call(Op::kGpioIoctl, g, kOutHigh, 38).result, 0);
    EXPECT_EQ(frame(spi, {0x81, 0x01, 0xFF}).rx[2], 0x82);
    gpio(g, kOutLow, 38);  // reset asserted
    gpio(g, kOutHigh, 38);
    EXPECT_EQ(frame(spi, {0x81, 0x01, 0xFF}).rx[2], 0) << "registers back to power-on";
    gpio(g, kVdHigh, 112);
    EXPECT_EQ(gpio(g, kRead, 112), 1);
    gpio(g, kVdLow, 112);
    EXPECT_EQ(gpio(g, kRead, 112), 0);
    EXPECT_LT(call(Op::kGpioIoctl, g, 0x40044299, 1).result, 0) << "unknown request";
    EXPECT_LT(call(Op::kGpioIoctl, spi, kRead, 1).result, 0) << "not a GPIO descriptor";
    make("gpio=absent");
    EXPECT_LT(call(Op::kGpioOpen, -1, 0, 0, "/dev/vhd_gpio").result, 0);
}

TEST_F(HwEmuServerTest, Ms41908TakesItsStrobeFromVdAndDrivesPlsAndTheSensors) {
    make("chip=ms41908,time_unit_us=0.01");
    const int g = call(Op::kGpioOpen, -1, 0, 0, "/dev/vhd_gpio").result;
    const int s = open_spi("/dev/spidev4.0", 0x0F);
    gpio(g, kOutHigh, 112);        // vd as an output, high
    frame(s, {0x24, 0x00, 0x1D});  // zoom word with the supply, no count
    EXPECT_EQ(gpio(g, kRead, 50), 0) << "zoom below its edge";
    gpio(g, kVdLow, 112);
    frame(s, {0x25, 100, 0});
    frame(s, {0x24, 20, 0x1D});  // 10 steps up
    EXPECT_EQ(gpio(g, kRead, 62), 0) << "shadow registers only";
    gpio(g, kVdHigh, 112);
    EXPECT_EQ(gpio(g, kRead, 62), 1) << "pls high from the edge on";
    gpio(g, kVdHigh, 112);  // vd already high: not an edge
    server->with_ms(
        [](HwConfig&, vcam::hw::Ms41908Emu* ms, auto&) { EXPECT_EQ(ms->strobes(), 1u); });
    t += 1000;
    EXPECT_EQ(gpio(g, kRead, 62), 0);
    EXPECT_EQ(gpio(g, kRead, 50), 1) << "6380 is above the zoom edge";
    EXPECT_DOUBLE_EQ(mech.snapshot().zoom, 6380.0);
    EXPECT_EQ(gpio(g, kRead, 111), 0) << "focus sensor unpowered";
    // The reset pulse clears the chip: the supply goes with it.
    for (uint32_t req : {kOutHigh, kOutLow, kOutHigh})
        gpio(g, req, 38);
    EXPECT_EQ(gpio(g, kRead, 50), 0);
}

TEST_F(HwEmuServerTest, RequestsWithABadHeaderAreRefused) {
    make("");
    HwRequest r;
    std::memset(&r, 0, sizeof r);
    r.magic = hwwire::kMagic;
    r.version = 99;
    r.op = static_cast<uint16_t>(Op::kSpiOpen);
    std::snprintf(r.path, sizeof r.path, "/dev/spidev4.0");
    EXPECT_LT(server->handle(r).result, 0);
    EXPECT_EQ(server->requests(), 0u);
}

}  // namespace

// Hardware server: descriptor state, bus routing, GPIO device, fault switches and configuration.
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include <cstring>

#include "sim/hw/hw_server.h"

namespace {

using hwwire::HwReply;
using hwwire::HwRequest;
using hwwire::Op;
using vcam::LensMechanics;
using vcam::hw::HwConfig;
using vcam::hw::HwServer;

class HwServerTest : public ::testing::Test {
  protected:
    HwReply call(Op op, int handle, uint32_t request = 0, uint32_t value = 0,
                 const char* path = "") {
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
        return server->handle(r);
    }
    HwReply frame(int handle, std::initializer_list<uint8_t> tx, bool rx = true) {
        HwRequest r;
        std::memset(&r, 0, sizeof r);
        r.magic = hwwire::kMagic;
        r.version = hwwire::kVersion;
        r.op = static_cast<uint16_t>(Op::kSpiTransfer);
        r.seq = ++seq;
        r.handle = handle;
        r.time_us = (t += 10);
        r.len = static_cast<uint32_t>(tx.size());
        r.value = rx ? 1 : 0;
        std::copy(tx.begin(), tx.end(), r.tx);
        return server->handle(r);
    }
    int open_configured(const char* path, uint8_t mode) {
        const int fd = call(Op::kSpiOpen, -1, 0, 0, path).result;
        call(Op::kSpiIoctl, fd, SPI_IOC_WR_MODE, mode);
        return fd;
    }
    void make(const HwConfig& cfg) { server = std::make_unique<HwServer>(mech, cfg); }

    LensMechanics mech;
    std::unique_ptr<HwServer> server;
    uint32_t seq = 0;
    uint64_t t = 0;
};

TEST_F(HwServerTest, DescriptorsKeepTheirModeAndOnlyTheChipBusAnswers) {
    make(HwConfig{});
    const int fd = call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev4.0").result;
    EXPECT_GE(fd, 3) << "never 0..2";
    EXPECT_EQ(call(Op::kSpiIoctl, fd, SPI_IOC_WR_MODE, 3).result, 0);
    EXPECT_EQ(call(Op::kSpiIoctl, fd, SPI_IOC_RD_MODE).value, 3u);
    call(Op::kSpiIoctl, fd, SPI_IOC_WR_MAX_SPEED_HZ, 5000000);
    EXPECT_EQ(call(Op::kSpiIoctl, fd, SPI_IOC_RD_MAX_SPEED_HZ).value, 5000000u);
    frame(fd, {0x01, 0x01, 0x82}, false);
    const HwReply r = frame(fd, {0x81, 0x01, 0xFF});
    EXPECT_EQ(r.result, 3);
    EXPECT_EQ(r.rx[2], 0x82);

    const int other = open_configured("/dev/spidev2.0", 3);
    EXPECT_GE(other, 3) << "the node exists on every bus";
    EXPECT_EQ(frame(other, {0x81, 0x01, 0xFF}).rx[2], 0) << "no chip there";
    EXPECT_LT(call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev9.0").result, 0);
    EXPECT_EQ(call(Op::kSpiClose, fd).result, 0);
    EXPECT_LT(frame(fd, {0x81, 0x01, 0xFF}).result, 0) << "closed descriptor";
}

TEST_F(HwServerTest, FaultSwitchesFailOpenIoctlAndTransfers) {
    HwConfig cfg;
    std::string err;
    ASSERT_TRUE(vcam::hw::hw_config_parse_list(cfg, "fault.spi_ioctl=rd_bits", &err)) << err;
    make(cfg);
    const int fd = call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev4.0").result;
    EXPECT_EQ(call(Op::kSpiIoctl, fd, SPI_IOC_WR_BITS_PER_WORD, 8).result, 0);
    EXPECT_LT(call(Op::kSpiIoctl, fd, SPI_IOC_RD_BITS_PER_WORD).result, 0);

    server->with_lock([](HwConfig& c, auto*, auto&) { c.spi_transfer_error = true; });
    EXPECT_EQ(frame(fd, {0x81, 0x01, 0xFF}).result, -5);
    server->with_lock([](HwConfig& c, auto*, auto&) {
        c.spi_transfer_error = false;
        c.spi_open_error = true;
    });
    EXPECT_LT(call(Op::kSpiOpen, -1, 0, 0, "/dev/spidev4.0").result, 0);
}

TEST_F(HwServerTest, GpioDeviceReadsLevelsAndTheResetPulseClearsTheChip) {
    make(HwConfig{});
    const int spi = open_configured("/dev/spidev4.0", 3);
    frame(spi, {0x01, 0x01, 0x82}, false);
    const int g = call(Op::kGpioOpen, -1, 0, 0, "/dev/vhd_gpio").result;
    ASSERT_GE(g, 3);
    EXPECT_EQ(call(Op::kGpioIoctl, g, 0x40044266, 38).result, 0);
    EXPECT_EQ(frame(spi, {0x81, 0x01, 0xFF}).rx[2], 0x82);
    call(Op::kGpioIoctl, g, 0x40044265, 38);  // reset asserted
    call(Op::kGpioIoctl, g, 0x40044266, 38);
    EXPECT_EQ(frame(spi, {0x81, 0x01, 0xFF}).rx[2], 0) << "registers back to power-on";

    call(Op::kGpioIoctl, g, 0x40044267, 112);
    EXPECT_EQ(call(Op::kGpioIoctl, g, 0x4004426A, 112).value, 1u);
    call(Op::kGpioIoctl, g, 0x40044268, 112);
    EXPECT_EQ(call(Op::kGpioIoctl, g, 0x4004426A, 112).value, 0u);
    EXPECT_LT(call(Op::kGpioIoctl, g, 0x40044299, 1).result, 0);
    EXPECT_LT(call(Op::kGpioIoctl, spi, 0x4004426A, 1).result, 0) << "not a GPIO descriptor";

    HwConfig absent;
    absent.gpio_present = false;
    make(absent);
    EXPECT_LT(call(Op::kGpioOpen, -1, 0, 0, "/dev/vhd_gpio").result, 0);
}

TEST_F(HwServerTest, RequestsWithABadHeaderAreRefused) {
    make(HwConfig{});
    HwRequest r;
    std::memset(&r, 0, sizeof r);
    r.magic = hwwire::kMagic;
    r.version = 99;
    r.op = static_cast<uint16_t>(Op::kSpiOpen);
    std::snprintf(r.path, sizeof r.path, "/dev/spidev4.0");
    EXPECT_LT(server->handle(r).result, 0);
    EXPECT_EQ(server->requests(), 0u);
}

TEST(HwConfigTest, KeysAndValuesAreChecked) {
    HwConfig cfg;
    std::string err;
    EXPECT_TRUE(vcam::hw::hw_config_parse_list(
        cfg, "zoom_backlash = 2.5, fault.focus_home=stuck_off,spi_bus=3,fault.zoom_busy=stuck",
        &err))
        << err;
    EXPECT_DOUBLE_EQ(cfg.lc.zoom_backlash, 2.5);
    EXPECT_EQ(cfg.lc.focus_sensor, vcam::hw::SensorFault::kStuckOff);
    EXPECT_EQ(cfg.spi_bus, 3);
    EXPECT_TRUE(cfg.lc.zoom_busy_stuck);
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "zoom_backlash=-1", &err));
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "spi_bus=5", &err));
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "bogus=1", &err));
    EXPECT_NE(err.find("bogus"), std::string::npos);
    EXPECT_FALSE(vcam::hw::hw_config_parse_list(cfg, "chip", &err));
}

}  // namespace

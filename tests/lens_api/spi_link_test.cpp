// SPI links: wire frames byte for byte, the open sequences and their failures, open on the first
// transfer and retry after a failed open, rate-limited failure reports.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>

#include "base/dbgout.h"
#include "tests/lens_api/fake_devices.h"

namespace {

using lensfake::Call;
using testsupport::capture_stdout;
using Bytes = std::vector<uint8_t>;

using SpiLinkTest = lensfake::Rig<>;

TEST_F(SpiLinkTest, FramesAreByteExactAndReadsTakeOnlyTheBytesAfterTheAddress) {
    // The device clocks out 0xAA 0xBB during the address: never part of a value.
    board.on_transfer = [](const Call& c, uint8_t* rx) {
        const uint8_t answer[6] = {0xAA, 0xBB, 0x3F, 0x80, 0x01, 0x02};
        if (rx != nullptr)
            std::memcpy(rx, answer, c.tx.size());
    };
    const struct {
        std::function<uint32_t()> op;
        uint8_t mode;  // LC898201: mode 3; MS41908: mode 3, chip select high, LSB first
        Bytes tx;
        uint32_t result;
    } cases[] = {
        // LC898201: 16-bit address with bit 15 the read flag, 8- or 32-bit data big-endian.
        {[] { return spi_lc_write8(0x0101, 0x82); }, 0x03, {0x01, 0x01, 0x82}, 3},
        {[] { return spi_lc_write8(0x8101, 0x05); }, 0x03, {0x01, 0x01, 0x05}, 3},
        {[] { return spi_lc_read8(0x0101); }, 0x03, {0x81, 0x01, 0xFF}, 0x3F},
        {[] { return spi_lc_write32(0x1027, 0x3F7FE000); },
         0x03,
         {0x10, 0x27, 0x3F, 0x7F, 0xE0, 0x00},
         0},
        {[] { return spi_lc_read32(0x1230); },
         0x03,
         {0x92, 0x30, 0xFF, 0xFF, 0xFF, 0xFF},
         0x3F800102},
        // MS41908: 6-bit register with bit 6 the read flag, 16-bit data low byte first.
        {[] { return spi_ms_write(0x24, 0x1234); }, 0x0F, {0x24, 0x34, 0x12}, 3},
        {[] { return spi_ms_write(0x64, 0x0001); }, 0x0F, {0x24, 0x01, 0x00}, 3},
        {[] { return spi_ms_read(0x29); }, 0x0F, {0x69, 0x00, 0x00}, 0x3FBB},
    };
    for (const auto& c : cases) {
        uint32_t result = 0;
        capture_stdout([&] { result = c.op(); });
        EXPECT_EQ(result, c.result);
        const Call f = board.calls(Call::kTransfer).back();
        EXPECT_EQ(f.tx, c.tx);
        EXPECT_EQ(f.mode, c.mode);
        EXPECT_EQ(f.path, "/dev/spidev4.0");
        // Reads hand over a receive buffer, writes none; speed, word size and delays are left
        // to the device's settings.
        EXPECT_EQ(f.reads(), c.tx[0] == 0x81 || c.tx[0] == 0x92 || c.tx[0] == 0x69);
        EXPECT_EQ(f.record.speed_hz + f.record.delay_usecs + f.record.bits_per_word, 0u);
        EXPECT_EQ(f.record.cs_change, 0u);
    }
    EXPECT_EQ(board.calls(Call::kOpen).size(), 2u) << "each link opens once";
}

TEST_F(SpiLinkTest, OpenSequencesSetModeThenWordSizeThenSpeedEachReadBack) {
    spi_set_bus_number(2);
    const std::string out = capture_stdout([] {
        EXPECT_EQ(spi_lc_open(), 0);
        EXPECT_EQ(spi_ms_open(), 0);
    });
    EXPECT_EQ(out, "spi mode: 15\nbits per word: 8\nmax speed: 5000000 Hz (5000 KHz)\n");
    const auto log = board.calls();
    ASSERT_EQ(log.size(), 14u);
    const struct {
        const char* path;
        uint32_t mode;
    } links[] = {{"/dev/spidev4.0", 0x03}, {"/dev/spidev2.0", 0x0F}};
    for (int l = 0; l < 2; ++l) {
        const Call* c = &log[7 * l];
        EXPECT_EQ(c[0].kind, Call::kOpen);
        EXPECT_EQ(c[0].path, links[l].path);
        EXPECT_EQ(c[0].flags, O_RDWR | O_NOCTTY);
        const std::pair<unsigned long, uint32_t> want[] = {
            {SPI_IOC_WR_MODE, links[l].mode},    {SPI_IOC_RD_MODE, links[l].mode},
            {SPI_IOC_WR_BITS_PER_WORD, 8},       {SPI_IOC_RD_BITS_PER_WORD, 8},
            {SPI_IOC_WR_MAX_SPEED_HZ, 5000000u}, {SPI_IOC_RD_MAX_SPEED_HZ, 5000000u}};
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(std::make_pair(c[1 + i].request, c[1 + i].value), want[i]) << l << i;
    }
    EXPECT_EQ(spi_lc_info().opened + spi_ms_info().opened, 2);

    // Only buses 0..4 have a device node.
    spi_ms_close();
    board.clear();
    spi_set_bus_number(5);
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(spi_ms_open(), -1); }), "Open /dev/spidev5.0 error!\n");
    EXPECT_TRUE(board.calls(Call::kOpen).empty());
}

struct OpenFailure {
    unsigned long request;
    int result;
    const char* message;
};

class SpiOpenFailureTest : public SpiLinkTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(SpiOpenFailureTest, EachIoctlFailureEndsTheSequenceClosesAndRetriesLater) {
    board.fail_request = GetParam().request;  // fails with -22
    const std::string out = capture_stdout([] { EXPECT_EQ(spi_lc_open(), GetParam().result); });
    EXPECT_EQ(out, GetParam().message);
    const auto log = board.calls();
    EXPECT_EQ(log.back().kind, Call::kClose);
    EXPECT_EQ(log.back().fd, log.front().fd) << "the descriptor just opened";
    EXPECT_EQ(log[log.size() - 2].request, GetParam().request) << "nothing after the failure";
    EXPECT_EQ(spi_lc_info().opened, 0);
    EXPECT_EQ(spi_lc_info().fd, 0);

    // The next transfer runs the whole sequence again.
    board.fail_request = 0;
    board.clear();
    spi_lc_write8(0x0101, 0x82);
    EXPECT_EQ(board.calls().front().kind, Call::kOpen);
    EXPECT_EQ(board.calls().back().kind, Call::kTransfer);
    EXPECT_EQ(spi_lc_info().opened, 1);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, SpiOpenFailureTest,
    ::testing::Values(
        OpenFailure{SPI_IOC_WR_MODE, -22, "ioctl SPI_IOC_WR_MODE err, value = 3 ret = -22\n"},
        OpenFailure{SPI_IOC_RD_MODE, -22, "ioctl SPI_IOC_RD_MODE err, value = 3 ret = -22\n"},
        OpenFailure{SPI_IOC_WR_BITS_PER_WORD, 1, "can't SPI_IOC_WR_BITS_PER_WORD\n"},
        OpenFailure{SPI_IOC_RD_BITS_PER_WORD, 1, "can't SPI_IOC_RD_BITS_PER_WORD\n"},
        OpenFailure{SPI_IOC_WR_MAX_SPEED_HZ, 1, "can't SPI_IOC_WR_MAX_SPEED_HZ\n"},
        OpenFailure{SPI_IOC_RD_MAX_SPEED_HZ, 1, "can't SPI_IOC_RD_MAX_SPEED_HZ\n"}));

// A board without the chip fails every register access: each one tries the open again, but only
// the first failure of a kind is printed, and then a count every few seconds.
TEST_F(SpiLinkTest, MissingDeviceReadsZeroTriesTheOpenEveryTimeAndReportsRepeatsEveryFewSeconds) {
    board.spi_open_fails = true;
    board.on_transfer = [](const Call&, uint8_t* rx) { rx[2] = 0x82; };
    std::string out = capture_stdout([] {
        EXPECT_EQ(spi_lc_read8(0x0101), 0);
        EXPECT_EQ(spi_lc_write8(0x0101, 0x82), 1);
        EXPECT_EQ(spi_lc_read8(0x0101), 0);
    });
    EXPECT_EQ(out, "Open /dev/spidev4.0 error!\nsend spi error\n");
    EXPECT_EQ(board.calls(Call::kOpen).size(), 3u);
    EXPECT_TRUE(board.calls(Call::kClose).empty()) << "nothing to close, never stdin";
    clock.sleep_us(kDbgRepeatIntervalUs);
    out = capture_stdout([] { EXPECT_EQ(spi_lc_write8(0x0101, 0x82), 1); });
    EXPECT_EQ(out,
              "Open /dev/spidev4.0 error! (2 more since the last report)\n"
              "send spi error (2 more since the last report)\n");
}

TEST_F(SpiLinkTest, FailedTransfersReadZeroOrWriteOneAndAreReportedPerLink) {
    board.on_transfer = [](const Call& c, uint8_t* rx) {
        if (rx != nullptr)
            std::memset(rx, 0x7F, c.record.len);
    };
    board.transfer_fails = true;
    auto errors = [](const std::string& out) {
        int n = 0;
        for (auto at = out.find("send spi error"); at != std::string::npos;
             at = out.find("send", at + 1))
            ++n;
        return n;
    };
    std::string out = capture_stdout([] {
        EXPECT_EQ(spi_lc_read8(0x010E), 0);
        EXPECT_EQ(spi_lc_read32(0x1230), 0u);
        EXPECT_EQ(spi_lc_write8(0x0101, 1), 1);
        EXPECT_EQ(spi_lc_write32(0x1027, 1), 1);
        EXPECT_EQ(spi_ms_read(0x24), 0);
        EXPECT_EQ(spi_ms_write(0x24, 1), 1);
    });
    EXPECT_EQ(errors(out), 2) << "the first of each link\n" << out;
    EXPECT_EQ(board.calls(Call::kOpen).size(), 2u) << "a failed transfer keeps the link open";
    clock.sleep_us(kDbgRepeatIntervalUs);
    out = capture_stdout([] {
        EXPECT_EQ(spi_lc_read8(0x010E), 0);
        EXPECT_EQ(spi_lc_read8(0x010E), 0);
    });
    EXPECT_EQ(out, "send spi error (3 more since the last report)\n");
}

}  // namespace

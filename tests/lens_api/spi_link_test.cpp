// SPI links: wire frames byte for byte, the open sequences and their failures, open on the first
// transfer and retry after a failed open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include "lens_api/spi_link.h"
#include "tests/lens_api/fake_devices.h"
#include "tests/support/test_env.h"

namespace {

using lensfake::FakeSpi;
using lensfake::SpiCall;
using testsupport::capture_stdout;

class SpiLinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        spi_reset_for_testing();
        platform::select_spi(&spi);
    }
    void TearDown() override {
        spi_reset_for_testing();
        platform::select_spi(nullptr);
    }
    std::vector<uint8_t> last_tx() { return spi.of_kind(SpiCall::kTransfer).back().tx; }

    FakeSpi spi;
};

using Bytes = std::vector<uint8_t>;

TEST_F(SpiLinkTest, LcFramesCarryTheReadFlagInAddressBit15) {
    spi_lc_write8(0x0101, 0x82);
    EXPECT_EQ(last_tx(), (Bytes{0x01, 0x01, 0x82}));
    spi_lc_read8(0x0101);
    EXPECT_EQ(last_tx(), (Bytes{0x81, 0x01, 0xFF}));
    // An address that already has bit 15 set is written with it cleared.
    spi_lc_write8(0x8101, 0x05);
    EXPECT_EQ(last_tx(), (Bytes{0x01, 0x01, 0x05}));
    spi_lc_write32(0x1027, 0x3F7FE000);
    EXPECT_EQ(last_tx(), (Bytes{0x10, 0x27, 0x3F, 0x7F, 0xE0, 0x00}));
    spi_lc_read32(0x1230);
    EXPECT_EQ(last_tx(), (Bytes{0x92, 0x30, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST_F(SpiLinkTest, LcReadsTakeTheirValueFromTheBytesAfterTheAddress) {
    spi.responder = [](const Bytes& tx, uint8_t* rx) {
        rx[0] = 0xAA;  // clocked out during the address: never part of the value
        rx[1] = 0xBB;
        if (tx.size() == 3) {
            rx[2] = 0x5A;
        } else {
            rx[2] = 0x3F;
            rx[3] = 0x80;
            rx[4] = 0x00;
            rx[5] = 0x00;
        }
    };
    EXPECT_EQ(spi_lc_read8(0x010E), 0x5A);
    EXPECT_EQ(spi_lc_read32(0x1230), 0x3F800000u);
}

TEST_F(SpiLinkTest, TransferRecordLeavesSpeedWordSizeAndDelaysToTheDevice) {
    spi_lc_write8(0x0101, 0x82);
    spi_lc_read32(0x1230);
    const auto tr = spi.of_kind(SpiCall::kTransfer);
    ASSERT_EQ(tr.size(), 2u);
    EXPECT_EQ(tr[0].record.len, 3u);
    EXPECT_EQ(tr[0].record.rx_buf, 0u) << "writes give no receive buffer";
    EXPECT_EQ(tr[1].record.len, 6u);
    EXPECT_NE(tr[1].record.rx_buf, 0u);
    for (const auto& c : tr) {
        EXPECT_EQ(c.record.speed_hz, 0u);
        EXPECT_EQ(c.record.delay_usecs, 0u);
        EXPECT_EQ(c.record.bits_per_word, 0u);
        EXPECT_EQ(c.record.cs_change, 0u);
    }
}

TEST_F(SpiLinkTest, MsFramesAreSixBitRegistersWithLowByteFirst) {
    spi_ms_write(0x24, 0x1234);
    EXPECT_EQ(last_tx(), (Bytes{0x24, 0x34, 0x12}));
    spi_ms_write(0x64, 0x0001);  // above 63: sent modulo 64
    EXPECT_EQ(last_tx(), (Bytes{0x24, 0x01, 0x00}));
    spi.responder = [](const Bytes&, uint8_t* rx) {
        rx[0] = 0xEE;
        rx[1] = 0x34;
        rx[2] = 0x12;
    };
    EXPECT_EQ(spi_ms_read(0x29), 0x1234);
    EXPECT_EQ(last_tx(), (Bytes{0x69, 0x00, 0x00}));
}

TEST_F(SpiLinkTest, LcOpenSequenceSetsMode3ChipSelectLowThenWordSizeAndSpeed) {
    EXPECT_EQ(spi_lc_open(), 0);
    ASSERT_EQ(spi.calls.size(), 7u);
    EXPECT_EQ(spi.calls[0].kind, SpiCall::kOpen);
    EXPECT_EQ(spi.calls[0].path, "/dev/spidev4.0");
    EXPECT_EQ(spi.calls[0].flags, O_RDWR | O_NOCTTY);
    const unsigned long order[] = {SPI_IOC_WR_MODE,          SPI_IOC_RD_MODE,
                                   SPI_IOC_WR_BITS_PER_WORD, SPI_IOC_RD_BITS_PER_WORD,
                                   SPI_IOC_WR_MAX_SPEED_HZ,  SPI_IOC_RD_MAX_SPEED_HZ};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(spi.calls[1 + i].request, order[i]) << "ioctl " << i;
    EXPECT_EQ(spi.calls[1].value, 0x03u);
    EXPECT_EQ(spi.calls[3].value, 8u);
    EXPECT_EQ(spi.calls[5].value, 5000000u);
    EXPECT_EQ(spi_lc_info().opened, 1);
}

TEST_F(SpiLinkTest, MsOpenUsesTheBusNumberAndModeWithChipSelectHighLsbFirst) {
    spi_set_bus_number(2);
    const std::string out = capture_stdout([] { EXPECT_EQ(spi_ms_open(), 0); });
    EXPECT_EQ(spi.calls[0].path, "/dev/spidev2.0");
    EXPECT_EQ(spi.calls[1].value, 0x0Fu);
    EXPECT_EQ(out, "spi mode: 15\nbits per word: 8\nmax speed: 5000000 Hz (5000 KHz)\n");
}

TEST_F(SpiLinkTest, MsBusOutsideZeroToFourIsAFailedOpen) {
    spi_set_bus_number(7);
    const std::string out = capture_stdout([] { EXPECT_EQ(spi_ms_open(), -1); });
    EXPECT_EQ(out, "Open /dev/spidev7.0 error!\n");
    EXPECT_TRUE(spi.of_kind(SpiCall::kOpen).empty());
}

struct OpenFailure {
    unsigned long request;
    int expected_result;
    const char* lc_message;
};

class SpiOpenFailureTest : public SpiLinkTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(SpiOpenFailureTest, EachIoctlFailureEndsTheSequenceClosesAndRetriesLater) {
    const OpenFailure f = GetParam();
    spi.fail_request = f.request;
    spi.fail_result = -22;
    const std::string out = capture_stdout([&] { EXPECT_EQ(spi_lc_open(), f.expected_result); });
    EXPECT_EQ(out, f.lc_message);
    EXPECT_EQ(spi.calls.back().kind, SpiCall::kClose) << "descriptor closed after the failure";
    EXPECT_EQ(spi.calls.back().fd, 7);
    EXPECT_EQ(spi_lc_info().opened, 0);
    EXPECT_EQ(spi_lc_info().fd, 0);

    // The next transfer runs the whole sequence again.
    spi.fail_request = 0;
    spi.calls.clear();
    spi_lc_write8(0x0101, 0x82);
    EXPECT_EQ(spi.calls.front().kind, SpiCall::kOpen);
    EXPECT_EQ(spi.calls.back().kind, SpiCall::kTransfer);
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

TEST_F(SpiLinkTest, MissingDeviceReadsZeroAndEveryTransferTriesTheOpenAgain) {
    spi.open_fails = true;
    spi.responder = [](const Bytes&, uint8_t* rx) { rx[2] = 0x82; };
    uint8_t v = 1;
    const std::string out = capture_stdout([&] { v = spi_lc_read8(0x0101); });
    EXPECT_EQ(v, 0);
    EXPECT_EQ(out, "Open /dev/spidev4.0 error!\nsend spi error\n");
    int w = 0;
    capture_stdout([&] { w = spi_lc_write8(0x0101, 0x82); });
    EXPECT_EQ(w, 1);
    EXPECT_EQ(spi.of_kind(SpiCall::kOpen).size(), 2u);
    EXPECT_TRUE(spi.of_kind(SpiCall::kClose).empty()) << "nothing to close, never stdin";
}

TEST_F(SpiLinkTest, FailedTransfersPrintAndReadZeroOrWriteOne) {
    spi.responder = [](const Bytes&, uint8_t* rx) { std::memset(rx, 0x7F, 6); };
    spi_lc_open();
    spi.transfer_fails = true;
    const std::string out = capture_stdout([] {
        EXPECT_EQ(spi_lc_read8(0x010E), 0);
        EXPECT_EQ(spi_lc_read32(0x1230), 0u);
        EXPECT_EQ(spi_lc_write32(0x1027, 1), 1);
        EXPECT_EQ(spi_ms_read(0x24), 0);
        EXPECT_EQ(spi_ms_write(0x24, 1), 1);
    });
    EXPECT_NE(out.find("send spi error\nsend spi error\nsend spi error\n"), std::string::npos);
    spi.transfer_fails = false;
    EXPECT_EQ(spi_lc_write32(0x1027, 1), 0);
    EXPECT_EQ(spi_lc_write8(0x0101, 1), 3) << "a write returns the ioctl's byte count";
}

TEST_F(SpiLinkTest, LinksOpenOnceAndCloseResetsTheDescriptor) {
    spi_lc_write8(0x0101, 0x82);
    spi_lc_read8(0x0101);
    spi_lc_read32(0x1230);
    EXPECT_EQ(spi.of_kind(SpiCall::kOpen).size(), 1u);
    spi_lc_close();
    EXPECT_EQ(spi.calls.back().kind, SpiCall::kClose);
    EXPECT_EQ(spi_lc_info().fd, 0);
    EXPECT_EQ(spi_lc_info().opened, 0);
    spi_lc_read8(0x0101);
    EXPECT_EQ(spi.of_kind(SpiCall::kOpen).size(), 2u);
}

}  // namespace

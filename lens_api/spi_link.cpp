#include "lens_api/spi_link.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "base/dbgout.h"
#include "platform/spi.h"

namespace {

constexpr uint8_t kBitsPerWord = 8;
constexpr uint32_t kMaxSpeedHz = 5000000;
constexpr uint32_t kDefaultBus = 4;

struct SpiLink {
    int fd = 0;
    int opened = 0;
    uint8_t mode = 0;
    uint8_t bits = kBitsPerWord;
    uint32_t speed = kMaxSpeedHz;
};

SpiLink g_lc;
SpiLink g_ms;
uint32_t g_busNumber = kDefaultBus;

// A missing or broken device fails every transfer, and the link tries the open again on each:
// per link, one rate-limited report for the failed opens and set-ups and one for the failed
// transfers, so that a board without the chip does not print a line per register access.
struct LinkReports {
    DbgRepeat open;
    DbgRepeat transfer;
    std::atomic<uint32_t> failures{0};  // failed transfers since start, for the drivers
};
LinkReports g_lcReports;
LinkReports g_msReports;

LinkReports& reports_of(const SpiLink& link) {
    return &link == &g_lc ? g_lcReports : g_msReports;
}

// The LC898201 link keeps its frames in module buffers; a transfer owns them for its duration.
uint8_t g_lcTx[6];
uint8_t g_lcRx[6];

// One formatted open or set-up failure line through the link's report.
void open_failure(const SpiLink& link, const char* fmt, int a, int b = 0) {
    char text[96];
    std::snprintf(text, sizeof text, fmt, a, b);
    dbg_line_limited(reports_of(link).open, text);
}

void transfer_failure(const SpiLink& link) {
    reports_of(link).failures.fetch_add(1, std::memory_order_relaxed);
    dbg_line_limited(reports_of(link).transfer, "send spi error");
}

void close_link(SpiLink& link) {
    // Descriptor 0 means "never opened" here, so standard input is never closed by mistake.
    if (link.fd > 0)
        platform::spi().close(link.fd);
    link.fd = 0;
    link.opened = 0;
}

// Mode, word size and speed, in the order the spidev driver wants them. The first failure ends
// the sequence and closes the device.
int configure(SpiLink& link) {
    platform::SpiBackend& spi = platform::spi();
    int ret = spi.ioctl(link.fd, SPI_IOC_WR_MODE, &link.mode);
    if (ret < 0) {
        open_failure(link, "ioctl SPI_IOC_WR_MODE err, value = %d ret = %d", link.mode, ret);
        close_link(link);
        return ret;
    }
    ret = spi.ioctl(link.fd, SPI_IOC_RD_MODE, &link.mode);
    if (ret < 0) {
        open_failure(link, "ioctl SPI_IOC_RD_MODE err, value = %d ret = %d", link.mode, ret);
        close_link(link);
        return ret;
    }
    struct Step {
        unsigned long request;
        void* arg;
        const char* message;
    };
    const Step steps[] = {
        {SPI_IOC_WR_BITS_PER_WORD, &link.bits, "can't SPI_IOC_WR_BITS_PER_WORD"},
        {SPI_IOC_RD_BITS_PER_WORD, &link.bits, "can't SPI_IOC_RD_BITS_PER_WORD"},
        {SPI_IOC_WR_MAX_SPEED_HZ, &link.speed, "can't SPI_IOC_WR_MAX_SPEED_HZ"},
        {SPI_IOC_RD_MAX_SPEED_HZ, &link.speed, "can't SPI_IOC_RD_MAX_SPEED_HZ"},
    };
    for (const Step& s : steps) {
        if (spi.ioctl(link.fd, s.request, s.arg) < 0) {
            dbg_line_limited(reports_of(link).open, s.message);
            close_link(link);
            return 1;
        }
    }
    link.opened = 1;
    return 0;
}

// Stores a freshly opened descriptor; a failed open leaves the link at descriptor 0.
bool take_fd(SpiLink& link, int fd) {
    if (fd < 0) {
        link.fd = 0;
        link.opened = 0;
        return false;
    }
    link.fd = fd;
    return true;
}

// One chip-select period: tx_len bytes out, the same number in when rx is given.
int transfer(SpiLink& link, const uint8_t* tx, uint8_t* rx, uint32_t len) {
    spi_ioc_transfer tr;
    std::memset(&tr, 0, sizeof tr);
    tr.tx_buf = reinterpret_cast<uintptr_t>(tx);
    tr.rx_buf = reinterpret_cast<uintptr_t>(rx);
    tr.len = len;
    return platform::spi().ioctl(link.fd, SPI_IOC_MESSAGE(1), &tr);
}

void lc_ensure_open() {
    // The open result is deliberately not checked: an unusable device fails the transfer itself.
    if (!g_lc.opened)
        spi_lc_open();
}

void ms_ensure_open() {
    if (!g_ms.opened)
        spi_ms_open();
}

}  // namespace

void spi_set_bus_number(uint32_t bus) {
    g_busNumber = bus;
}
uint32_t spi_get_bus_number() {
    return g_busNumber;
}

int spi_lc_open() {
    // SPI mode 3, chip select active low, most significant bit first.
    g_lc.mode |= SPI_CPHA;
    g_lc.mode |= SPI_CPOL;
    g_lc.mode &= static_cast<uint8_t>(~SPI_CS_HIGH);
    if (!take_fd(g_lc, platform::spi().open("/dev/spidev4.0", O_RDWR | O_NOCTTY))) {
        dbg_line_limited(g_lcReports.open, "Open /dev/spidev4.0 error!");
        return -1;
    }
    return configure(g_lc);
}

void spi_lc_close() {
    close_link(g_lc);
}

uint8_t spi_lc_read8(uint16_t addr) {
    lc_ensure_open();
    const uint16_t a = addr | 0x8000;
    g_lcTx[0] = static_cast<uint8_t>(a >> 8);
    g_lcTx[1] = static_cast<uint8_t>(a & 0xFF);
    g_lcTx[2] = 0xFF;
    std::memset(g_lcRx, 0, sizeof g_lcRx);
    if (transfer(g_lc, g_lcTx, g_lcRx, 3) < 0) {
        transfer_failure(g_lc);
        return 0;
    }
    return g_lcRx[2];
}

int spi_lc_write8(uint16_t addr, uint8_t value) {
    lc_ensure_open();
    const uint16_t a = addr & 0x7FFF;
    g_lcTx[0] = static_cast<uint8_t>(a >> 8);
    g_lcTx[1] = static_cast<uint8_t>(a & 0xFF);
    g_lcTx[2] = value;
    const int ret = transfer(g_lc, g_lcTx, nullptr, 3);
    if (ret < 0) {
        transfer_failure(g_lc);
        return 1;
    }
    return ret;
}

uint32_t spi_lc_read32(uint16_t addr) {
    lc_ensure_open();
    const uint16_t a = addr | 0x8000;
    g_lcTx[0] = static_cast<uint8_t>(a >> 8);
    g_lcTx[1] = static_cast<uint8_t>(a & 0xFF);
    std::memset(g_lcTx + 2, 0xFF, 4);
    std::memset(g_lcRx, 0, sizeof g_lcRx);
    if (transfer(g_lc, g_lcTx, g_lcRx, 6) < 0) {
        transfer_failure(g_lc);
        return 0;
    }
    return (static_cast<uint32_t>(g_lcRx[2]) << 24) | (static_cast<uint32_t>(g_lcRx[3]) << 16) |
           (static_cast<uint32_t>(g_lcRx[4]) << 8) | g_lcRx[5];
}

int spi_lc_write32(uint16_t addr, uint32_t value) {
    lc_ensure_open();
    const uint16_t a = addr & 0x7FFF;
    g_lcTx[0] = static_cast<uint8_t>(a >> 8);
    g_lcTx[1] = static_cast<uint8_t>(a & 0xFF);
    g_lcTx[2] = static_cast<uint8_t>(value >> 24);
    g_lcTx[3] = static_cast<uint8_t>((value >> 16) & 0xFF);
    g_lcTx[4] = static_cast<uint8_t>((value >> 8) & 0xFF);
    g_lcTx[5] = static_cast<uint8_t>(value & 0xFF);
    if (transfer(g_lc, g_lcTx, nullptr, 6) < 0) {
        transfer_failure(g_lc);
        return 1;
    }
    return 0;
}

int spi_ms_open() {
    // SPI mode 3, chip select active high, least significant bit first.
    g_ms.mode |= SPI_CPHA;
    g_ms.mode |= SPI_CPOL;
    g_ms.mode |= SPI_CS_HIGH;
    g_ms.mode |= SPI_LSB_FIRST;
    static const char* const kDevices[] = {"/dev/spidev0.0", "/dev/spidev1.0", "/dev/spidev2.0",
                                           "/dev/spidev3.0", "/dev/spidev4.0"};
    int fd = -1;
    if (g_busNumber < sizeof kDevices / sizeof kDevices[0])
        fd = platform::spi().open(kDevices[g_busNumber], O_RDWR | O_NOCTTY);
    if (!take_fd(g_ms, fd)) {
        open_failure(g_ms, "Open /dev/spidev%d.0 error!", static_cast<int>(g_busNumber));
        return -1;
    }
    const int ret = configure(g_ms);
    if (ret == 0) {
        std::printf("spi mode: %d\n", g_ms.mode);
        std::printf("bits per word: %d\n", g_ms.bits);
        std::printf("max speed: %d Hz (%d KHz)\n", static_cast<int>(g_ms.speed),
                    static_cast<int>(g_ms.speed / 1000));
        std::fflush(stdout);
    }
    return ret;
}

void spi_ms_close() {
    close_link(g_ms);
}

uint16_t spi_ms_read(uint8_t reg) {
    ms_ensure_open();
    const uint8_t tx[3] = {static_cast<uint8_t>((reg & 0x3F) | 0x40), 0x00, 0x00};
    uint8_t rx[3] = {0, 0, 0};
    if (transfer(g_ms, tx, rx, 3) < 0) {
        transfer_failure(g_ms);
        return 0;
    }
    return static_cast<uint16_t>(rx[1] | (rx[2] << 8));
}

int spi_ms_write(uint8_t reg, uint16_t value) {
    ms_ensure_open();
    const uint8_t tx[3] = {static_cast<uint8_t>(reg & 0x3F), static_cast<uint8_t>(value & 0xFF),
                           static_cast<uint8_t>(value >> 8)};
    const int ret = transfer(g_ms, tx, nullptr, 3);
    if (ret < 0) {
        transfer_failure(g_ms);
        return 1;
    }
    return ret;
}

uint32_t spi_lc_failures() {
    return g_lcReports.failures.load(std::memory_order_relaxed);
}

uint32_t spi_ms_failures() {
    return g_msReports.failures.load(std::memory_order_relaxed);
}

SpiLinkInfo spi_lc_info() {
    return {g_lc.fd, g_lc.opened, g_lc.mode};
}
SpiLinkInfo spi_ms_info() {
    return {g_ms.fd, g_ms.opened, g_ms.mode};
}

void spi_reset_for_testing() {
    close_link(g_lc);
    close_link(g_ms);
    for (LinkReports* r : {&g_lcReports, &g_msReports}) {
        r->open.reset();
        r->transfer.reset();
    }
    g_lc = SpiLink{};
    g_ms = SpiLink{};
    g_busNumber = kDefaultBus;
}

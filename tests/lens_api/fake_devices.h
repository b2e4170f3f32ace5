// The lens board as the lens driver tests see it: fakes of the SPI and GPIO seams, register-level
// stand-ins for the two lens-driver chips behind them, and a fixture that wires them in.
//
// Board records every system call the drivers make in one ordered log, with the thread that made
// it, answers like the spidev and vendor GPIO drivers do, and fails on request. A chip sees each
// frame with the device and bus mode of its descriptor and ignores frames that are not for it, as
// on the real bus: the LC898201 answers on /dev/spidev4.0 in mode 3, the MS41908 on its own bus in
// mode 0x0F.
#pragma once

#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/gpio.h"
#include "platform/sim/virtual_clock.h"
#include "platform/spi.h"
#include "tests/support/test_env.h"

namespace lensfake {

struct Call {
    enum Kind { kOpen, kIoctl, kTransfer, kClose, kGpioOpen, kGpio } kind = kOpen;
    int thread = 0;  // small number per thread, in order of first appearance
    int fd = 0;
    std::string path;  // the device opened, or the device behind a transfer's descriptor
    int flags = 0;
    unsigned long request = 0;  // SPI ioctl or GPIO request
    uint32_t value = 0;         // SPI ioctl argument as passed in; GPIO pin
    uint8_t mode = 0;           // SPI mode of a transfer's descriptor
    std::vector<uint8_t> tx;
    spi_ioc_transfer record{};
    bool reads() const { return record.rx_buf != 0; }
};

class Board {
  public:
    bool spi_open_fails = false, transfer_fails = false, gpio_open_fails = false;
    unsigned long fail_request = 0;  // this SPI ioctl fails with -22
    bool keep_log = true;            // off for waits of a million polls
    std::map<int, int> levels;       // GPIO read level per pin where no chip drives it
    // The chip, called under the board's lock in call order: every transfer (rx null for a
    // write), every GPIO request (a read returns the level, or -1 for `levels`).
    std::function<void(const Call&, uint8_t* rx)> on_transfer;
    std::function<int(const Call&)> on_gpio;
    // Runs after each call, outside the lock: what a bus or GPIO call costs.
    std::function<void(const Call&)> after_call;

    platform::SpiBackend& spi() { return spi_; }
    platform::GpioBackend& gpio() { return gpio_; }
    std::vector<Call> calls(int kind = -1) {
        std::lock_guard<std::mutex> l(mu_);
        std::vector<Call> out;
        for (const Call& c : log_)
            if (kind < 0 || c.kind == kind)
                out.push_back(c);
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> l(mu_);
        log_.clear();
    }

  private:
    template <typename Fn>
    int call(Call::Kind kind, Fn fn) {
        Call c;
        c.kind = kind;
        int r;
        {
            std::lock_guard<std::mutex> l(mu_);
            c.thread = static_cast<int>(
                threads_.emplace(std::this_thread::get_id(), threads_.size()).first->second);
            r = fn(c);
            if (keep_log)
                log_.push_back(c);
        }
        if (after_call)
            after_call(c);
        return r;
    }
    static uint8_t* ptr(uint64_t p) { return reinterpret_cast<uint8_t*>(uintptr_t(p)); }

    int spi_ioctl(int fd, unsigned long request, void* arg) {
        const bool transfer = request == SPI_IOC_MESSAGE(1);
        return call(transfer ? Call::kTransfer : Call::kIoctl, [&](Call& c) {
            c.fd = fd;
            c.request = request;
            if (transfer) {
                c.record = *static_cast<const spi_ioc_transfer*>(arg);
                c.tx.assign(ptr(c.record.tx_buf), ptr(c.record.tx_buf) + c.record.len);
            } else {
                const bool wide = _IOC_SIZE(request) == 4;
                c.value = wide ? *static_cast<uint32_t*>(arg) : *static_cast<uint8_t*>(arg);
            }
            if (paths_.count(fd) == 0)
                return -9;  // no device behind the descriptor
            if (request == fail_request)
                return -22;
            if (request == SPI_IOC_WR_MODE)
                modes_[fd] = static_cast<uint8_t>(c.value);
            if (!transfer)
                return 0;  // a read leaves the value just written in place
            c.path = paths_[fd];
            c.mode = modes_[fd];
            if (on_transfer)
                on_transfer(c, ptr(c.record.rx_buf));
            // A failing transfer still clocks the device: the driver must not use what came back.
            return transfer_fails ? -5 : static_cast<int>(c.record.len);
        });
    }
    int gpio_ioctl(int fd, unsigned long request, void* arg) {
        return call(Call::kGpio, [&](Call& c) {
            c.fd = fd;
            c.request = request;
            c.value = *static_cast<uint32_t*>(arg);
            if (fd < 0)
                return -9;  // the argument stays as it was
            const int driven = on_gpio ? on_gpio(c) : -1;
            if (request == kGpioReqRead)
                *static_cast<int*>(arg) = driven >= 0 ? driven : levels[static_cast<int>(c.value)];
            return 0;
        });
    }

    struct SpiSeam final : platform::SpiBackend {
        explicit SpiSeam(Board& b) : b(b) {}
        int open(const char* p, int f) override {
            return b.call(Call::kOpen, [&](Call& c) {
                c.path = p;
                c.flags = f;
                c.fd = b.spi_open_fails ? -1 : b.next_fd_++;
                if (c.fd >= 0)
                    b.paths_[c.fd] = p;
                return c.fd;
            });
        }
        int ioctl(int fd, unsigned long r, void* a) override { return b.spi_ioctl(fd, r, a); }
        int close(int fd) override {
            return b.call(Call::kClose, [&](Call& c) {
                c.fd = fd;
                return b.paths_.erase(fd) ? 0 : -9;
            });
        }
        Board& b;
    };
    struct GpioSeam final : platform::GpioBackend {
        explicit GpioSeam(Board& b) : b(b) {}
        int open(const char* p, int) override {
            return b.call(Call::kGpioOpen, [&](Call& c) {
                c.path = p;
                return c.fd = b.gpio_open_fails ? -1 : 5;
            });
        }
        int ioctl(int fd, unsigned long r, void* a) override { return b.gpio_ioctl(fd, r, a); }
        int close(int) override { return 0; }
        Board& b;
    };

    std::mutex mu_;
    std::vector<Call> log_;
    std::map<std::thread::id, std::size_t> threads_;
    std::map<int, std::string> paths_;
    std::map<int, uint8_t> modes_;
    int next_fd_ = 7;
    SpiSeam spi_{*this};
    GpioSeam gpio_{*this};
};

// An LC898201: start/busy registers that read busy for `busy_polls` reads after a start, step
// counts per channel, home sensors on a threshold (zoom on at or above its edge, focus at or
// below) lit while the supply register holds 0x11, and a Hall reading from the offset and bias.
class LcChip {
  public:
    explicit LcChip(Board& b) : board_(b) {
        b.on_transfer = [this](const Call& c, uint8_t* rx) { frame(c, rx); };
    }
    uint8_t reg8[0x800] = {};
    std::map<uint16_t, uint32_t> reg32;
    int busy_polls = 2;
    bool zoom_stuck_busy = false, focus_stuck_busy = false;
    int zoom = 0, focus = 0;  // steps
    int zoom_edge = 6378, focus_edge = 2400;
    bool zoom_sensor_dead = false, focus_sensor_dead = false;
    int zoom_starts = 0, focus_starts = 0;
    std::function<uint32_t(int offset, int bias)> hall;

    // 8-bit (or with `wide` 32-bit) register writes that reached the chip, in order; `only` picks
    // one register.
    std::vector<std::pair<uint16_t, uint32_t>> writes(int only = -1, bool wide = false) {
        std::vector<std::pair<uint16_t, uint32_t>> out;
        for (const Call& c : board_.calls(Call::kTransfer))
            if (mine(c) && !c.reads() && c.tx.size() == (wide ? 6u : 3u) &&
                (only < 0 || address(c) == only))
                out.emplace_back(address(c), wide ? word(c) : c.tx[2]);
        return out;
    }
    std::vector<std::pair<uint16_t, uint32_t>> writes32(int only = -1) {
        return writes(only, true);
    }

  private:
    static bool mine(const Call& c) { return c.mode == 0x03 && c.path == "/dev/spidev4.0"; }
    static uint16_t address(const Call& c) { return ((c.tx[0] & 0x7F) << 8) | c.tx[1]; }
    static uint32_t word(const Call& c) {
        return (uint32_t(c.tx[2]) << 24) | (c.tx[3] << 16) | (c.tx[4] << 8) | c.tx[5];
    }
    void frame(const Call& c, uint8_t* rx) {
        if (!mine(c))
            return;
        const uint16_t a = address(c);  // 8-bit registers all lie below 0x800
        if (c.tx.size() == 6) {
            uint32_t v = word(c);
            if (rx == nullptr)
                reg32[a] = v;
            v = a == 0x1230 && hall ? hall(reg8[0x0079], reg8[0x007C]) : reg32[a];
            for (int i = 0; rx != nullptr && i < 4; ++i)
                rx[2 + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
            return;
        }
        if (rx == nullptr) {
            reg8[a & 0x7FF] = c.tx[2];
            if (a == 0x010E && c.tx[2] == 1)
                start(zoom, zoom_busy_, zoom_starts, 0x0100, 4, -1);
            if (a == 0x014E && c.tx[2] == 1)
                start(focus, focus_busy_, focus_starts, 0x0140, 2, +1);
            return;
        }
        const bool powered = reg8[0x01A0] == 0x11;
        rx[2] = a == 0x010E   ? zoom_stuck_busy || zoom_busy_-- > 0
                : a == 0x014E ? focus_stuck_busy || focus_busy_-- > 0
                : a == 0x014C ? (powered && !zoom_sensor_dead && zoom >= zoom_edge) << 4
                : a == 0x010C ? (powered && !focus_sensor_dead && focus <= focus_edge) << 4
                              : reg8[a & 0x7FF];
    }
    // Direction bit 7 moves by `sign` a step (zoom down, focus up), the other way without it.
    void start(int& pos, int& busy, int& starts, uint16_t base, int pulses, int sign) {
        ++starts;
        const int steps = (reg8[base + 6] | (reg8[base + 7] << 8)) / pulses;
        pos += (reg8[base + 2] & 0x80) ? sign * steps : -sign * steps;
        busy = busy_polls;
    }

    Board& board_;
    int zoom_busy_ = 0, focus_busy_ = 0;
};

// An MS41908 on `path`: control words latched on the rising edge of vd, a busy line that stays
// high for `busy_reads` reads after a strobe that moves a motor, and home sensors on a threshold
// (zoom on at or above its edge, focus at or below) lit only while the channel's control word has
// its supply bit set. Pins as the daemon's defaults.
class MsChip {
  public:
    static constexpr uint32_t kZoomPi = 50, kFocusPi = 111, kVd = 112, kPls = 62;

    explicit MsChip(Board& b) : board_(b) {
        b.on_transfer = [this](const Call& c, uint8_t* rx) {
            if (!mine(c))
                return;
            uint16_t& r = regs[c.tx[0] & 0x3F];
            if (c.tx[0] & 0x40) {
                rx[1] = r & 0xFF;
                rx[2] = r >> 8;
            } else {
                r = static_cast<uint16_t>(c.tx[1] | (c.tx[2] << 8));
            }
        };
        b.on_gpio = [this](const Call& c) { return gpio(c); };
    }
    std::string path = "/dev/spidev4.0";
    int busy_reads = 3;
    bool busy_stuck = false;
    int zoom_edge = 6378, focus_edge = 2400;
    int zoom_pulses = 0;  // two a step
    int focus = 0;        // steps, one pulse each
    // Overrides the sensor level (channel 1 zoom, 0 focus); -1 keeps the threshold model.
    std::function<int(int channel)> sensor_override;
    uint16_t regs[64] = {};
    uint32_t strobes = 0;
    uint64_t pls_reads = 0;

    int zoom() const { return zoom_pulses / 2; }
    void set_zoom(int steps) { zoom_pulses = 2 * steps; }
    bool sensor_lit(int channel) const {
        return channel == 1 ? (regs[0x24] & 0x800) && zoom() >= zoom_edge
                            : (regs[0x29] & 0x800) && focus <= focus_edge;
    }
    // Register writes that reached the chip, in order.
    std::vector<std::pair<uint8_t, uint16_t>> writes() {
        std::vector<std::pair<uint8_t, uint16_t>> out;
        for (const Call& c : board_.calls(Call::kTransfer))
            if (mine(c) && !(c.tx[0] & 0x40))
                out.emplace_back(c.tx[0] & 0x3F, static_cast<uint16_t>(c.tx[1] | (c.tx[2] << 8)));
        return out;
    }
    // The logged bus activity as letters: W register write, L / H vd low / high, B busy read,
    // S sensor read.
    std::string shape() {
        std::string s;
        for (const Call& c : board_.calls()) {
            if (c.kind == Call::kTransfer && mine(c))
                s += 'W';
            else if (c.kind == Call::kGpio && c.request == kGpioReqRead)
                s += c.value == kPls ? 'B' : 'S';
            else if (c.kind == Call::kGpio && c.value == kVd && c.request != kGpioReqOutHigh)
                s += c.request == kGpioReqVdLow ? 'L' : 'H';
        }
        return s;
    }

  private:
    bool mine(const Call& c) const { return c.mode == 0x0F && c.path == path && c.tx.size() == 3; }
    int gpio(const Call& c) {
        if (c.value == kVd && c.request != kGpioReqRead) {
            if (vd_ == 0 && c.request == kGpioReqVdHigh)
                strobe();
            vd_ = c.request == kGpioReqVdLow ? 0 : 1;
        }
        if (c.request != kGpioReqRead ||
            (c.value != kPls && c.value != kZoomPi && c.value != kFocusPi))
            return -1;
        if (c.value == kPls) {
            ++pls_reads;
            const bool busy = busy_stuck || busy_left_ > 0;
            busy_left_ -= busy_left_ > 0;
            return busy;
        }
        const int channel = c.value == kZoomPi ? 1 : 0;
        const int forced = sensor_override ? sensor_override(channel) : -1;
        return forced >= 0 ? forced : sensor_lit(channel);
    }
    // Bit 8 set: zoom rises, focus falls.
    void strobe() {
        ++strobes;
        const int zc = regs[0x24] & 0xFF, fc = regs[0x29] & 0xFF;
        zoom_pulses += (regs[0x24] & 0x100) ? zc : -zc;
        focus += (regs[0x29] & 0x100) ? -fc : fc;
        if (zc != 0 || fc != 0)
            busy_left_ = busy_reads;
    }

    Board& board_;
    int vd_ = 1;
    int busy_left_ = 0;
};

// The board behind both seams, a sandbox root, the clock, and every lens module back at its
// power-on state before and after each test.
template <typename ClockT = platform::VirtualClock>
class Rig : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::select_clock(&clock);
        platform::select_spi(&board.spi());
        platform::select_gpio(&board.gpio());
        reset_modules();
    }
    void TearDown() override {
        reset_modules();
        platform::select_spi(nullptr);
        platform::select_gpio(nullptr);
        platform::select_clock(nullptr);
    }
    static void reset_modules() {
        spi_reset_for_testing();
        gpio_reset_for_testing();
        ms_reset_for_testing();
        lc_reset_for_testing();
        lens_driver_reset_for_testing();
        lens_position_reset_for_testing();
        iris_reset_for_testing();
    }

    testsupport::SandboxRoot root;
    ClockT clock;
    Board board;
};

}  // namespace lensfake

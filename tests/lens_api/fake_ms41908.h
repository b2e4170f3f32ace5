// A recording, thread-safe stand-in for an MS41908 on its SPI bus plus the vendor GPIO device,
// for the MS41908 driver and chip-detection tests. It keeps one ordered log of every register
// write, strobe edge and GPIO read with the thread that made it, and models just enough of the
// chip to drive the driver's logic: control words latched on the rising edge of vd, a busy line
// that stays high for a set number of reads after a strobe that moves a motor, and home sensors
// on a threshold (zoom on at or above its edge, focus on at or below), lit only while the
// channel's control word has its supply bit set.
//
// Optionally an LC898201 answers on /dev/spidev4.0 in its own bus mode (register 0x0101 holds
// what is written to it), so detection can be run against either chip.
#pragma once

#include <linux/spi/spidev.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "lens_api/gpio_pins.h"
#include "lens_api/iris.h"
#include "lens_api/lc898201.h"
#include "lens_api/lens_driver.h"
#include "lens_api/lens_ms.h"
#include "lens_api/lens_position.h"
#include "lens_api/spi_link.h"
#include "platform/clock.h"
#include "platform/gpio.h"
#include "platform/sim/virtual_clock.h"
#include "platform/spi.h"
#include "tests/support/test_env.h"

namespace msfake {

struct Event {
    enum Kind { kWrite, kVdLow, kVdHigh, kBusyRead, kHomeRead, kLcFrame, kGpioSetup } kind;
    int thread;  // small number per thread, in order of first appearance
    uint8_t reg = 0;
    uint16_t value = 0;
    int pin = 0;
};

class Chip {
  public:
    // Pins as the daemon's defaults.
    int zoom_pi = 50, focus_pi = 111, vd = 112, pls = 62;
    std::string ms_path = "/dev/spidev4.0";
    bool lc_present = false;      // an LC898201 answers the probe instead
    bool spi_open_fails = false;  // no spidev node at all
    bool gpio_open_fails = false;
    int busy_reads = 3;  // reads of pls that see 1 after a strobe that moves a motor
    bool busy_stuck = false;
    int zoom_edge = 6378, focus_edge = 2400;
    int zoom_pulses = 0;  // zoom position in pulses (2 per step)
    int focus_pos = 0;    // focus position in steps (1 pulse each)
    // Real time each register write holds the calling thread (a bus transfer takes time), so
    // that two threads' register groups overlap in time.
    std::chrono::microseconds write_pause{0};
    // When set, every GPIO request costs call_cost_us on this clock, as a real call costs time.
    platform::VirtualClock* clock = nullptr;
    uint32_t call_cost_us = 0;
    // Overrides the sensor level (channel 1 zoom, 0 focus); -1 keeps the threshold model.
    std::function<int(int channel)> sensor_override;

    void set_zoom(int steps) { zoom_pulses = steps * 2; }
    int zoom() const { return zoom_pulses / 2; }

    std::vector<Event> events() {
        std::lock_guard<std::mutex> l(mu_);
        return log_;
    }
    void clear_events() {
        std::lock_guard<std::mutex> l(mu_);
        log_.clear();
    }
    std::vector<std::pair<uint8_t, uint16_t>> writes() {
        std::vector<std::pair<uint8_t, uint16_t>> out;
        for (const Event& e : events())
            if (e.kind == Event::kWrite)
                out.emplace_back(e.reg, e.value);
        return out;
    }
    int count(Event::Kind k) {
        int n = 0;
        for (const Event& e : events())
            n += e.kind == k;
        return n;
    }
    uint16_t reg(uint8_t r) {
        std::lock_guard<std::mutex> l(mu_);
        return regs_[r & 0x3F];
    }
    uint32_t strobes() {
        std::lock_guard<std::mutex> l(mu_);
        return strobes_;
    }

    // SPI side.
    int spi_open(const char* path) {
        std::lock_guard<std::mutex> l(mu_);
        if (spi_open_fails)
            return -1;
        fds_[next_fd_] = path;
        return next_fd_++;
    }
    int spi_ioctl(int fd, unsigned long request, void* arg) {
        const int r = spi_ioctl_locked(fd, request, arg);
        if (request == SPI_IOC_MESSAGE(1) && write_pause.count() > 0)
            std::this_thread::sleep_for(write_pause);
        return r;
    }
    int spi_ioctl_locked(int fd, unsigned long request, void* arg) {
        std::lock_guard<std::mutex> l(mu_);
        if (fds_.count(fd) == 0)
            return -9;
        if (request == SPI_IOC_MESSAGE(1)) {
            const auto* tr = static_cast<const spi_ioc_transfer*>(arg);
            const auto* tx = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(tr->tx_buf));
            auto* rx = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(tr->rx_buf));
            if (rx != nullptr)
                std::memset(rx, 0, tr->len);
            frame(fds_[fd], modes_[fd], tx, rx, tr->len);
            return static_cast<int>(tr->len);
        }
        switch (request) {
            case SPI_IOC_WR_MODE:
                modes_[fd] = *static_cast<uint8_t*>(arg);
                return 0;
            case SPI_IOC_RD_MODE:
                *static_cast<uint8_t*>(arg) = modes_[fd];
                return 0;
            case SPI_IOC_RD_BITS_PER_WORD:
                *static_cast<uint8_t*>(arg) = 8;
                return 0;
            case SPI_IOC_RD_MAX_SPEED_HZ: {
                const uint32_t hz = 5000000;
                std::memcpy(arg, &hz, 4);
                return 0;
            }
            default:
                return 0;
        }
    }
    int spi_close(int fd) {
        std::lock_guard<std::mutex> l(mu_);
        fds_.erase(fd);
        return 0;
    }

    // GPIO side.
    int gpio_ioctl(int fd, unsigned long request, void* arg) {
        std::lock_guard<std::mutex> l(mu_);
        if (clock != nullptr)
            clock->sleep_us(call_cost_us);
        if (fd < 0)
            return -9;
        int pin;
        std::memcpy(&pin, arg, sizeof pin);
        int level = -1;
        switch (request) {
            case 0x40044268:
                if (pin == vd) {
                    vd_level_ = 0;
                    add(Event::kVdLow);
                }
                return 0;
            case 0x40044267:
                if (pin == vd) {
                    add(Event::kVdHigh);
                    if (vd_level_ == 0)
                        strobe();
                    vd_level_ = 1;
                }
                return 0;
            case 0x40044266:
            case 0x40044269: {
                Event e{Event::kGpioSetup, thread_tag()};
                e.value = static_cast<uint16_t>(request & 0xFF);
                e.pin = pin;
                log_.push_back(e);
                if (pin == vd)
                    vd_level_ = 1;
                return 0;
            }
            case 0x4004426A:
                if (pin == pls) {
                    Event e{Event::kBusyRead, thread_tag()};
                    log_.push_back(e);
                    level = busy_stuck || busy_left_ > 0 ? 1 : 0;
                    if (busy_left_ > 0)
                        --busy_left_;
                } else if (pin == zoom_pi || pin == focus_pi) {
                    Event e{Event::kHomeRead, thread_tag()};
                    e.pin = pin;
                    log_.push_back(e);
                    level = sensor(pin == zoom_pi ? 1 : 0);
                } else {
                    level = 0;
                }
                std::memcpy(arg, &level, sizeof level);
                return 0;
            default:
                return 0;
        }
    }

  private:
    int thread_tag() {
        const auto id = std::this_thread::get_id();
        auto it = threads_.find(id);
        if (it != threads_.end())
            return it->second;
        const int tag = static_cast<int>(threads_.size());
        threads_[id] = tag;
        return tag;
    }
    void add(Event::Kind k) { log_.push_back(Event{k, thread_tag()}); }

    int sensor(int channel) {
        if (sensor_override) {
            const int v = sensor_override(channel);
            if (v >= 0)
                return v;
        }
        if (channel == 1)
            return (regs_[0x24] & 0x800) && zoom() >= zoom_edge ? 1 : 0;
        return (regs_[0x29] & 0x800) && focus_pos <= focus_edge ? 1 : 0;
    }

    void strobe() {
        ++strobes_;
        const uint16_t zw = regs_[0x24];
        const uint16_t fw = regs_[0x29];
        const int zc = zw & 0xFF;
        const int fc = fw & 0xFF;
        // Direction bit set: zoom rises, focus falls.
        zoom_pulses += (zw & 0x100) ? zc : -zc;
        focus_pos += (fw & 0x100) ? -fc : fc;
        if (zc != 0 || fc != 0)
            busy_left_ = busy_reads;
    }

    void frame(const std::string& path, uint8_t mode, const uint8_t* tx, uint8_t* rx,
               uint32_t len) {
        if (mode == 0x03) {
            // LC898201 bus mode: only an LC898201 understands it.
            Event e{Event::kLcFrame, thread_tag()};
            log_.push_back(e);
            if (!lc_present || path != "/dev/spidev4.0" || len != 3)
                return;
            const uint16_t addr = static_cast<uint16_t>(((tx[0] & 0x7F) << 8) | tx[1]);
            if (tx[0] & 0x80) {
                if (rx != nullptr)
                    rx[2] = addr == 0x0101 ? lc_probe_ : 0;
            } else if (addr == 0x0101) {
                lc_probe_ = tx[2];
            }
            return;
        }
        if (mode != 0x0F || lc_present || path != ms_path || len != 3)
            return;
        const uint8_t r = tx[0] & 0x3F;
        if (tx[0] & 0x40) {
            if (rx != nullptr) {
                rx[1] = static_cast<uint8_t>(regs_[r] & 0xFF);
                rx[2] = static_cast<uint8_t>(regs_[r] >> 8);
            }
            return;
        }
        regs_[r] = static_cast<uint16_t>(tx[1] | (tx[2] << 8));
        Event e{Event::kWrite, thread_tag()};
        e.reg = r;
        e.value = regs_[r];
        log_.push_back(e);
    }

    std::mutex mu_;
    std::vector<Event> log_;
    std::map<std::thread::id, int> threads_;
    std::map<int, std::string> fds_;
    std::map<int, uint8_t> modes_;
    int next_fd_ = 11;
    uint16_t regs_[64] = {};
    int vd_level_ = 1;
    int busy_left_ = 0;
    uint32_t strobes_ = 0;
    uint8_t lc_probe_ = 0;
};

class Spi final : public platform::SpiBackend {
  public:
    explicit Spi(Chip& c) : chip_(c) {}
    int open(const char* path, int) override { return chip_.spi_open(path); }
    int ioctl(int fd, unsigned long req, void* arg) override {
        return chip_.spi_ioctl(fd, req, arg);
    }
    int close(int fd) override { return chip_.spi_close(fd); }

  private:
    Chip& chip_;
};

class Gpio final : public platform::GpioBackend {
  public:
    explicit Gpio(Chip& c) : chip_(c) {}
    int open(const char*, int) override { return chip_.gpio_open_fails ? -1 : 5; }
    int ioctl(int fd, unsigned long req, void* arg) override {
        return chip_.gpio_ioctl(fd, req, arg);
    }
    int close(int) override { return 0; }

  private:
    Chip& chip_;
};

// Test fixture: the fake chip behind the SPI and GPIO seams, a sandbox root, the given clock,
// and every lens module back at its power-on state before and after each test.
template <typename ClockT>
class RigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::select_clock(&clock);
        platform::select_spi(&spi);
        platform::select_gpio(&gpio);
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
    Chip chip;
    Spi spi{chip};
    Gpio gpio{chip};
};

}  // namespace msfake

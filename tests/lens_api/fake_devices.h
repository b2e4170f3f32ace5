// Recording fakes of the SPI and GPIO seams for the lens driver tests. They record every system
// call the drivers make, answer like the spidev and vendor GPIO drivers do, and fail on request.
#pragma once

#include <linux/spi/spidev.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/gpio.h"
#include "platform/spi.h"

namespace lensfake {

struct SpiCall {
    enum Kind { kOpen, kIoctl, kTransfer, kClose } kind = kOpen;
    std::string path;
    int flags = 0;
    int fd = 0;
    unsigned long request = 0;
    uint32_t value = 0;         // ioctl argument as passed in
    std::vector<uint8_t> tx;    // transfer bytes
    bool rx = false;            // a receive buffer was given
    spi_ioc_transfer record{};  // the transfer record as handed over

    static SpiCall make(Kind k, int fd, unsigned long request = 0, std::string path = "",
                        int flags = 0) {
        SpiCall c;
        c.kind = k;
        c.fd = fd;
        c.request = request;
        c.path = std::move(path);
        c.flags = flags;
        return c;
    }
};

class FakeSpi final : public platform::SpiBackend {
  public:
    std::vector<SpiCall> calls;
    bool open_fails = false;
    unsigned long fail_request = 0;  // this ioctl request fails with fail_result
    int fail_result = -22;
    bool transfer_fails = false;
    // Fills rx (same length as tx) for a transfer; by default rx stays zero.
    std::function<void(const std::vector<uint8_t>& tx, uint8_t* rx)> responder;
    // Sees every transfer without a receive buffer (register writes).
    std::function<void(const std::vector<uint8_t>& tx)> on_write;

    int open(const char* dev_path, int flags) override {
        calls.push_back(SpiCall::make(SpiCall::kOpen, -1, 0, dev_path, flags));
        return open_fails ? -1 : next_fd_++;
    }
    int ioctl(int fd, unsigned long request, void* arg) override {
        // No device behind the descriptor (a failed open leaves 0): the kernel refuses.
        if (fd <= 0) {
            calls.push_back(SpiCall::make(SpiCall::kIoctl, fd, request));
            return -9;
        }
        if (request == SPI_IOC_MESSAGE(1)) {
            const auto* tr = static_cast<const spi_ioc_transfer*>(arg);
            SpiCall c = SpiCall::make(SpiCall::kTransfer, fd);
            c.request = request;
            c.record = *tr;
            const auto* tx = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(tr->tx_buf));
            c.tx.assign(tx, tx + tr->len);
            c.rx = tr->rx_buf != 0;
            calls.push_back(c);
            if (transfer_fails)
                return -5;
            if (!c.rx && on_write)
                on_write(c.tx);
            if (c.rx && responder)
                responder(c.tx, reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(tr->rx_buf)));
            return static_cast<int>(tr->len);
        }
        const bool wide = request == SPI_IOC_WR_MAX_SPEED_HZ || request == SPI_IOC_RD_MAX_SPEED_HZ;
        uint32_t v = 0;
        if (wide)
            std::memcpy(&v, arg, 4);
        else
            v = *static_cast<uint8_t*>(arg);
        SpiCall c = SpiCall::make(SpiCall::kIoctl, fd);
        c.request = request;
        c.value = v;
        calls.push_back(c);
        if (request == fail_request)
            return fail_result;
        // Read requests give back what was written, as the driver does.
        auto& slot = state_[fd][request & ~0xC0000000ul];
        if (request == SPI_IOC_WR_MODE || request == SPI_IOC_WR_BITS_PER_WORD ||
            request == SPI_IOC_WR_MAX_SPEED_HZ) {
            slot = v;
        } else if (wide) {
            std::memcpy(arg, &slot, 4);
        } else {
            *static_cast<uint8_t*>(arg) = static_cast<uint8_t>(slot);
        }
        return 0;
    }
    int close(int fd) override {
        calls.push_back(SpiCall::make(SpiCall::kClose, fd));
        return 0;
    }

    std::vector<SpiCall> of_kind(SpiCall::Kind k) const {
        std::vector<SpiCall> out;
        for (const auto& c : calls)
            if (c.kind == k)
                out.push_back(c);
        return out;
    }

  private:
    int next_fd_ = 7;
    std::map<int, std::map<unsigned long, uint32_t>> state_;
};

struct GpioCall {
    unsigned long request;
    int pin;
};

class FakeGpio final : public platform::GpioBackend {
  public:
    std::vector<std::string> opened;
    std::vector<GpioCall> calls;
    bool open_fails = false;
    bool read_fails = false;
    std::map<int, int> levels;  // level returned by the read request per pin

    int open(const char* dev_path, int) override {
        opened.push_back(dev_path);
        return open_fails ? -1 : 5;
    }
    int ioctl(int fd, unsigned long request, void* arg) override {
        int pin;
        std::memcpy(&pin, arg, sizeof pin);
        calls.push_back({request, pin});
        if (fd < 0)
            return -9;
        if (request == 0x4004426A) {
            if (read_fails)
                return -5;
            const int level = levels.count(pin) ? levels[pin] : 0;
            std::memcpy(arg, &level, sizeof level);
        }
        return 0;
    }
    int close(int) override { return 0; }
};

// A register-level stand-in for the LC898201 with just enough behaviour to drive the driver's
// logic: start/busy registers that stay busy for a set number of polls, step counters per
// channel, home sensors on a threshold (zoom on at or above its edge, focus on at or below), and
// a Hall reading computed from the offset and bias registers.
class FakeLcChip {
  public:
    struct Write {
        uint16_t addr;
        uint32_t value;
        int width;
    };
    std::vector<Write> writes;
    uint8_t reg8[0x800] = {};
    std::map<uint16_t, uint32_t> reg32;
    int busy_polls = 2;  // polls that read busy after a start
    bool zoom_stuck_busy = false;
    bool focus_stuck_busy = false;
    int zoom_pos = 0;  // steps
    int focus_pos = 0;
    int zoom_edge = 6378;   // zoom sensor on for zoom_pos >= edge
    int focus_edge = 2400;  // focus sensor on for focus_pos <= edge
    bool zoom_sensor_dead = false;
    bool focus_sensor_dead = false;
    int zoom_starts = 0;
    int focus_starts = 0;
    // Hall reading as a function of (offset, bias); default: a reading that rises with both.
    std::function<uint32_t(int offset, int bias)> hall;

    void attach(FakeSpi& spi) {
        spi.on_write = [this](const std::vector<uint8_t>& tx) { write(tx); };
        spi.responder = [this](const std::vector<uint8_t>& tx, uint8_t* rx) { read(tx, rx); };
    }

    std::vector<Write> writes_to(uint16_t addr) const {
        std::vector<Write> out;
        for (const auto& w : writes)
            if (w.addr == addr)
                out.push_back(w);
        return out;
    }

  private:
    int zoom_busy_ = 0;
    int focus_busy_ = 0;

    static uint16_t address(const std::vector<uint8_t>& tx) {
        return static_cast<uint16_t>(((tx[0] & 0x7F) << 8) | tx[1]);
    }
    void write(const std::vector<uint8_t>& tx) {
        const uint16_t a = address(tx);
        if (tx.size() == 6) {
            const uint32_t v =
                (uint32_t(tx[2]) << 24) | (uint32_t(tx[3]) << 16) | (uint32_t(tx[4]) << 8) | tx[5];
            reg32[a] = v;
            writes.push_back({a, v, 32});
            return;
        }
        writes.push_back({a, tx[2], 8});
        if (a < 0x800)
            reg8[a] = tx[2];
        if (a == 0x010E && tx[2] == 1) {
            ++zoom_starts;
            const int steps = (reg8[0x0106] | (reg8[0x0107] << 8)) / 4;
            zoom_pos += (reg8[0x0102] & 0x80) ? -steps : steps;
            zoom_busy_ = busy_polls;
        }
        if (a == 0x014E && tx[2] == 1) {
            ++focus_starts;
            const int steps = (reg8[0x0146] | (reg8[0x0147] << 8)) / 2;
            focus_pos += (reg8[0x0142] & 0x80) ? steps : -steps;
            focus_busy_ = busy_polls;
        }
    }
    void read(const std::vector<uint8_t>& tx, uint8_t* rx) {
        const uint16_t a = address(tx);
        if (tx.size() == 6) {
            uint32_t v = reg32.count(a) ? reg32[a] : 0;
            if (a == 0x1230 && hall)
                v = hall(reg8[0x0079], reg8[0x007C]);
            rx[2] = uint8_t(v >> 24);
            rx[3] = uint8_t(v >> 16);
            rx[4] = uint8_t(v >> 8);
            rx[5] = uint8_t(v);
            return;
        }
        uint8_t v = a < 0x800 ? reg8[a] : 0;
        const bool powered = reg8[0x01A0] == 0x11;
        if (a == 0x010E)
            v = (zoom_stuck_busy || zoom_busy_-- > 0) ? 1 : 0;
        if (a == 0x014E)
            v = (focus_stuck_busy || focus_busy_-- > 0) ? 1 : 0;
        if (a == 0x014C)
            v = (powered && !zoom_sensor_dead && zoom_pos >= zoom_edge) ? 0x10 : 0;
        if (a == 0x010C)
            v = (powered && !focus_sensor_dead && focus_pos <= focus_edge) ? 0x10 : 0;
        rx[2] = v;
    }
};

}  // namespace lensfake

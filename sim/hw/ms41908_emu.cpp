#include "sim/hw/ms41908_emu.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vcam::hw {
namespace {

constexpr uint8_t kRegIris = 0x00;
constexpr uint8_t kRegZoomWord = 0x24;
constexpr uint8_t kRegZoomPeriod = 0x25;
constexpr uint8_t kRegFocusWord = 0x29;
constexpr uint8_t kRegFocusPeriod = 0x2A;
constexpr uint16_t kCount = 0x00FF;
constexpr uint16_t kDirBit = 0x0100;
constexpr uint16_t kSupplyBit = 0x0800;
constexpr uint8_t kReadFlag = 0x40;
constexpr uint8_t kAlwaysZero = 0x80;

bool sensor(SensorFault f, bool powered, bool lit) {
    if (f == SensorFault::kStuckOff)
        return false;
    if (f == SensorFault::kStuckOn)
        return true;
    return powered && lit;
}

}  // namespace

Ms41908Emu::Ms41908Emu(LensMechanics& mech, const Ms41908Config& cfg) : mech_(mech), cfg_(cfg) {
    const LensTruth t = mech_.snapshot();
    power_on(t.zoom, t.focus, t.time_us);
}

void Ms41908Emu::power_on(double zoom, double focus, uint64_t now_us) {
    zoom_.setup(zoom, cfg_.zoom_backlash, cfg_.zoom_stop_min, cfg_.zoom_stop_max);
    focus_.setup(focus, cfg_.focus_backlash, cfg_.focus_stop_min, cfg_.focus_stop_max);
    now_ = now_us;
    publish();
}

void Ms41908Emu::reset(uint64_t now_us) {
    advance(now_us);
    std::memset(regs_, 0, sizeof regs_);
    zoom_.stop();
    focus_.stop();
}

void Ms41908Emu::advance(uint64_t now_us) {
    if (now_us < now_)
        now_us = now_;  // calls from another daemon thread may carry a slightly older stamp
    zoom_.run(now_us);
    focus_.run(now_us);
    if (now_us > now_) {
        const double dt = static_cast<double>(now_us - now_);
        const double k = 1.0 - std::exp(-dt / std::max(cfg_.iris_tau_us, 1.0));
        iris_ += (iris_target_ - iris_) * k;
    }
    now_ = now_us;
    publish();
}

void Ms41908Emu::publish() {
    LensTruth t = mech_.snapshot();
    t.zoom = zoom_.carriage_steps();
    t.focus = focus_.carriage_steps();
    t.iris = iris_;
    t.time_us = now_;
    mech_.set(t);
}

void Ms41908Emu::vd_rise(uint64_t now_us) {
    advance(now_us);
    ++strobes_;
    const uint16_t zw = regs_[kRegZoomWord];
    const uint16_t fw = regs_[kRegFocusWord];
    const double zoom_period = regs_[kRegZoomPeriod] * cfg_.time_unit_us;
    const double focus_period = regs_[kRegFocusPeriod] * cfg_.time_unit_us;
    bool was_busy = zoom_.start((zw & kDirBit) ? +1 : -1, zw & kCount, zoom_period, now_);
    was_busy = focus_.start((fw & kDirBit) ? -1 : +1, fw & kCount, focus_period, now_) || was_busy;
    if (was_busy)
        ++strobes_while_busy_;
    const int target = kIrisFull - std::min<int>(regs_[kRegIris], kIrisFull);
    iris_target_ = static_cast<double>(target);
}

bool Ms41908Emu::pls() const {
    return cfg_.busy_stuck || zoom_.busy() || focus_.busy();
}

uint64_t Ms41908Emu::pls_steady_until_us() const {
    if (cfg_.busy_stuck)
        return 0;
    return std::max(zoom_.busy_until_us(), focus_.busy_until_us());
}

bool Ms41908Emu::zoom_sensor() const {
    return sensor(cfg_.zoom_sensor, (regs_[kRegZoomWord] & kSupplyBit) != 0,
                  zoom_.carriage_steps() >= cfg_.zoom_home_edge);
}

bool Ms41908Emu::focus_sensor() const {
    return sensor(cfg_.focus_sensor, (regs_[kRegFocusWord] & kSupplyBit) != 0,
                  focus_.carriage_steps() <= cfg_.focus_home_edge);
}

void Ms41908Emu::transfer(uint64_t now_us, uint8_t mode, const uint8_t* tx, uint8_t* rx,
                          std::size_t len) {
    std::memset(rx, 0, len);
    advance(now_us);
    if (mode != kChipMode || len != 3 || (tx[0] & kAlwaysZero) != 0) {
        ++frames_ignored_;
        return;
    }
    const uint8_t r = tx[0] & 0x3F;
    if (tx[0] & kReadFlag) {
        rx[1] = static_cast<uint8_t>(regs_[r] & 0xFF);
        rx[2] = static_cast<uint8_t>(regs_[r] >> 8);
        return;
    }
    regs_[r] = static_cast<uint16_t>(tx[1] | (tx[2] << 8));
}

}  // namespace vcam::hw

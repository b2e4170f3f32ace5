#include "sim/hw/lc898201_emu.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vcam::hw {
namespace {

constexpr uint16_t kZoomBase = 0x0100;
constexpr uint16_t kFocusBase = 0x0140;
// Offsets inside a channel block.
constexpr uint16_t kDir = 0x02;
constexpr uint16_t kPeriodLo = 0x04;
constexpr uint16_t kCountLo = 0x06;
constexpr uint16_t kStart = 0x0E;
constexpr uint16_t kRegFocusSensor = 0x010C;
constexpr uint16_t kRegZoomSensor = 0x014C;
constexpr uint16_t kRegSupply = 0x01A0;
constexpr uint16_t kRegServoMode = 0x000C;
constexpr uint16_t kRegServoTake = 0x000D;
constexpr uint16_t kRegHallOffset = 0x0079;
constexpr uint16_t kRegHallBias = 0x007C;
constexpr uint16_t kRegServoDrive = 0x0314;
constexpr uint16_t kRegTarget = 0x1027;
constexpr uint16_t kRegOpenLoop = 0x122E;
constexpr uint16_t kRegHall = 0x1230;

constexpr double kHallBeta = 0.0006;
constexpr double kHallTrim = 0.01367;

float as_float(uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}
uint32_t as_bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}
int64_t to_pulses(double steps, int pps) {
    return static_cast<int64_t>(std::llround(steps * pps));
}

}  // namespace

Lc898201Emu::Lc898201Emu(LensMechanics& mech, const Lc898201Config& cfg) : mech_(mech), cfg_(cfg) {
    zoom_.pulses_per_step = 4;
    zoom_.dir_bit_sign = -1;
    focus_.pulses_per_step = 2;
    focus_.dir_bit_sign = +1;
    const LensTruth t = mech_.snapshot();
    power_on(t.zoom, t.focus, t.time_us);
}

void Lc898201Emu::power_on(double zoom, double focus, uint64_t now_us) {
    auto setup = [](Channel& ch, double pos, double play, double lo, double hi) {
        const int pps = ch.pulses_per_step;
        ch.stop_min = to_pulses(lo, pps);
        ch.stop_max = to_pulses(hi, pps);
        ch.carriage = std::clamp(to_pulses(pos, pps), ch.stop_min, ch.stop_max);
        ch.motor = ch.carriage;
        ch.play = std::max<int64_t>(0, to_pulses(play, pps));
        ch.busy = false;
        ch.remaining = 0;
        ch.lost = 0;
    };
    setup(zoom_, zoom, cfg_.zoom_backlash, cfg_.zoom_stop_min, cfg_.zoom_stop_max);
    setup(focus_, focus, cfg_.focus_backlash, cfg_.focus_stop_min, cfg_.focus_stop_max);
    now_ = now_us;
    publish();
}

void Lc898201Emu::reset(uint64_t now_us) {
    advance(now_us);
    std::memset(regs_, 0, sizeof regs_);
    regs_high_.clear();
    regs32_.clear();
    zoom_.busy = focus_.busy = false;
    zoom_.remaining = focus_.remaining = 0;
    servo_target_ = 1.0f;
}

void Lc898201Emu::pulse(Channel& ch) {
    const int64_t m = ch.motor + ch.dir;
    // The carriage stays inside [motor - play, motor]: it is pushed by one side of the play when
    // the motor rises and by the other when it falls.
    int64_t c = ch.carriage;
    if (c > m)
        c = m;
    if (c < m - ch.play)
        c = m - ch.play;
    if (c < ch.stop_min || c > ch.stop_max) {
        ++ch.lost;  // against the end stop: the motor stalls
        return;
    }
    ch.motor = m;
    ch.carriage = c;
}

void Lc898201Emu::run_channel(Channel& ch, uint64_t now_us) {
    const double now = static_cast<double>(now_us);
    while (ch.busy && ch.next_us <= now) {
        pulse(ch);
        ch.next_us += ch.period_us;
        if (--ch.remaining == 0)
            ch.busy = false;
    }
}

double Lc898201Emu::gain() const {
    return 1.0 + 0.01 * (static_cast<double>(regs_[kRegHallBias]) - 64.0);
}

double Lc898201Emu::hall_reading() const {
    const double off = static_cast<double>(regs_[kRegHallOffset]);
    return gain() * (2.0 * iris_ - 1.0) + kHallBeta * (off - cfg_.hall_centre) - kHallTrim;
}

double Lc898201Emu::iris_target() const {
    if (regs_[kRegServoDrive] == 0)
        return 0.0;  // no drive: the blades spring closed
    if (regs_[kRegServoMode] == 7) {
        // Closed loop: the opening whose Hall reading equals the target.
        const double off = static_cast<double>(regs_[kRegHallOffset]);
        const double g = std::max(gain(), 0.05);
        const double m =
            (1.0 + (servo_target_ + kHallTrim - kHallBeta * (off - cfg_.hall_centre)) / g) / 2.0;
        return std::clamp(m, 0.0, 1.0);
    }
    auto it = regs32_.find(kRegOpenLoop);
    const double drive = it == regs32_.end() ? 0.0 : as_float(it->second);
    return std::clamp((drive + 1.0) / 2.0, 0.0, 1.0);
}

void Lc898201Emu::run_iris(uint64_t now_us) {
    if (now_us <= now_)
        return;
    const double dt = static_cast<double>(now_us - now_);
    const double k = 1.0 - std::exp(-dt / std::max(cfg_.iris_tau_us, 1.0));
    iris_ += (iris_target() - iris_) * k;
}

void Lc898201Emu::advance(uint64_t now_us) {
    if (now_us < now_)
        now_us = now_;  // calls from another daemon thread may carry a slightly older stamp
    run_channel(zoom_, now_us);
    run_channel(focus_, now_us);
    run_iris(now_us);
    now_ = now_us;
    publish();
}

void Lc898201Emu::publish() {
    LensTruth t = mech_.snapshot();
    t.zoom = static_cast<double>(zoom_.carriage) / zoom_.pulses_per_step;
    t.focus = static_cast<double>(focus_.carriage) / focus_.pulses_per_step;
    t.iris = iris_ * 1023.0;
    t.time_us = now_;
    mech_.set(t);
}

void Lc898201Emu::start(Channel& ch, uint16_t base, uint64_t now_us) {
    const uint32_t count = regs_[base + kCountLo] | (regs_[base + kCountLo + 1] << 8);
    const uint32_t period = regs_[base + kPeriodLo] | (regs_[base + kPeriodLo + 1] << 8);
    if (ch.busy)
        ++restarts_while_busy_;  // new settings replace the remaining pulses
    ch.busy = false;
    ch.remaining = 0;
    if (count == 0)
        return;
    ch.dir = (regs_[base + kDir] & 0x80) ? ch.dir_bit_sign : -ch.dir_bit_sign;
    ch.period_us = std::max<uint32_t>(period, 1) * cfg_.time_unit_us;
    ch.remaining = count;
    ch.next_us = static_cast<double>(now_us) + ch.period_us;
    ch.busy = true;
}

uint8_t Lc898201Emu::read8(uint16_t addr) {
    const uint8_t supply = regs_[kRegSupply];
    auto sensor = [](SensorFault f, bool powered, bool lit) {
        if (f == SensorFault::kStuckOff)
            return false;
        if (f == SensorFault::kStuckOn)
            return true;
        return powered && lit;
    };
    switch (addr) {
        case kZoomBase + kStart:
            return (cfg_.zoom_busy_stuck || zoom_.busy) ? 1 : 0;
        case kFocusBase + kStart:
            return (cfg_.focus_busy_stuck || focus_.busy) ? 1 : 0;
        case kRegZoomSensor: {
            const double z = static_cast<double>(zoom_.carriage) / zoom_.pulses_per_step;
            const bool on = sensor(cfg_.zoom_sensor, supply & 0x10, z >= cfg_.zoom_home_edge);
            return static_cast<uint8_t>((regs_[addr] & ~0x10) | (on ? 0x10 : 0));
        }
        case kRegFocusSensor: {
            const double f = static_cast<double>(focus_.carriage) / focus_.pulses_per_step;
            const bool on = sensor(cfg_.focus_sensor, supply & 0x01, f <= cfg_.focus_home_edge);
            return static_cast<uint8_t>((regs_[addr] & ~0x10) | (on ? 0x10 : 0));
        }
        default:
            break;
    }
    if (addr < sizeof regs_)
        return regs_[addr];
    auto it = regs_high_.find(addr);
    return it == regs_high_.end() ? 0 : it->second;
}

void Lc898201Emu::write8(uint16_t addr, uint8_t v, uint64_t now_us) {
    if (addr >= sizeof regs_) {
        regs_high_[addr] = v;
        return;
    }
    regs_[addr] = v;
    if (addr == kZoomBase + kStart && v == 1)
        start(zoom_, kZoomBase, now_us);
    else if (addr == kFocusBase + kStart && v == 1)
        start(focus_, kFocusBase, now_us);
    else if (addr == kRegServoTake && v == 1)
        servo_target_ = as_float(regs32_[kRegTarget]);
}

void Lc898201Emu::transfer(uint64_t now_us, uint8_t mode, const uint8_t* tx, uint8_t* rx,
                           std::size_t len) {
    std::memset(rx, 0, len);
    steady_until_ = 0;
    if (mode != kChipMode || (len != 3 && len != 6)) {
        ++frames_ignored_;
        return;
    }
    advance(now_us);
    const bool read = (tx[0] & 0x80) != 0;
    const uint16_t addr = static_cast<uint16_t>(((tx[0] & 0x7F) << 8) | tx[1]);
    if (len == 3) {
        if (read) {
            rx[2] = read8(addr);
            if (addr == kZoomBase + kStart && !cfg_.zoom_busy_stuck)
                steady_until_ = busy_until(zoom_);
            else if (addr == kFocusBase + kStart && !cfg_.focus_busy_stuck)
                steady_until_ = busy_until(focus_);
        } else
            write8(addr, tx[2], now_);
        return;
    }
    if (read) {
        uint32_t v;
        if (addr == kRegHall) {
            v = as_bits(static_cast<float>(hall_reading()));
        } else {
            auto it = regs32_.find(addr);
            v = it == regs32_.end() ? 0 : it->second;
        }
        rx[2] = static_cast<uint8_t>(v >> 24);
        rx[3] = static_cast<uint8_t>(v >> 16);
        rx[4] = static_cast<uint8_t>(v >> 8);
        rx[5] = static_cast<uint8_t>(v);
    } else {
        regs32_[addr] = (static_cast<uint32_t>(tx[2]) << 24) |
                        (static_cast<uint32_t>(tx[3]) << 16) | (static_cast<uint32_t>(tx[4]) << 8) |
                        tx[5];
    }
}

uint64_t Lc898201Emu::busy_until(const Channel& ch) {
    if (!ch.busy)
        return 0;
    return static_cast<uint64_t>(
        std::ceil(ch.next_us + static_cast<double>(ch.remaining - 1) * ch.period_us));
}

uint8_t Lc898201Emu::reg8(uint16_t addr) const {
    return addr < sizeof regs_ ? regs_[addr] : 0;
}

uint32_t Lc898201Emu::reg32(uint16_t addr) const {
    auto it = regs32_.find(addr);
    return it == regs32_.end() ? 0 : it->second;
}

}  // namespace vcam::hw

#include "sim/hw/gpio_emu.h"

namespace vcam::hw {

void GpioEmu::drive(uint16_t pin, int level, uint64_t now_us) {
    Pin& p = state_[pin];
    const int before = p.output ? p.level : -1;
    p.output = true;
    p.level = level;
    if (pin == pins_.reset && before != level) {
        if (level == 0)
            ++reset_pulses_;
        if (on_reset && (level == 0 || before == 0))
            on_reset(level == 0, now_us);
    }
    if (pin == pins_.vd && before == 0 && level == 1 && on_vd_rise)
        on_vd_rise(now_us);
}

int GpioEmu::request(uint32_t req, int* arg, uint64_t now_us) {
    const uint16_t pin = static_cast<uint16_t>(*arg);
    switch (req) {
        case kReqResetMid:
            drive(pin, 0, now_us);
            return 0;
        case kReqOutHigh:
            drive(pin, 1, now_us);
            return 0;
        case kReqVdHigh:
            drive(pin, 1, now_us);
            return 0;
        case kReqVdLow:
            drive(pin, 0, now_us);
            return 0;
        case kReqInput:
            state_[pin].output = false;
            return 0;
        case kReqRead: {
            int level = -1;
            if (input)
                level = input(pin, now_us);
            if (level < 0)
                level = this->level(pin);
            *arg = level != 0 ? 1 : 0;
            return 0;
        }
        default:
            return -22;
    }
}

int GpioEmu::level(uint16_t pin) const {
    auto it = state_.find(pin);
    return it == state_.end() ? 0 : it->second.level;
}

}  // namespace vcam::hw

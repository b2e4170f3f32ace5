// Model of the vendor GPIO device /dev/vhd_gpio: one ioctl per pin operation, each with a pointer
// to an int holding the pin number; a read returns the level in the same int.
//
//   0x40044265  output, level 0   (middle of the reset pulse: reset asserted)
//   0x40044266  output, level 1   (reset released; makes vd an output)
//   0x40044267  vd := 1           (a 0 -> 1 edge strobes the MS41908's registers)
//   0x40044268  vd := 0
//   0x40044269  configure as input
//   0x4004426A  read the level (0 or 1)
//
// Inputs are read through a hook (the chip emulator that drives them); an input nobody drives
// reads 0. Any pin may be used without set-up, as the driver permits.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

namespace vcam::hw {

struct GpioPinMap {
    uint16_t zoom_pi = 50;
    uint16_t focus_pi = 111;
    uint16_t vd = 112;
    uint16_t pls = 62;
    uint16_t reset = 38;
};

class GpioEmu {
  public:
    static constexpr uint32_t kReqResetMid = 0x40044265;
    static constexpr uint32_t kReqOutHigh = 0x40044266;
    static constexpr uint32_t kReqVdHigh = 0x40044267;
    static constexpr uint32_t kReqVdLow = 0x40044268;
    static constexpr uint32_t kReqInput = 0x40044269;
    static constexpr uint32_t kReqRead = 0x4004426A;

    explicit GpioEmu(const GpioPinMap& pins) : pins_(pins) {}

    // Level of an input pin at now_us, or -1 when the hook does not drive it.
    std::function<int(uint16_t pin, uint64_t now_us)> input;
    // Reset line asserted (true) or released (false).
    std::function<void(bool asserted, uint64_t now_us)> on_reset;
    // Rising edge of vd.
    std::function<void(uint64_t now_us)> on_vd_rise;

    // One request; *arg as the daemon passes it. Returns the ioctl result (0, or -22 unknown).
    int request(uint32_t req, int* arg, uint64_t now_us);

    int level(uint16_t pin) const;
    const GpioPinMap& pins() const { return pins_; }
    uint32_t reset_pulses() const { return reset_pulses_; }

  private:
    struct Pin {
        bool output = false;
        int level = 0;
    };
    void drive(uint16_t pin, int level, uint64_t now_us);

    GpioPinMap pins_;
    std::map<uint16_t, Pin> state_;
    uint32_t reset_pulses_ = 0;
};

}  // namespace vcam::hw

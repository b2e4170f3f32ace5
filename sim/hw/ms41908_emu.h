// Register-level model of the MS41908 lens driver, as the daemon's driver uses it.
//
// 64 registers of 16 bits, reached with 3-byte frames in SPI mode 0x0F (mode 3, chip select
// active high, least significant bit first): byte 0 is the register number with bit 6 as the
// read flag (bit 7 always 0), then the data low byte first. Frames sent in any other mode (the
// LC898201's probe, for one) never reach the chip: they are ignored and read back as zeros.
//
// Motor registers are shadows until the rising edge of the `vd` GPIO, which latches them:
//   0x24 zoom control word   bits 0..7 pulse count, bit 8 set = zoom position rises
//   0x25 zoom pulse period
//   0x29 focus control word  bits 0..7 pulse count, bit 8 set = focus position falls
//   0x2A focus pulse period
//   0x00 iris target         the iris value is 1023 minus this
// A zoom step is two pulses, a focus step one; each channel emits its latched count, one pulse
// every period x time_unit_us, into a StepperChannel with its mechanical play and end stops. The
// busy output `pls` rises at the strobe when either count is non-zero and falls after the last
// pulse of both; a strobe with both counts 0 moves nothing (the iris strobe relies on this). A
// strobe while pulses still run replaces them with the new settings (counted as a fidelity
// event: it only happens when two daemon threads race past the driver's idle wait).
//
// Home sensors (photo-interrupters on GPIO): zoom lit while the zoom carriage is at or above its
// edge, focus lit while the focus carriage is at or below its edge, each powered by bit 11 of its
// channel's control word. The supply follows the register write at once (no strobe needed: the
// homing reads the sensor before its first strobe). An unpowered sensor reads 0.
//
// Iris: first-order response towards the latched target, time constant iris_tau_us.
//
// Reset (the reset line asserted): registers to 0 (sensor supplies off), channels stopped, pls
// low; the mechanics stay where they are.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/hw/lc898201_emu.h"
#include "sim/hw/lens_mechanics.h"
#include "sim/hw/stepper_channel.h"

namespace vcam::hw {

struct Ms41908Config {
    // Pulse period unit: a move_both lasts about 29300 units (n steps x the table entry for n),
    // 11.7 ms at 0.4 us, well inside a frame.
    double time_unit_us = 0.4;
    double zoom_backlash = 0.0;  // mechanical play, steps
    double focus_backlash = 0.0;
    double zoom_home_edge = 6378.0;   // zoom sensor on at or above
    double focus_home_edge = 2400.0;  // focus sensor on at or below
    double zoom_stop_min = -300.0;    // end stops, steps (outside the daemon's 0..6624)
    double zoom_stop_max = 6900.0;
    double focus_stop_min = -300.0;  // outside 0..6120
    double focus_stop_max = 6400.0;
    double iris_tau_us = 20000.0;
    // Faults.
    SensorFault zoom_sensor = SensorFault::kNone;
    SensorFault focus_sensor = SensorFault::kNone;
    bool busy_stuck = false;  // pls never falls
};

class Ms41908Emu {
  public:
    static constexpr uint8_t kChipMode = 0x0F;
    static constexpr uint16_t kIrisFull = 1023;

    Ms41908Emu(LensMechanics& mech, const Ms41908Config& cfg);

    // Power-on carriage positions (steps); the motors stand with no play taken up.
    void power_on(double zoom, double focus, uint64_t now_us);
    // One SPI frame of len bytes sent in mode at the daemon's time now_us; rx gets len bytes.
    void transfer(uint64_t now_us, uint8_t mode, const uint8_t* tx, uint8_t* rx, std::size_t len);
    // Rising edge of vd: latch and start.
    void vd_rise(uint64_t now_us);
    // Reset line asserted.
    void reset(uint64_t now_us);
    // Runs the mechanics up to now_us and publishes them.
    void advance(uint64_t now_us);

    // GPIO outputs of the chip and the lens, at the time of the last advance.
    bool pls() const;
    // While pls is high and not held by a fault: the time it falls, when both trains have ended
    // (nothing but a strobe from the daemon changes that). Otherwise 0.
    uint64_t pls_steady_until_us() const;
    bool zoom_sensor() const;
    bool focus_sensor() const;

    const Ms41908Config& config() const { return cfg_; }
    Ms41908Config& config() { return cfg_; }
    uint16_t reg(uint8_t r) const { return regs_[r & 0x3F]; }
    double zoom_motor() const { return zoom_.motor_steps(); }
    double focus_motor() const { return focus_.motor_steps(); }
    double iris_value() const { return iris_; }
    uint64_t lost_pulses() const { return zoom_.lost_pulses() + focus_.lost_pulses(); }
    uint32_t strobes() const { return strobes_; }
    uint32_t strobes_while_busy() const { return strobes_while_busy_; }
    uint32_t frames_ignored() const { return frames_ignored_; }

  private:
    void publish();

    LensMechanics& mech_;
    Ms41908Config cfg_;
    uint16_t regs_[64] = {};
    StepperChannel zoom_{2};
    StepperChannel focus_{1};
    double iris_ = 0.0;         // iris value, 0..1023
    double iris_target_ = 0.0;  // latched
    uint64_t now_ = 0;
    uint32_t strobes_ = 0;
    uint32_t strobes_while_busy_ = 0;
    uint32_t frames_ignored_ = 0;
};

}  // namespace vcam::hw

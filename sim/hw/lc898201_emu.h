// Register-level model of the LC898201 lens controller, as the daemon's driver uses it.
//
// Two stepping-motor channels count pulses into the lens mechanics: the zoom channel (registers
// 0x0100..) gives 4 pulses per motor step, the focus channel (0x0140..) 2. A start (write 1 to
// 0x010E / 0x014E) latches the direction word, pulse count and pulse period; the start/busy
// register then reads 1 until the last pulse has been emitted, one pulse every period x
// time_unit_us on the daemon's time line. Each carriage follows its motor through a mechanical
// play (backlash): it moves only once the motor has taken up the slack, and the home sensors and
// the optics follow the carriage, not the motor. Pulses that would push a carriage past its end
// stop are lost, as a stalled stepper loses them.
//
// Wiring as the lens has it: the zoom home sensor is bit 4 of 0x014C and the focus home sensor
// bit 4 of 0x010C; the zoom sensor is lit while the zoom carriage is at or above its edge, the
// focus sensor while the focus carriage is at or below its edge. The sensor LEDs are supplied
// through 0x01A0: bit 4 powers the zoom sensor, bit 0 the focus sensor; an unpowered sensor
// reads 0. Zoom direction word bit 7 (0x96) lowers the zoom position; focus direction bit 7
// raises the focus position.
//
// Iris: a Hall-sensor servo. The iris opening m (0 closed .. 1 open) moves first-order towards its
// target: in servo mode 7 with the drive on (0x0314 = 0x80) the opening whose Hall reading equals
// the latched target (0x1027, taken on 0x000D := 1); in other modes the open-loop drive 0x122E
// (-1 closed .. +1 open); drive off, the rest position (closed). The Hall reading (0x1230) is
//   h = G(bias) * (2m - 1) + beta * (offset - hall_centre) - 0.01367,
//   G(bias) = 1 + 0.01 * (bias - 64), beta = 0.0006 per offset unit,
// so it rises with the offset (0.003 per calibration step of 5) and the bias acts as a gain. With
// the iris open and bias 64 the reading is the middle of the calibration window at offset
// hall_centre, the unit's own value.
//
// Frames sent in another SPI mode than the chip's (mode 3, chip select active low, MSB first)
// never reach it: they are ignored and read back as zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "sim/hw/lens_mechanics.h"

namespace vcam::hw {

enum class SensorFault : uint8_t { kNone, kStuckOff, kStuckOn };

struct Lc898201Config {
    double time_unit_us = 0.2;   // pulse period unit: a move of 75000 units lasts 15 ms
    double zoom_backlash = 0.0;  // mechanical play, steps
    double focus_backlash = 0.0;
    double zoom_home_edge = 6378.0;   // zoom sensor on at or above
    double focus_home_edge = 2400.0;  // focus sensor on at or below
    double zoom_stop_min = -300.0;    // end stops, steps (outside the daemon's 0..6624)
    double zoom_stop_max = 6900.0;
    double focus_stop_min = -300.0;  // outside 0..6120
    double focus_stop_max = 6400.0;
    double hall_centre = 150.0;  // Hall offset that centres the reading (unit variation)
    double iris_tau_us = 20000.0;
    // Faults.
    SensorFault zoom_sensor = SensorFault::kNone;
    SensorFault focus_sensor = SensorFault::kNone;
    bool zoom_busy_stuck = false;
    bool focus_busy_stuck = false;
};

class Lc898201Emu {
  public:
    static constexpr uint8_t kChipMode = 0x03;

    Lc898201Emu(LensMechanics& mech, const Lc898201Config& cfg);

    // Power-on carriage positions (steps); the motors stand with no play taken up.
    void power_on(double zoom, double focus, uint64_t now_us);
    // One SPI frame of len bytes sent in mode at the daemon's time now_us; rx gets len bytes.
    void transfer(uint64_t now_us, uint8_t mode, const uint8_t* tx, uint8_t* rx, std::size_t len);
    // Reset line asserted: registers to their power-on values, channels stopped. The mechanics
    // stay where they are.
    void reset(uint64_t now_us);

    // Runs the mechanics up to now_us and publishes them.
    void advance(uint64_t now_us);

    const Lc898201Config& config() const { return cfg_; }
    Lc898201Config& config() { return cfg_; }
    // For the last transfer, when it read the start/busy register of a running channel that no
    // fault holds: the time its pulse train ends and the register reads 0. Otherwise 0.
    uint64_t steady_until_us() const { return steady_until_; }
    uint8_t reg8(uint16_t addr) const;
    uint32_t reg32(uint16_t addr) const;
    double hall_reading() const;
    double iris_opening() const { return iris_; }
    uint64_t lost_pulses() const { return zoom_.lost + focus_.lost; }
    uint32_t restarts_while_busy() const { return restarts_while_busy_; }
    uint32_t frames_ignored() const { return frames_ignored_; }

  private:
    struct Channel {
        int pulses_per_step = 1;
        int dir_bit_sign = 1;  // position change per pulse when direction bit 7 is set
        int64_t motor = 0;     // pulses
        int64_t carriage = 0;  // pulses
        int64_t play = 0;      // pulses
        int64_t stop_min = 0, stop_max = 0;
        bool busy = false;
        int dir = 1;
        uint32_t remaining = 0;
        double period_us = 1.0;
        double next_us = 0.0;
        uint64_t lost = 0;
    };

    void start(Channel& ch, uint16_t base, uint64_t now_us);
    void run_channel(Channel& ch, uint64_t now_us);
    static void pulse(Channel& ch);
    void run_iris(uint64_t now_us);
    double iris_target() const;
    double gain() const;
    uint8_t read8(uint16_t addr);
    static uint64_t busy_until(const Channel& ch);
    void write8(uint16_t addr, uint8_t v, uint64_t now_us);
    void publish();

    LensMechanics& mech_;
    Lc898201Config cfg_;
    uint8_t regs_[0x800] = {};
    std::map<uint16_t, uint8_t> regs_high_;
    std::map<uint16_t, uint32_t> regs32_;
    Channel zoom_;
    Channel focus_;
    double iris_ = 0.0;
    float servo_target_ = 1.0f;
    uint64_t now_ = 0;
    uint64_t steady_until_ = 0;
    uint32_t restarts_while_busy_ = 0;
    uint32_t frames_ignored_ = 0;
};

}  // namespace vcam::hw

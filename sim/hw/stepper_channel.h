// One stepping-motor channel of a lens-driver chip driving a lens carriage.
//
// Position is counted in pulses (a chip gives one or more pulses per daemon step). The carriage
// follows the motor through a mechanical play: when the motor reverses, it first takes up the
// slack and only then moves the carriage, so the home sensors and the optics (which see the
// carriage) lag the motor by the play. A pulse that would push the carriage past an end stop is
// lost: the stepper stalls there, as a real one does.
//
// A move is a train of `count` pulses, one every period_us, the first one period after the start;
// the channel is busy until the last pulse. A new start replaces whatever was left of the
// previous train.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace vcam::hw {

class StepperChannel {
  public:
    explicit StepperChannel(int pulses_per_step) : pps_(pulses_per_step) {}

    // Power-on: carriage at pos (steps, clamped to the stops), motor against the carriage with no
    // play taken up.
    void setup(double pos, double play_steps, double stop_min, double stop_max) {
        stop_min_ = to_pulses(stop_min);
        stop_max_ = to_pulses(stop_max);
        carriage_ = std::clamp(to_pulses(pos), stop_min_, stop_max_);
        motor_ = carriage_;
        play_ = std::max<int64_t>(0, to_pulses(play_steps));
        stop();
        lost_ = 0;
    }

    // Starts a train; dir is +1 or -1 pulses per pulse. True when a train was still running.
    bool start(int dir, uint32_t count, double period_us, uint64_t now_us) {
        const bool was_busy = busy_;
        stop();
        if (count == 0)
            return was_busy;
        dir_ = dir >= 0 ? 1 : -1;
        period_us_ = std::max(period_us, 1e-3);
        remaining_ = count;
        next_us_ = static_cast<double>(now_us) + period_us_;
        busy_ = true;
        return was_busy;
    }

    void stop() {
        busy_ = false;
        remaining_ = 0;
    }

    // Emits every pulse due up to now_us.
    void run(uint64_t now_us) {
        const double now = static_cast<double>(now_us);
        while (busy_ && next_us_ <= now) {
            pulse();
            next_us_ += period_us_;
            if (--remaining_ == 0)
                busy_ = false;
        }
    }

    bool busy() const { return busy_; }
    // Time of the last pulse of the running train, from which on busy() is false; 0 when idle.
    uint64_t busy_until_us() const {
        if (!busy_)
            return 0;
        return static_cast<uint64_t>(
            std::ceil(next_us_ + static_cast<double>(remaining_ - 1) * period_us_));
    }
    // Carriage and motor positions in steps.
    double carriage_steps() const { return static_cast<double>(carriage_) / pps_; }
    double motor_steps() const { return static_cast<double>(motor_) / pps_; }
    uint64_t lost_pulses() const { return lost_; }

  private:
    int64_t to_pulses(double steps) const { return std::llround(steps * pps_); }

    void pulse() {
        const int64_t m = motor_ + dir_;
        // The carriage stays inside [motor - play, motor]: pushed by one side of the play when
        // the motor rises and by the other when it falls.
        int64_t c = std::clamp(carriage_, m - play_, m);
        if (c < stop_min_ || c > stop_max_) {
            ++lost_;
            return;
        }
        motor_ = m;
        carriage_ = c;
    }

    int pps_;
    int64_t motor_ = 0;
    int64_t carriage_ = 0;
    int64_t play_ = 0;
    int64_t stop_min_ = 0;
    int64_t stop_max_ = 0;
    bool busy_ = false;
    int dir_ = 1;
    uint32_t remaining_ = 0;
    double period_us_ = 1.0;
    double next_us_ = 0.0;
    uint64_t lost_ = 0;
};

}  // namespace vcam::hw

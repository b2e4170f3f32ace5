// Auto exposure and the exposure record.
//
// The sensor integrates light for an exposure time and amplifies it by an analogue gain; the AE
// loop picks both so the mean block luma reaches its target. It prefers exposure time (less
// noise) up to one frame period, then raises the gain up to its limit; past that the picture
// simply gets darker. It converges geometrically in the logarithm of the exposure, so a static
// scene settles on a fixed point and the reported values stop changing.
//
// The exposure record carries three floats the daemon reads: brightness L (word 2), exposure time
// T (word 11) and gain G (word 12). The daemon uses L as the image brightness (its iris loop keeps
// L in 200..250), L / G x 100 as a light-level ratio whose high values select its high-noise
// filter profile (above 200; back below 120), and T x G x 10^4 as an exposure index (above 1000 =
// dark scene). No single physical reading of G satisfies all three, so the mapping is a choice
// (scenario key exposure.mapping):
//   gain_class (default): L = brightness; the ratio word follows the sensor gain
//       (ratio = ratio_per_gain x gain), so daylight (gain 1) reads 60 = normal and a gain above
//       ~3.3 reads above 200 = low light; the index follows the total exposure
//       (1000 x time x gain / dark_exposure). G and T are derived to give exactly these.
//   physical: L = brightness, T = exposure time in seconds, G = sensor gain x gain_scale. The
//       ratio then falls in proportion to the light, which is what the iris correction needs.
//   fixed: the three words as given in the scenario.
// Informational words, ignored by the daemon: 20 = sensor gain, 21 = exposure time (s),
// 22 = brightness relative to the target.
#pragma once

#include <cstdint>

#include "sim/optics.h"
#include "sim/scenario.h"

namespace vcam {

class AutoExposure {
  public:
    AutoExposure(const ExposureSpec& params, double fps);

    // Sensor state for the next exposure.
    SensorState sensor() const;

    // Feeds the mean radiance and iris transmission measured on the last frame. The first call
    // settles at once (the camera has been running before anyone asked).
    void update(double mean_radiance, double transmission);

    struct Words {
        float brightness;
        float time;
        float gain;
    };
    Words words() const;
    void record(uint8_t* out) const;  // 292 bytes

    double gain() const { return gain_; }
    double time_s() const { return time_; }
    double level() const { return level_; }

  private:
    void split();

    ExposureSpec params_;
    double max_time_;
    double log_k_ = 0.0;  // log of luma per unit of radiance x transmission
    double gain_ = 1.0;
    double time_ = 0.001;
    double level_ = 1.0;
    bool settled_ = false;
};

}  // namespace vcam

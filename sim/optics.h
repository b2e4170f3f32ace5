// The optics and the ISP's autofocus statistics: what the 15 x 15 blocks of one frame read for a
// given scene, lens state and exposure.
//
// Every block sees layers: the background, the objects in front of it (later objects cover
// earlier ones), and the discs of point lights. Each layer is in focus at its own focus position
// (the lens data plus the unit's deviation). The four filter sums respond to defocus with a heavy-
// tailed peak, 1 / (1 + (delta / w)^2)^q: the high bands (fir_v, iir1) are narrow, the lower bands
// (fir_h, iir2) wider, and all widen with the zoom (more focus steps per depth of focus at tele)
// and as the iris closes (more depth of field). The tails matter: far from focus a real lens still
// shows a faint gradient towards the peak, and the daemon's coarse search relies on it.
//
// A saturated point light is different: defocus spreads it into a bright disc with a hard, clipped
// edge. Its saturated area (the highlight count) grows with defocus, and so does the disc's edge
// and with it the filter sums, until the disc gets so large that it stops saturating. That gives
// the false contrast peak away from focus that night scenes are known for.
//
// Units (calibrated against the daemon's fixed thresholds, see sim/README.md): a fully covered
// in-focus block of texture T reads fir_v = iir1 = T and fir_h = iir2 = T x h_ratio in daylight;
// luma is a 10-bit block mean (0..1023); highlight counts saturated pixels scaled so a fully
// saturated block reads 20000.
#pragma once

#include <array>
#include <cstdint>

#include "sim/hw/lens_mechanics.h"
#include "sim/scenario.h"

namespace vcam {

inline constexpr int kGrid = 15;
inline constexpr int kBlocks = kGrid * kGrid;
inline constexpr double kImageWidthPx = 3840.0;
inline constexpr double kImageHeightPx = 2160.0;

using BlockValues = std::array<double, kBlocks>;

struct BlockStats {
    BlockValues luma{};
    BlockValues fir_v{};
    BlockValues fir_h{};
    BlockValues iir1{};
    BlockValues iir2{};
    BlockValues highlight{};
    double mean_radiance = 0.0;  // mean scene radiance through the lens, for the auto exposure
};

// What the sensor is doing during the exposure (from the auto exposure).
struct SensorState {
    double luma_per_radiance = 720000.0 * 0.001;  // block luma per unit of radiance x transmission
    double gain = 1.0;                            // physical gain, linear
    double time_s = 0.001;                        // exposure time
    double level = 1.0;  // achieved brightness relative to the exposure target (signal scale)
    double night_reference = 720000.0;  // luma_per_radiance at which a lamp's intensity is given
};

struct RenderInput {
    const Scenario* scenario = nullptr;
    const SceneState* scene = nullptr;
    const SceneState* previous = nullptr;  // scene one frame earlier (motion blur); may be null
    double frame_period_s = 1.0 / 30.0;
    LensTruth lens;
    SensorState sensor;
    bool best_focus = false;  // every layer rendered at its own focus (ground truth)
};

// Iris transmission from the driver value: light through the aperture goes with its area.
double iris_transmission(const LensSpec& lens, double iris);

// Half width at half maximum of the V peak at a zoom position and iris transmission, steps.
double v_peak_width(const OpticsSpec& o, double zoom, double transmission);

// Noise-free statistics of one frame.
void render(const RenderInput& in, BlockStats* out);

// The ISP's filter profile (noise coring and filter threshold): 0 = low-noise set-up, 1 =
// high-noise set-up, from the AF attribute parameters A, B, C.
double filter_profile(uint8_t a, uint8_t b, uint16_t c);

// Sensor and ISP stage: profile signal factor, gain-dependent noise floor and, when enabled,
// seeded noise. The same (seed, frame) always gives the same numbers.
void apply_sensor(const NoiseSpec& noise, const OpticsSpec& optics, double profile, double gain,
                  uint64_t frame, BlockStats* stats);

// Per-block primary sharpness V = (fir_v + iir1) / 2 and secondary H = (fir_h + iir2) / 2.
inline double block_v(const BlockStats& s, int b) {
    return (s.fir_v[b] + s.iir1[b]) / 2;
}
inline double block_h(const BlockStats& s, int b) {
    return (s.fir_h[b] + s.iir2[b]) / 2;
}

// Mean V over window w (0..24) of 3 x 3 blocks, and over the centre 4 x 4 blocks (rows and
// columns 6..9) that the daemon uses for its centre sharpness.
double window_v(const BlockStats& s, int w);
double centre_v(const BlockStats& s);

}  // namespace vcam

// A scenario: everything the virtual camera needs to know about one run. The scene in front of the
// lens, the lens unit, the sensor and its auto exposure, the frame rate, and a timeline of events.
// Scenarios are YAML files (sim/scenarios/); sim/README.md lists every key with unit and default.
//
// Coordinates: image coordinates 0..1, x to the right, y down, as seen at the zoom position
// `scene.geometry_zoom` (default the wide end). Zooming in magnifies about the image centre.
// Distances in millimetres, times in seconds, lens positions in motor steps.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "sim/faults.h"
#include "sim/lens_model.h"

namespace vcam {

struct Rect {
    double x = 0.0;  // left edge
    double y = 0.0;  // top edge
    double w = 0.0;
    double h = 0.0;
};

// Field values that the timeline can change, kept as plain numbers so events can ramp them.
struct ObjectState {
    double x = 0.0, y = 0.0, w = 0.0, h = 0.0;
    double distance = 1000.0;  // mm
    double texture = 3000.0;   // in-focus sharpness of a fully covered block, daylight
    double reflectance = 0.5;  // 0..1
    double visible = 1.0;      // 0 or 1
    bool operator==(const ObjectState&) const = default;
};

struct LightState {
    double x = 0.5, y = 0.5;    // image coordinates of the point source
    double distance = 10000.0;  // mm
    double intensity = 1.0;     // 1 = the disc just stays saturated at `saturated_diameter_px`
    double on = 1.0;            // 0 or 1
    bool operator==(const LightState&) const = default;
};

struct SceneState {
    std::vector<ObjectState> objects;
    std::vector<LightState> lights;
    double illumination = 1.0;  // 1 = daylight; 0.001 = street lighting at night
    double pan = 0.0;           // camera pointing offset, image widths at geometry_zoom (+ = right)
    double tilt = 0.0;          // image heights (+ = down)
    // Lens positions the scenario imposes (NaN = left to the lens hardware).
    double lens_zoom = std::numeric_limits<double>::quiet_NaN();
    double lens_focus = std::numeric_limits<double>::quiet_NaN();
    double lens_iris = std::numeric_limits<double>::quiet_NaN();
};

struct ObjectSpec {
    std::string name;
    double luma_contrast = 0.3;      // block-to-block reflectance variation, fraction
    double h_ratio = 1.2;            // in-focus H sharpness relative to V (lower band, more energy)
    double texture_variation = 0.2;  // block-to-block variation of the texture strength
};

struct LightSpec {
    std::string name;
    double core_px = 30.0;  // radius of the in-focus image of the lamp with its bloom, pixels
};

struct OpticsSpec {
    double geometry_zoom = 0.0;        // zoom position at which object rectangles are given
    double v_width_wide = 5.0;         // half width at half maximum of V at the wide end, steps
    double v_width_tele = 12.0;        // ... at the tele end
    double width_zoom_exponent = 1.5;  // how the width grows from wide to tele
    double band_fir_v = 1.0;           // width multipliers of the four filter bands
    double band_iir1 = 1.0;
    double band_fir_h = 2.0;
    double band_iir2 = 3.0;
    double tail_exponent = 1.0;           // 1 = Lorentzian tails; larger = shorter tails
    double blur_px_per_step_wide = 0.66;  // blur-disc diameter per focus step, 4K pixels
    double blur_px_per_step_tele = 0.40;
    double iris_dof = 0.5;                 // peak width grows as transmission^-iris_dof
    double light_edge_gain = 8.0;          // sharpness per pixel of saturated disc edge
    double saturated_diameter_px = 200.0;  // disc diameter at which an intensity-1 lamp stops
                                           // saturating
    double high_noise_signal = 0.7;        // filter signal factor of the high-noise profile
    double high_noise_floor = 0.3;         // noise floor factor of the high-noise profile
};

struct NoiseSpec {
    bool enabled = true;
    uint64_t seed = 1;
    double relative = 0.004;       // relative fluctuation of the filter sums at gain 1
    double floor_per_gain = 5.0;   // mean noise energy in the filter sums per unit of gain
    double floor_spread = 0.15;    // relative fluctuation of that floor
    double luma_relative = 0.002;  // relative fluctuation of luma at gain 1
};

enum class ExposureMapping { kGainClass, kPhysical, kFixed };

struct ExposureSpec {
    ExposureMapping mapping = ExposureMapping::kGainClass;
    double target_luma = 360.0;           // 10-bit block mean the auto exposure aims for
    double brightness_at_target = 225.0;  // brightness word when the target is met
    double max_gain = 64.0;               // physical sensor gain limit (linear)
    double max_time = 0.0;                // longest exposure, s (0 = one frame period)
    double min_time = 1e-5;
    double speed = 0.25;              // fraction of the log error corrected per frame
    double ratio_per_gain = 60.0;     // gain_class: gain ratio word per unit of sensor gain
    double dark_exposure = 0.1333;    // gain_class: time x gain reading as index 1000
    double gain_scale = 1.0;          // physical: gain word = sensor gain x this
    double fixed_brightness = 225.0;  // fixed mapping: the three words as given
    double fixed_time = 0.0004;
    double fixed_gain = 200.0;
};

struct LatencySpec {
    int frames = 2;    // a move after frame n is fully visible in frame n + frames
    double mix = 0.5;  // share of the new lens state in the first frame after a move
};

struct LensSweep {
    bool active = false;
    bool focus_axis = true;  // false = zoom
    double from = 0.0, to = 0.0, step = 1.0;
    bool bounce = false;
};

struct LensSpec {
    LensUnit unit;
    double zoom = 0.0;  // power-on position of the zoom carriage, steps
    double focus = 2400.0;
    double iris = 1023.0;       // driver units, 0 closed
    double iris_open = 1023.0;  // driver value of the fully open iris
    LensSweep sweep;
};

// One timeline event: at `at` seconds, fields of a target move to new values, instantly or over
// `over` seconds (linear ramp from wherever they were when the event started).
struct TimelineEvent {
    double at = 0.0;
    double over = 0.0;
    std::vector<std::pair<int, double>> fields;  // (state field code, target value)
    std::vector<double> from;                    // field values when the event starts
    int line = 0;                                // source line, for messages
};

// The camera's object tracker: it follows one object and publishes its box in
// /dev/sm_track_info (five u32: state, x1, y1, x2, y2 in a 640 x 360 space), as the tracker
// process on the camera does. Its flaws are configurable.
struct TrackerSpec {
    bool enabled = false;
    std::string object;         // object it follows
    int latency_frames = 2;     // the box shows the object as it was this many frames earlier
    double jitter = 2.0;        // standard deviation of each edge, 640 x 360 units
    double box_error = 0.0;     // the box is this fraction too large (negative: too small)
    double dropout_rate = 0.0;  // chance per frame that the tracker loses the object ...
    int dropout_frames = 15;    // ... for this many frames (state 0)
};

// A rangefinder beside the lens: the distance to one object in /dev/sm_distance_info (two u32:
// valid, distance in mm).
struct RangefinderSpec {
    bool enabled = false;
    std::string object;         // "" = the scenario's subject
    double error = 0.0;         // relative standard deviation of a reading
    double dropout_rate = 0.0;  // chance per frame of a reading without echo (invalid)
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    double fps = 30.0;
    double jitter_us = 0.0;
    std::string subject;  // main subject (object name); "" = the background
    SceneState initial;
    std::vector<ObjectSpec> objects;
    std::vector<LightSpec> lights;
    double background_distance = 100000.0;
    double background_texture = 0.0;
    double background_reflectance = 0.3;
    double background_luma_contrast = 0.0;
    OpticsSpec optics;
    NoiseSpec noise;
    ExposureSpec exposure;
    LatencySpec latency;
    LensSpec lens;
    TrackerSpec tracker;
    RangefinderSpec rangefinder;
    std::vector<TimelineEvent> timeline;  // sorted by start time
    std::vector<FaultSpec> faults;        // injected into the ISP link and the lens hardware

    int subject_index() const;  // -1 = background
    int object_index(const std::string& n) const;
    int light_index(const std::string& n) const;
};

// Reads and checks a scenario file. On failure returns false and sets *error to a message that
// names the file, the line and the field ("file:12: scene.objects[1].distance: ...").
bool load_scenario(const std::string& path, Scenario* out, std::string* error);
bool parse_scenario(const std::string& text, const std::string& file_name, Scenario* out,
                    std::string* error);

// The state of the scene at time t (seconds), with every timeline event up to t applied.
SceneState scene_at(const Scenario& sc, double t);

}  // namespace vcam

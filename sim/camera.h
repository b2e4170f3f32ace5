// The camera as the ISP service sees it: a free-running sensor on a fixed frame grid (frame k is
// captured at k x period), the lens whose true state the mechanics hold, the optics, the ISP's
// filters and the auto exposure. It answers "the statistics of frame k" deterministically; the
// ISP server decides which k and when.
//
// Latency: frame k integrates light over its exposure, the interval since frame k - 1. A lens move
// the daemon commands after receiving frame n therefore happens during the exposure of frame
// n + 1, which sees a mix of the old and new state (share `latency.mix` of the new one), and frame
// n + 2 shows the new state cleanly. `latency.frames` = L moves that clean frame to n + L by adding
// L - 2 frames of pipeline delay (L = 1: the move counts as finished before the next exposure).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "data/frame_stamp.h"
#include "sim/activity.h"
#include "sim/exposure.h"
#include "sim/hw/lens_mechanics.h"
#include "sim/isp_records.h"
#include "sim/optics.h"
#include "sim/peripherals.h"
#include "sim/scenario.h"

namespace vcam {

// Ground truth of one delivered frame, for the telemetry.
struct FrameTruth {
    uint64_t frame = 0;     // grid index delivered (also the header sequence)
    uint64_t exposure = 0;  // grid index whose exposure the statistics show
    uint64_t stamp_us = 0;  // capture time in the header
    double scene_time_s = 0.0;
    LensTruth lens;                    // lens state at the end of the exposure shown
    LensTruth lens_start;              // ... at its start
    double subject_focus = 0.0;        // true in-focus position of the main subject
    std::vector<double> object_focus;  // per object (NaN when not visible)
    std::vector<double> light_focus;
    std::array<double, 25> best_window_v{};  // window V if every layer were in focus
    double best_centre_v = 0.0;
    double centre_v = 0.0;  // centre V of the delivered statistics
    double centre_h = 0.0;
    double luma_mean = 0.0;
    double highlight_max = 0.0;
    uint64_t digest = 0;  // FNV-1a of the 5504 bytes
    double profile = 0.0;
    double gain = 1.0;
    double exposure_time_s = 0.0;
    AutoExposure::Words words{};
};

class Camera {
  public:
    // Puts the lens where the scenario says it stands at power-on.
    Camera(const Scenario& sc, LensMechanics* mech);

    const Scenario& scenario() const { return sc_; }

    // Capture time of grid frame k, microseconds.
    uint64_t grid_time_us(uint64_t k) const;
    // First grid frame captured strictly after now_us.
    uint64_t first_frame_after(uint64_t now_us) const;

    // Writes the 5504-byte statistics of grid frame k, stamped (k, stamp_us). Frames must be asked
    // for in increasing k; gaps are frames nobody fetched. truth may be null.
    void frame(uint64_t k, uint64_t stamp_us, uint8_t* out, FrameTruth* truth);

    // Holds the scenario's timeline at its start until *go becomes true; the first frame that
    // sees it true becomes scene time 0. A benchmark sets it at the moment it switches the
    // autofocus on, so scripted scene changes happen at the same time after that trigger however
    // long the daemon's start-up took. go must outlive the camera; null runs the timeline from
    // the first frame as usual.
    void hold_timeline_until(const std::atomic<bool>* go) { timeline_go_ = go; }
    // Scene time (s) at capture time t_us, or -1 while the timeline is held at its start.
    double scene_clock(uint64_t t_us) const {
        if (timeline_go_ != nullptr && !timeline_started_)
            return -1.0;
        return scene_time(static_cast<double>(t_us) / 1e6);
    }
    // Lens activity summary for long runs (not owned; nullptr: none).
    void set_activity_log(ActivityLog* log) { activity_ = log; }

    void af_attr(uint8_t* out) const;
    void set_af_attr(const uint8_t* in);
    void exposure_record(uint8_t* out) const { ae_.record(out); }
    double profile() const { return profile_; }

  private:
    struct Exposure {
        uint64_t k;
        LensTruth start;
        LensTruth end;
    };

    bool lens_script_in_scenario() const;
    // Scene time (s) of capture time t (s): t itself, or the time since the timeline started.
    double scene_time(double t) const;
    void check_timeline_start(double t_k);
    void drive_lens(uint64_t k, double t);
    void render_exposure(const Exposure& e, BlockStats* out, double* transmission);

    Scenario sc_;
    LensMechanics* mech_;
    AutoExposure ae_;
    Peripherals peripherals_{sc_};
    ActivityLog* activity_ = nullptr;
    std::array<uint8_t, kAfAttrSize> attr_{};
    double profile_ = 0.0;
    double period_us_;
    bool scripted_;  // the scenario moves the lens itself (no lens hardware needed)
    const std::atomic<bool>* timeline_go_ = nullptr;
    bool timeline_started_ = false;
    double timeline_origin_s_ = 0.0;
    bool have_last_ = false;
    uint64_t last_k_ = 0;
    LensTruth last_end_;
    std::vector<Exposure> ring_;  // the last `latency.frames - 1` exposures, oldest first
    // Best-focus sharpness for the telemetry, kept while scene and lens zoom/iris stay the same.
    bool best_valid_ = false;
    SceneState best_scene_;
    double best_zoom_ = 0.0;
    double best_iris_ = 0.0;
    double best_level_ = 0.0;
    std::array<double, 25> best_window_{};
    double best_centre_ = 0.0;
};

}  // namespace vcam

// Lens activity summary: what the lens did, counted from the mechanism's true positions and
// written once per period of scene time as one JSON line. For long runs (a day-long soak) where
// per-frame telemetry would be gigabytes: it counts the focus and zoom moves that begin after
// the lens has been at rest, which on a static scene are the searches the daemon started.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "sim/hw/lens_mechanics.h"

namespace vcam {

class ActivityLog {
  public:
    ~ActivityLog();
    // Opens the output; period_s of scene time per line.
    bool open(const std::string& path, double period_s);
    bool is_open() const { return out_ != nullptr; }
    // One delivered frame: scene time and the lens as it stands.
    void frame(double t_s, const LensTruth& lens);

  private:
    void flush_line(double t_s);

    FILE* out_ = nullptr;
    double period_s_ = 60.0;
    double next_s_ = 0.0;
    bool have_last_ = false;
    LensTruth last_{};
    int focus_rest_ = 0, zoom_rest_ = 0;  // frames at rest so far
    bool focus_moving_ = false, zoom_moving_ = false;
    uint64_t frames_ = 0, focus_moves_ = 0, zoom_moves_ = 0;
    double focus_travel_ = 0.0;
};

}  // namespace vcam

// Ground-truth telemetry: one JSON object per delivered frame (JSON Lines). Keys:
//   frame, exposure     grid index delivered / whose exposure the statistics show
//   t_us                capture time in the frame header (µs)
//   scene_s             scene time of the exposure shown (s)
//   lens                true lens state at the end of that exposure {zoom, focus, iris}
//   lens_start          ... at its start (differs when the lens moved during the exposure)
//   subject_focus       true in-focus focus position of the main subject (steps)
//   object_focus        per scenario object, null while the object is not in the picture
//   light_focus         per point light, null while off
//   best_window_v       the 25 window sharpness values (mean block V) at best focus
//   best_centre_v       centre (blocks 6..9 x 6..9) V at best focus
//   centre_v, centre_h  centre V and H of the delivered statistics
//   luma_mean, highlight_max, digest (FNV-1a of the 5504 bytes, hex)
//   profile             filter profile in force (0 low-noise .. 1 high-noise)
//   gain, exposure_s    sensor gain and exposure time
//   words               the exposure record's brightness, time and gain words
#pragma once

#include <cstdio>
#include <string>

#include "sim/camera.h"

namespace vcam {

class TelemetryWriter {
  public:
    TelemetryWriter() = default;
    ~TelemetryWriter();
    TelemetryWriter(const TelemetryWriter&) = delete;
    TelemetryWriter& operator=(const TelemetryWriter&) = delete;

    // Returns false (and logs) when the file cannot be created.
    bool open(const std::string& path);
    bool is_open() const { return f_ != nullptr; }
    void write(const FrameTruth& t);
    void flush();

  private:
    FILE* f_ = nullptr;
};

std::string telemetry_line(const FrameTruth& t);

}  // namespace vcam

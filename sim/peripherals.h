// The camera's other processes that feed the daemon besides the ISP: the object tracker, which
// publishes the box of the object it follows, and a rangefinder beside the lens, which publishes
// the distance to it. Both write small shared-memory records under the sandbox root every frame,
// from the scenario's ground truth with the flaws the scenario gives them.
#pragma once

#include <cstdint>

#include "sim/scenario.h"

namespace vcam {

inline constexpr const char* kTrackRecordPath = "/dev/sm_track_info";
inline constexpr const char* kDistanceRecordPath = "/dev/sm_distance_info";

// Tracker box of object `index` as the tracker reports it, in its 640 x 360 space (mirrored left
// to right, as the sensor is mounted), before jitter; false when the object is out of the picture
// or not visible.
bool tracker_box(const Scenario& sc, const SceneState& s, int index, double zoom, double box[4]);

class Peripherals {
  public:
    explicit Peripherals(const Scenario& sc);
    ~Peripherals();
    Peripherals(const Peripherals&) = delete;
    Peripherals& operator=(const Peripherals&) = delete;

    // Publishes the records for grid frame k (scene time t_s, zoom position of the lens).
    void frame(uint64_t k, double t_s, double zoom);

  private:
    const Scenario& sc_;
    int track_fd_ = -1;
    int distance_fd_ = -1;
    uint64_t dropout_until_ = 0;
};

}  // namespace vcam

// The lens as a mechanism: where the zoom and focus carriages and the iris blades really are.
// The chip emulators move it; the optics renderer reads it. Positions are in motor steps on the
// same scale as the daemon's counts (zoom 0..6624, focus 0..6120), but they are the truth: after a
// power-on, a missed step or a backlash take-up they differ from what the daemon believes.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

namespace vcam {

struct LensTruth {
    double zoom = 0.0;     // zoom carriage, steps
    double focus = 0.0;    // focus carriage, steps
    double iris = 0.0;     // iris opening, driver units (0 closed)
    uint64_t time_us = 0;  // virtual time of this state
};

class LensMechanics {
  public:
    LensTruth snapshot() const {
        std::lock_guard<std::mutex> lock(mu_);
        return truth_;
    }
    void set(const LensTruth& t) {
        std::lock_guard<std::mutex> lock(mu_);
        truth_ = t;
    }

    // The motors run on between the daemon's bus transfers: a move started just before the
    // daemon falls quiet still finishes. The chip emulator installs its clock here (before frames
    // are served) and the camera brings the mechanism up to each frame's capture time.
    void set_driver(std::function<void(uint64_t)> advance) { advance_ = std::move(advance); }
    void advance_to(uint64_t time_us) {
        if (advance_)
            advance_(time_us);
    }

  private:
    mutable std::mutex mu_;
    LensTruth truth_;
    std::function<void(uint64_t)> advance_;
};

}  // namespace vcam

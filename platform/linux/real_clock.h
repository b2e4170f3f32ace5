#pragma once

#include "platform/clock.h"

namespace platform {

// The board's clock: time of day from gettimeofday, sleeps with usleep semantics.
class RealClock final : public Clock {
  public:
    int wall_time(timeval* tv) override;
    uint64_t monotonic_us() override;
    void sleep_us(uint32_t us) override;
    void on_frame(const afdata::FrameStamp&) override {}
    bool is_virtual() const override { return false; }
};

}  // namespace platform

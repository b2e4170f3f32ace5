#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

namespace platform {

// Simulated time for runs against the virtual camera and for tests.
//
// Time is a single counter of microseconds since the simulated power-on. Sleeps add to it and
// return at once; a received frame moves it forward to the frame's capture time (never back).
// Wall time is a fixed epoch plus the counter, so logs are reproducible.
//
// When a page file is attached (AFD_VCLOCK_FILE), the current time is also written there after
// every change, so the virtual camera can deliver "the next frame after now" to a daemon that was
// late, exactly as a free-running sensor would.
class VirtualClock final : public Clock {
  public:
    // 2026-01-01 00:00:00 UTC.
    static constexpr int64_t kEpochSeconds = 1767225600;

    VirtualClock() = default;
    ~VirtualClock() override;
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    // Maps the shared page file (created if needed). Returns 0, or -1 on failure.
    int attach_page(const char* path);

    int wall_time(timeval* tv) override;
    uint64_t monotonic_us() override { return now_.load(std::memory_order_acquire); }
    void sleep_us(uint32_t us) override;
    // Advances like sleep_us, then pauses for up to kIdleRealPauseUs of real time.
    void idle_us(uint32_t us) override;
    static constexpr uint32_t kIdleRealPauseUs = 2000;
    void on_frame(const afdata::FrameStamp& stamp) override;
    bool is_virtual() const override { return true; }

    // Sets the time directly (tests).
    void set_now_us(uint64_t t);

  private:
    void publish(uint64_t t);

    std::atomic<uint64_t> now_{0};
    volatile uint8_t* page_ = nullptr;
};

}  // namespace platform

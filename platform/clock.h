// Time for the whole daemon. No module reads the OS clock or sleeps by itself: everything goes
// through the clock selected here, so that on a desktop the virtual camera can own time.
//
// Two backends:
//  - the real clock (platform/linux/real_clock): gettimeofday, CLOCK_MONOTONIC and usleep;
//  - the virtual clock (platform/sim/virtual_clock): sleeps return at once and advance virtual
//    time, and every statistics frame carries its capture time in its header (data/frame_stamp.h),
//    which the virtual clock follows. A daemon that keeps up therefore measures exactly the virtual
//    camera's frame interval, however fast the simulation runs.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "data/frame_stamp.h"

namespace platform {

class Clock {
  public:
    virtual ~Clock() = default;

    // Time of day, as gettimeofday gives it. Returns 0, or -1 when the time cannot be read.
    virtual int wall_time(timeval* tv) = 0;

    // Microseconds on a clock that never steps backwards (elapsed-time measures).
    virtual uint64_t monotonic_us() = 0;

    // Suspends the calling thread (real) or advances time (virtual) by us microseconds.
    virtual void sleep_us(uint32_t us) = 0;

    // Waits for a peer that lives in real time (a service that is down and may come back).
    // The real clock sleeps; the virtual clock advances its time and also pauses for a moment of
    // real time, since nothing virtual will change while the peer is away and a loop polling it
    // must not spin a core.
    virtual void idle_us(uint32_t us) { sleep_us(us); }

    // A statistics frame with this stamp has just been received. The real clock ignores it.
    virtual void on_frame(const afdata::FrameStamp& stamp) = 0;

    virtual bool is_virtual() const = 0;
};

// The clock in force; the real clock until select_clock() is called.
Clock& clock();

// Installs a clock (main() once at start-up; tests install their own). The object must outlive
// every user. nullptr restores the real clock.
void select_clock(Clock* c);

// Shorthands used by the modules.
inline int wall_time(timeval* tv) {
    return clock().wall_time(tv);
}
inline void sleep_us(uint32_t us) {
    clock().sleep_us(us);
}
inline void idle_us(uint32_t us) {
    clock().idle_us(us);
}
inline uint64_t monotonic_us() {
    return clock().monotonic_us();
}

// Pauses for us microseconds of real time, whichever clock is in force, and never advances the
// virtual clock. For threads outside the frame loop that wait on something a person or a desktop
// tool does (a switch file appearing, a client slot freeing): their waits are not part of the
// simulated camera's time.
void pause_real_us(uint32_t us);

}  // namespace platform

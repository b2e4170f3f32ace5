#include "platform/linux/real_clock.h"

#include <time.h>

#include <cerrno>

namespace platform {

int RealClock::wall_time(timeval* tv) {
    return gettimeofday(tv, nullptr) == 0 ? 0 : -1;
}

uint64_t RealClock::monotonic_us() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void RealClock::sleep_us(uint32_t us) {
    // usleep semantics, but resumed after a signal so a SIGQUIT does not shorten a motor wait.
    timespec req{static_cast<time_t>(us / 1000000u), static_cast<long>((us % 1000000u) * 1000u)};
    timespec rem{};
    while (nanosleep(&req, &rem) != 0 && errno == EINTR)
        req = rem;
}

}  // namespace platform

#include "platform/clock.h"

#include <atomic>

#include "platform/linux/real_clock.h"

namespace platform {
namespace {

RealClock g_realClock;
std::atomic<Clock*> g_clock{&g_realClock};

}  // namespace

Clock& clock() {
    return *g_clock.load(std::memory_order_acquire);
}

void pause_real_us(uint32_t us) {
    g_realClock.sleep_us(us);
}

void select_clock(Clock* c) {
    g_clock.store(c ? c : &g_realClock, std::memory_order_release);
}

}  // namespace platform

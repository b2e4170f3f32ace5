#include "base/frame_pacing.h"

#include <atomic>

namespace {

struct FramePacing {
    std::atomic<uint32_t> frame_rate{60};
    std::atomic<uint8_t> high_rate{0};
    std::atomic<uint8_t> half_rate{0};
    std::atomic<uint8_t> motion_divisor{1};
    std::atomic<uint8_t> af_divisor{2};
    // The autofocus asked for the slow divider (its phases that move and then judge).
    std::atomic<uint8_t> af_slow{0};
    std::atomic<uint32_t> loop_paused{0};
    std::atomic<uint32_t> tracking_on{0};
};

FramePacing g_pacing;

constexpr uint32_t kImageWidth = 3840;
constexpr uint32_t kImageHeight = 2160;

}  // namespace

uint32_t get_frame_rate() {
    return g_pacing.frame_rate;
}
void set_frame_rate(uint32_t fps) {
    g_pacing.frame_rate = fps;
}
uint32_t get_image_width() {
    return kImageWidth;
}
uint32_t get_image_height() {
    return kImageHeight;
}

void update_frame_cadence() {
    const float fps = static_cast<float>(g_pacing.frame_rate.load());
    set_high_rate(fps >= 45.0f ? 1 : 0);
    set_af_divider(g_pacing.af_slow == 1);
    set_half_rate(fps >= 90.0f ? 1 : 0);
}

uint8_t get_high_rate() {
    return g_pacing.high_rate;
}
void set_high_rate(uint32_t on) {
    g_pacing.high_rate = on != 0 ? 1 : 0;
}
uint8_t get_half_rate() {
    return g_pacing.half_rate;
}
void set_half_rate(uint32_t on) {
    g_pacing.half_rate = on != 0 ? 1 : 0;
}

uint8_t get_motion_divisor() {
    return g_pacing.motion_divisor;
}
void set_motion_divisor_from_high_rate() {
    g_pacing.motion_divisor = g_pacing.high_rate ? 2 : 1;
}

uint8_t get_af_divisor() {
    return g_pacing.af_divisor;
}
void set_af_divisor(uint32_t d) {
    g_pacing.af_divisor = (d >= 1 && d <= 3) ? static_cast<uint8_t>(d) : 1;
}
void set_af_divider(bool slow) {
    g_pacing.af_slow = slow ? 1 : 0;
    const bool high = g_pacing.high_rate != 0;
    if (slow && high) {
        set_af_divisor(3);
    } else if (slow || high) {
        set_af_divisor(2);
    } else {
        set_af_divisor(1);
    }
}

uint8_t get_af_slow() {
    return g_pacing.af_slow;
}
void set_af_slow(uint8_t slow) {
    g_pacing.af_slow = slow != 0 ? 1 : 0;
}

uint32_t get_loop_paused() {
    return g_pacing.loop_paused;
}
void set_loop_paused(uint32_t paused) {
    g_pacing.loop_paused = paused;
}

uint32_t get_tracking_on() {
    return g_pacing.tracking_on;
}
void set_tracking_on(uint32_t on) {
    g_pacing.tracking_on = on;
}

uint32_t classify_frame_interval(uint32_t us) {
    // Nominal periods 16667, 20000, 33333 and 40000 us, each with about +-1 ms of tolerance.
    if (us > 15600 && us < 17600)
        return 60;
    if (us > 19000 && us < 21000)
        return 50;
    if (us > 32000 && us < 34000)
        return 30;
    if (us > 39000 && us < 41000)
        return 25;
    return 0;
}

void frame_pacing_reset_for_testing() {
    g_pacing.frame_rate = 60;
    g_pacing.high_rate = 0;
    g_pacing.half_rate = 0;
    g_pacing.motion_divisor = 1;
    g_pacing.af_divisor = 2;
    g_pacing.af_slow = 0;
    g_pacing.loop_paused = 0;
    g_pacing.tracking_on = 0;
}

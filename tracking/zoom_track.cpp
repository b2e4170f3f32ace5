#include "tracking/zoom_track.h"

namespace {
volatile uint8_t g_trackingActive = 0;
volatile int8_t g_focusTrim = 0;
}  // namespace

uint8_t zoom_track_step(uint8_t, uint8_t, uint8_t) {
    return 0;
}
void zoom_track_clear_active() {
    g_trackingActive = 0;
}
uint8_t zoom_track_is_active() {
    return g_trackingActive;
}
int8_t zoom_track_get_trim() {
    return g_focusTrim;
}

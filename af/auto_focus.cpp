#include "af/auto_focus.h"

volatile uint8_t g_afState = 0;
volatile uint8_t g_refocusRequest = 0;
volatile uint8_t g_returnToLast = 0;
volatile uint8_t g_oneShotStage = 0;
volatile uint8_t g_zoomMotionMarker = 0;
volatile uint8_t g_manualFocusMove = 0;
volatile uint16_t g_lastAfPos = 0;

uint8_t af_slow_divider() {
    return 0;
}

void AfFrame() {}
void ReturnToLastPosition() {
    g_returnToLast = 0;
}
void SnapshotReference() {}
void refresh_window_mask(uint8_t) {}

namespace {
volatile uint8_t g_distanceAssist = 0;
}

uint8_t get_distance_assist_mode() {
    return g_distanceAssist;
}
void set_distance_assist_mode(uint8_t on) {
    g_distanceAssist = on;
}

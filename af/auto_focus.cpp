#include "af/auto_focus.h"

volatile uint8_t g_afState = 0;
volatile uint8_t g_refocusRequest = 0;
volatile uint8_t g_returnToLast = 0;
volatile uint8_t g_oneShotStage = 0;

uint8_t af_slow_divider() {
    return 0;
}

void AfFrame() {}
void ReturnToLastPosition() {
    g_returnToLast = 0;
}
void SnapshotReference() {}
void refresh_window_mask(uint8_t) {}
